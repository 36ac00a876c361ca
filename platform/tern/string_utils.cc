#include "tern/string_utils.h"

namespace tern {
namespace string_utils {

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::vector<std::string> split(const std::string& text, const std::string& separator) {
  std::vector<std::string> pieces;
  if (separator.empty()) {
    if (!text.empty())
      pieces.push_back(text);
    return pieces;
  }
  size_t start = 0;
  for (;;) {
    size_t end = text.find(separator, start);
    std::string piece = text.substr(start, end == std::string::npos ? end : end - start);
    if (!piece.empty())
      pieces.push_back(std::move(piece));
    if (end == std::string::npos)
      return pieces;
    start = end + separator.size();
  }
}

std::string urlEncode(const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3);
  for (unsigned char c : text) {
    if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
        c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else if (c == ' ') {
      out += '+';
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0x0F];
    }
  }
  return out;
}

}  // namespace string_utils
}  // namespace tern
