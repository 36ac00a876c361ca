// Generated from the SSR ability's interface definition: parameter records,
// the interface, and the dispatch of a call by API name.
#ifndef OMNI_IDL_SSR_ABILITY_H
#define OMNI_IDL_SSR_ABILITY_H

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>

#include "omni/ability.h"

namespace omni_idl {

struct SSRPreloadFirstChunkParams {
  std::string url;
  bool forceUpdate = false;
  std::string method;
};

struct SSRSetFCCParams {
  std::string html;
  std::optional<std::string> version;
  std::optional<int64_t> expireTime;  // ms since the epoch
};

class ISSRAbility : public omni::Ability {
 public:
  virtual void prerender(std::shared_ptr<omni::AbilityContext> context,
                         const omni::AbilityData& data,
                         Callback callback) = 0;
  virtual void preload(std::shared_ptr<omni::AbilityContext> context,
                       const omni::AbilityData& data,
                       Callback callback) = 0;
  virtual void preloadFirstChunk(std::shared_ptr<omni::AbilityContext> context,
                                 const SSRPreloadFirstChunkParams& params,
                                 Callback callback) = 0;
  virtual void setFirstChunkCache(std::shared_ptr<omni::AbilityContext> context,
                                  const SSRSetFCCParams& params,
                                  Callback callback) = 0;
  virtual void removeFirstChunkCache(std::shared_ptr<omni::AbilityContext> context,
                                     Callback callback) = 0;

  // Decodes the parameters of `api` from `data` (a JSON object; a missing
  // member takes its default) and calls it. Members of the wrong type answer
  // "INVALID_PARAM", an unknown API "NOT_SUPPORTED".
  void execute(const std::string& api,
               std::shared_ptr<omni::AbilityContext> context,
               const omni::AbilityData& data,
               Callback callback) final {
    const nlohmann::json& json = data.getData();
    if (!json.is_null() && !json.is_object())
      return callback(omni::ExecuteResult::error("INVALID_PARAM", "parameters not an object"));
    auto member = [&json](const char* name) -> const nlohmann::json* {
      if (!json.is_object())
        return nullptr;
      auto it = json.find(name);
      return it == json.end() || it->is_null() ? nullptr : &*it;
    };
    auto invalid = [&callback](const char* name) {
      callback(
          omni::ExecuteResult::error("INVALID_PARAM", std::string(name) + " has a wrong type"));
    };
    if (api == "prerender")
      return prerender(std::move(context), data, std::move(callback));
    if (api == "preload")
      return preload(std::move(context), data, std::move(callback));
    if (api == "preloadFirstChunk") {
      SSRPreloadFirstChunkParams params;
      if (const auto* url = member("url")) {
        if (!url->is_string())
          return invalid("url");
        params.url = url->get<std::string>();
      }
      if (const auto* force = member("forceUpdate")) {
        if (!force->is_boolean())
          return invalid("forceUpdate");
        params.forceUpdate = force->get<bool>();
      }
      if (const auto* method = member("method")) {
        if (!method->is_string())
          return invalid("method");
        params.method = method->get<std::string>();
      }
      return preloadFirstChunk(std::move(context), params, std::move(callback));
    }
    if (api == "setFirstChunkCache") {
      SSRSetFCCParams params;
      if (const auto* html = member("html")) {
        if (!html->is_string())
          return invalid("html");
        params.html = html->get<std::string>();
      }
      if (const auto* version = member("version")) {
        if (!version->is_string())
          return invalid("version");
        params.version = version->get<std::string>();
      }
      if (const auto* expire = member("expireTime")) {
        if (expire->is_number_integer())
          params.expireTime = expire->get<int64_t>();
        else if (expire->is_number_float() && std::abs(expire->get<double>()) < 9.0e18)
          params.expireTime = static_cast<int64_t>(expire->get<double>());
        else
          return invalid("expireTime");
      }
      return setFirstChunkCache(std::move(context), params, std::move(callback));
    }
    if (api == "removeFirstChunkCache")
      return removeFirstChunkCache(std::move(context), std::move(callback));
    callback(omni::ExecuteResult::error("NOT_SUPPORTED", "no API " + api));
  }
};

}  // namespace omni_idl

#endif  // OMNI_IDL_SSR_ABILITY_H
