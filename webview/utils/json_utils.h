// JSON from stores, remote configuration and URLs: parsed with its depth
// bounded, since copying or printing a document recurses per level.
#ifndef VELORA_WEBVIEW_UTILS_JSON_UTILS_H
#define VELORA_WEBVIEW_UTILS_JSON_UTILS_H

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

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

}  // namespace velora

#endif  // VELORA_WEBVIEW_UTILS_JSON_UTILS_H
