#include "utils/simple_url_parser.h"

namespace velora {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return -1;
}

int __kv_callback_map(void* ctx, std::string key, std::string value) {
  auto* out = static_cast<std::map<std::string, std::string>*>(ctx);
  (*out)[key] = value;
  return static_cast<int>(out->size());
}

int __kv_callback_unordered_map(void* ctx, std::string key, std::string value) {
  auto* out = static_cast<std::unordered_map<std::string, std::string>*>(ctx);
  (*out)[key] = value;
  return static_cast<int>(out->size());
}

int __kv_callback_vec(void* ctx, std::string key, std::string value) {
  auto* out = static_cast<std::vector<query_kv_t>*>(ctx);
  out->push_back({key, value});
  return static_cast<int>(out->size());
}

}  // namespace

SimpleUrlParser* SimpleUrlParser::parseUrl(std::string url) {
  auto* parser = new SimpleUrlParser();
  parser->url = std::move(url);
  parser->parse();
  parseKeyValueMap(&parser->queryMap, parser->query, true);
  return parser;
}

void SimpleUrlParser::parse() {
  const size_t n = url.size();
  size_t i = url.find_first_not_of(' ');
  if (i == std::string::npos)
    return;

  size_t cursor = i;  // the '/' just before the authority
  if (url[i] != '/') {
    size_t colon = url.find(':', i);
    if (colon == std::string::npos)
      return;
    scheme = url.substr(i, colon - i);
    if (n - colon < 3 || url.compare(colon, 3, "://") != 0)
      return;
    cursor = colon + 2;
  }

  size_t start = cursor + 1;
  size_t pos = url.find_first_of("/:?", start);
  host = url.substr(start, pos == std::string::npos ? std::string::npos : pos - start);
  if (pos == std::string::npos)
    return;

  if (url[pos] == ':') {
    size_t end = url.find_first_of("/?", pos + 1);
    port = url.substr(pos + 1, end == std::string::npos ? std::string::npos : end - pos - 1);
    if (end == std::string::npos)
      return;
    pos = end;
  }
  if (url[pos] == '/') {
    size_t end = url.find('?', pos);
    path = url.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    if (end == std::string::npos)
      return;
    pos = end;
  }
  size_t end = url.find('#', pos + 1);
  query = url.substr(pos + 1, end == std::string::npos ? std::string::npos : end - pos - 1);
  if (end == std::string::npos)
    return;
  fragment = url.substr(end + 1);
}

int SimpleUrlParser::parseKeyValue(std::string text,
                                   int (*callback)(void* ctx, std::string key, std::string value),
                                   void* ctx,
                                   bool requireBoth) {
  size_t start = text.find_first_not_of(' ');
  if (start == std::string::npos)
    return -1;
  int result = 0;
  while (start <= text.size()) {
    size_t end = text.find('&', start);
    if (end == std::string::npos)
      end = text.size();
    std::string piece = text.substr(start, end - start);
    size_t eq = piece.find('=');
    std::string key = piece.substr(0, eq);
    std::string value = eq == std::string::npos ? std::string() : piece.substr(eq + 1);
    bool deliver =
        requireBoth ? (!key.empty() && !value.empty()) : (!key.empty() || !value.empty());
    if (deliver && callback)
      result = callback(ctx, key, value);
    start = end + 1;
  }
  return result;
}

int SimpleUrlParser::parseKeyValueMap(std::map<std::string, std::string>* out,
                                      std::string text,
                                      bool requireBoth) {
  return parseKeyValue(std::move(text), __kv_callback_map, out, requireBoth);
}

int SimpleUrlParser::parseKeyValueMap(std::unordered_map<std::string, std::string>* out,
                                      std::string text,
                                      bool requireBoth) {
  return parseKeyValue(std::move(text), __kv_callback_unordered_map, out, requireBoth);
}

int SimpleUrlParser::parseKeyValueList(std::vector<query_kv_t>* out,
                                       std::string text,
                                       bool requireBoth) {
  return parseKeyValue(std::move(text), __kv_callback_vec, out, requireBoth);
}

int SimpleUrlParser::parsePath(std::vector<std::string>* out, std::string path) {
  if (path.empty() || path[0] != '/')
    return static_cast<int>(out->size());
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos)
      end = path.size();
    if (end > start)
      out->push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return static_cast<int>(out->size());
}

std::string SimpleUrlParser::urlDecode(std::string text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+') {
      out += ' ';
    } else if (c == '%') {
      if (i + 2 >= text.size())
        return std::string();
      if (hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0)
        return std::string();
      out += toChar(&text[i + 1]);
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

std::string SimpleUrlParser::urlEncode(std::string text) {
  std::string out;
  out.reserve(text.size() * 3);
  for (char c : text) {
    unsigned char b = static_cast<unsigned char>(c);
    if ((b >= '0' && b <= '9') || (b >= 'A' && b <= 'Z') || (b >= 'a' && b <= 'z') || b == '*' ||
        b == '-' || b == '.' || b == '_') {
      out += c;
    } else if (b == ' ') {
      out += '+';
    } else {
      char hex[2];
      toHex(hex, c);
      out += '%';
      out.append(hex, 2);
    }
  }
  return out;
}

char SimpleUrlParser::toChar(const char* twoHexDigits) {
  int high = hexValue(twoHexDigits[0]);
  int low = hexValue(twoHexDigits[1]);
  if (high < 0 || low < 0)
    throw 200;
  return static_cast<char>((high << 4) | low);
}

void SimpleUrlParser::toHex(char* out2, char c) {
  static const char kDigits[] = "0123456789ABCDEF";
  unsigned char b = static_cast<unsigned char>(c);
  out2[0] = kDigits[b >> 4];
  out2[1] = kDigits[b & 0x0F];
}

SimpleUrlParser& SimpleUrlParser::appendQuery(const std::string& key, const std::string& value) {
  queryMap[key] = value;
  return *this;
}

std::string SimpleUrlParser::getQuery(const std::string& key) {
  auto it = queryMap.find(key);
  return it == queryMap.end() ? std::string() : it->second;
}

void SimpleUrlParser::clearQuery() {
  queryMap.clear();
}

std::string SimpleUrlParser::build() {
  std::string out = scheme + ":" + "//" + host;
  if (!port.empty())
    out += ":" + port;
  if (!path.empty()) {
    if (path[0] != '/')
      out += '/';
    out += path;
  }
  bool first = true;
  for (const auto& [key, value] : queryMap) {
    out += first ? '?' : '&';
    first = false;
    out += key + "=" + value;
  }
  return out;
}

}  // namespace velora
