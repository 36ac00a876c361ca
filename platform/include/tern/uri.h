// URLs (RFC 3986) with query editing.
#ifndef TERN_URI_H
#define TERN_URI_H

#include <string>
#include <utility>
#include <vector>

namespace tern {

class URI {
 public:
  // Parses an absolute URL. A text that is not one gives an invalid URI.
  static URI parseURL(const std::string& url);

  bool isValid() const { return valid_; }

  const std::string& getScheme() const { return scheme_; }
  const std::string& getHost() const { return host_; }
  const std::string& getPath() const { return path_; }

  // Removes every query field.
  void clearQuery();
  // Appends key=value (both percent-encoded, space as '+') to the query.
  void addQueryField(const std::string& key, const std::string& value);
  // The decoded value of the first field named `key`, or "".
  std::string getQueryField(const std::string& key) const;

  // The URL text, "" for an invalid URI. Parts that were not edited are
  // printed as they were written; an edited query is re-encoded.
  std::string toString() const;

 private:
  bool valid_ = false;
  std::string scheme_;
  std::string authority_;  // userinfo@host:port, as written
  std::string host_;
  std::string path_;
  std::string fragment_;
  bool hasAuthority_ = false;
  bool hasFragment_ = false;
  // Decoded key/value pairs in order; a field without '=' has hasValue false.
  struct QueryField {
    std::string key;
    std::string value;
    bool hasValue;
  };
  std::vector<QueryField> query_;
  std::string rawQuery_;
  bool hasQuery_ = false;
  bool queryEdited_ = false;

  std::string composedQuery() const;
  static std::string encodeComponent(const std::string& text);
};

}  // namespace tern

#endif  // TERN_URI_H
