// One stored first chunk of a server-rendered page and what the server said
// about it.
#ifndef VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_CONTEXT_H
#define VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_CONTEXT_H

#include <string>

namespace velora {

// Always held through std::shared_ptr.
class FirstChunkContext {
 public:
  void setEnable(bool enable) { enable_ = enable; }
  bool isEnable() const { return enable_; }
  void setUrl(const std::string& url) { url_ = url; }
  const std::string& getUrl() const { return url_; }
  void setRule(const std::string& rule) { rule_ = rule; }
  const std::string& getRule() const { return rule_; }
  void setVersion(const std::string& version) { version_ = version; }
  const std::string& getVersion() const { return version_; }
  void setExpiredTime(double ms) { expiredTime_ = ms; }
  double getExpiredTime() const { return expiredTime_; }
  void setHtml(const std::string& html) { html_ = html; }
  const std::string& getHtml() const { return html_; }

  // Past its expiry instant; a record is still good during its last millisecond.
  bool isExpired() const;
  size_t getHtmlLength() const { return html_.size(); }
  // Worth serving: the server allows it and there is a chunk.
  bool isValidStorageContext() const { return enable_ && !html_.empty(); }
  // {"enable"=1,"url"=...,"rule"=...,"version"=...,"expiredTime"=...,"html"=...}
  std::string toString() const;
  // The same for log entries, with the chunk given as its length and hash:
  // a chunk may be a megabyte, and its bytes are the page's, not the log's.
  std::string toLogString() const;

 private:
  bool enable_ = false;  // the server allows the cache for this page
  std::string url_;      // the page the chunk was taken from
  std::string rule_;     // query parameters that must match, comma-separated
  std::string version_ = "0";
  double expiredTime_ = 0;  // ms since the epoch
  std::string html_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_FIRST_CHUNK_FIRST_CHUNK_CONTEXT_H
