// JSON read from files and other processes, bounded before it is trusted.
#ifndef VELORA_PLATFORM_COMMON_JSON_LIMITS_H
#define VELORA_PLATFORM_COMMON_JSON_LIMITS_H

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace host {

// Deeper documents are refused: copying or printing one recurses per level.
constexpr int kMaxJsonDepth = 128;

// nlohmann::json::parse with the depth bounded; throws like parse does.
inline nlohmann::json parseJson(const std::string& text) {
  return nlohmann::json::parse(text, [](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
    if (depth > kMaxJsonDepth)
      throw std::out_of_range("JSON nested deeper than " + std::to_string(kMaxJsonDepth) +
                              " levels");
    return true;
  });
}

}  // namespace host

#endif  // VELORA_PLATFORM_COMMON_JSON_LIMITS_H
