#include "omni_ability/api_info_helper.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "intercept/intercept_manager.h"
#include "log_tags.h"
#include "omni/ability.h"
#include "tern/base64.h"
#include "tern/string_utils.h"
#include "tern/uri.h"
#include "tide_logger/log.h"
#include "utils/json_utils.h"

namespace velora {
namespace {

// The SSR ability manages the first-chunk cache: from a link it would let
// anyone put script into a page's stored first chunk, or fetch any URL.
constexpr char kSsrAbility[] = "SSRAbility";

omni::ExecuteResult refuse(const std::string& name, const std::string& url) {
  tide::Log::build(tide::kError, log_tags::kApiInfo)
      .event("refused")
      .key("api")
      .value(name)
      .key("url")
      .value(url)
      .done();
  return omni::ExecuteResult::error("NOT_ALLOWED", name + " may not be called from a page URL");
}

void logException(const char* what) {
  tide::Log::build(tide::kError, log_tags::kApiInfo)
      .event("exception")
      .key("what")
      .value(what && *what ? what : "unkown")
      .done();
}

}  // namespace

std::string ApiInfoHelper::getApiInfo(std::string url) {
  try {
    std::string field = tern::URI::parseURL(url).getQueryField("api-info");
    if (field.empty())
      return std::string();
    nlohmann::json requests = parseJson(tern::base64::decode(field));
    if (!requests.is_array())
      throw std::invalid_argument("api-info is not an array");

    auto adapter = omni::AbilityAdapter::create("velora");
    auto context = std::make_shared<omni::AbilityContext>();
    context->setDataToUserDataMap(kPageUrlKey, url);
    std::shared_ptr<const InterceptPolicy> policy = InterceptManager::getInstance().policy();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBudgetMs);
    nlohmann::json output = nlohmann::json::array();
    for (nlohmann::json request : requests) {
      if (!request.is_array() || request.size() < 2)
        continue;
      const std::string fullName = request[0].get<std::string>();
      std::vector<std::string> name = tern::string_utils::split(fullName, ".");
      if (name.size() < 2)
        continue;
      omni::ExecuteResult result = omni::ExecuteResult::success();
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (name[0] == kSsrAbility || !policy->isApiInfoAllowed(name[0] + "." + name[1])) {
        result = refuse(fullName, url);
      } else if (left.count() <= 0) {
        result = omni::ExecuteResult::error("TIMEOUT", "the page's time for ability calls ran out");
      } else {
        adapter->setSyncTimeout(left);
        result = adapter->syncCall(name[0], name[1], context, omni::AbilityData(request[1]));
      }
      request.push_back(result.toFormattedData().getAnyMapData());
      output.push_back(std::move(request));
    }
    return output.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  } catch (const std::exception& e) {
    logException(e.what());
  } catch (...) {
    logException(nullptr);
  }
  return std::string();
}

std::string ApiInfoHelper::getEncodedApiInfo(std::string url) {
  return tern::string_utils::urlEncode(getApiInfo(std::move(url)));
}

}  // namespace velora
