// A page URL with query editing, over tern::URI.
#ifndef VELORA_WEBVIEW_UTILS_URL_PARSER_H
#define VELORA_WEBVIEW_UTILS_URL_PARSER_H

#include <string>

#include "tern/uri.h"

namespace velora {

class UrlParser {
 public:
  explicit UrlParser(const std::string& url) : uri_(tern::URI::parseURL(url)) {}

  bool isValid() const { return uri_.isValid(); }
  void clearQuery() { uri_.clearQuery(); }
  void appendQueryParameter(const std::string& key, const std::string& value) {
    uri_.addQueryField(key, value);
  }
  std::string getQuery(const std::string& key) const { return uri_.getQueryField(key); }
  std::string build() const { return uri_.toString(); }

 private:
  tern::URI uri_;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_UTILS_URL_PARSER_H
