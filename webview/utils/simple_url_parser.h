// A self-contained splitter of absolute URLs, with a query splitter, a
// percent-codec and a builder. The character rules here are the contract;
// no RFC is enforced.
#ifndef VELORA_WEBVIEW_UTILS_SIMPLE_URL_PARSER_H
#define VELORA_WEBVIEW_UTILS_SIMPLE_URL_PARSER_H

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace velora {

struct query_kv_t {
  std::string key;
  std::string value;
};

class SimpleUrlParser {
 public:
  SimpleUrlParser() = default;
  virtual ~SimpleUrlParser() = default;

  // Allocates a parser (the caller deletes it), splits `url` and fills the
  // query map from pairs that have both a key and a value.
  static SimpleUrlParser* parseUrl(std::string url);

  // Splits `url` into scheme, host, port, path, query and fragment. A '#'
  // ends only a query: without '?', a fragment stays inside the path.
  void parse();

  // Calls `callback` for each '&'-separated key=value pair of `text`, without
  // decoding. With `requireBoth`, only pairs with a non-empty key and value;
  // otherwise pairs with either. A piece without '=' is a key with an empty
  // value. Returns -1 for an empty text, else the last callback's result, or
  // 0 when none was called.
  static int parseKeyValue(std::string text,
                           int (*callback)(void* ctx, std::string key, std::string value),
                           void* ctx,
                           bool requireBoth);
  static int parseKeyValueMap(std::map<std::string, std::string>* out,
                              std::string text,
                              bool requireBoth);
  static int parseKeyValueMap(std::unordered_map<std::string, std::string>* out,
                              std::string text,
                              bool requireBoth);
  static int parseKeyValueList(std::vector<query_kv_t>* out, std::string text, bool requireBoth);
  // Appends the non-empty segments of an absolute path; returns the count.
  static int parsePath(std::vector<std::string>* out, std::string path);

  // '+' is a space, %XX a byte; any malformed escape makes the result "".
  static std::string urlDecode(std::string text);
  // Keeps 0-9 A-Z a-z * - . _; space becomes '+', other bytes %XX.
  static std::string urlEncode(std::string text);
  // The byte spelled by two hex digits; throws the int 200 on a non-hex digit.
  static char toChar(const char* twoHexDigits);
  // Two upper-case hex digits of c, no terminator.
  static void toHex(char* out2, char c);

  SimpleUrlParser& appendQuery(const std::string& key, const std::string& value);
  std::string getQuery(const std::string& key);
  // Empties the query map; the query text stays.
  void clearQuery();
  // scheme://host[:port][path][?k=v&... in key order]; values are not encoded.
  std::string build();

  std::string url;
  std::string scheme;
  std::string host;
  std::string port;
  std::string path;
  std::string query;
  std::string fragment;
  std::map<std::string, std::string> queryMap;
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_UTILS_SIMPLE_URL_PARSER_H
