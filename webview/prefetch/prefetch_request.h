// The description of one prefetch.
#ifndef VELORA_WEBVIEW_PREFETCH_PREFETCH_REQUEST_H
#define VELORA_WEBVIEW_PREFETCH_PREFETCH_REQUEST_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace velora {

class PrefetchRequest {
 public:
  // A description from a URL alone: no id.
  explicit PrefetchRequest(const std::string& url) : url_(url) {}
  // The registry's copy of `other`: its url, method and headers, with a fresh
  // id. The first-chunk flag and the send time start anew.
  explicit PrefetchRequest(const std::shared_ptr<PrefetchRequest>& other);

  // Ids are "1", "2", ... in the order prefetches start, from any thread.
  static uint64_t getNextPrefetchId() { return nextPrefetchId.fetch_add(1); }

  void setMethod(const std::string& method) { method_ = method; }
  // Inserts, or replaces the value of an existing name.
  void setHeader(const std::string& name, const std::string& value) { headers_[name] = value; }
  void setJustFirstChunk(bool justFirstChunk) { justFirstChunk_ = justFirstChunk; }
  void setRequestTime(double ms) { requestStartTime_ = ms; }

  const std::string& getRequestId() const { return requestId_; }
  const std::string& getUrl() const { return url_; }
  const std::string& getMethod() const { return method_; }
  const std::map<std::string, std::string>& getHeaders() const { return headers_; }
  bool isJustFirstChunk() const { return justFirstChunk_; }
  double getRequestStartTime() const { return requestStartTime_; }

 private:
  static std::atomic<uint64_t> nextPrefetchId;

  std::string requestId_;
  std::string url_;
  std::string method_;
  std::map<std::string, std::string> headers_;
  bool justFirstChunk_ = false;
  double requestStartTime_ = 0;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_PREFETCH_PREFETCH_REQUEST_H
