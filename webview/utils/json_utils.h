// JSON from stores, remote configuration and URLs: parsed with its depth
// bounded, since copying or printing a document recurses per level.
#ifndef VELORA_WEBVIEW_UTILS_JSON_UTILS_H
#define VELORA_WEBVIEW_UTILS_JSON_UTILS_H

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace velora {

inline constexpr int kMaxJsonDepth = 128;

// nlohmann::json::parse that also refuses documents nested deeper than
// kMaxJsonDepth; throws like parse does.
inline nlohmann::json parseJson(const std::string& text) {
  auto bounded = [](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
    if (depth > kMaxJsonDepth)
      throw std::out_of_range("JSON nested too deeply");
    return true;
  };
  return nlohmann::json::parse(text, bounded);
}

// True when `text` is well-formed UTF-8 (no overlong forms, surrogates or
// code points past U+10FFFF): only such text can be written as a JSON string.
inline bool isUtf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    size_t length;
    unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0)
        low = 0xA0;  // overlong
      if (lead == 0xED)
        high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0)
        low = 0x90;  // overlong
      if (lead == 0xF4)
        high = 0x8F;  // past U+10FFFF
    } else {
      return false;
    }
    if (i + length > text.size() || byte(i + 1) < low || byte(i + 1) > high)
      return false;
    for (size_t k = 2; k < length; ++k) {
      if ((byte(i + k) & 0xC0) != 0x80)
        return false;
    }
    i += length;
  }
  return true;
}

}  // namespace velora

#endif  // VELORA_WEBVIEW_UTILS_JSON_UTILS_H
