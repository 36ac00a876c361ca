#include "omni_ability/api_info_helper.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "log_tags.h"
#include "omni/ability.h"
#include "tern/base64.h"
#include "tern/string_utils.h"
#include "tern/uri.h"
#include "tide_logger/log.h"
#include "utils/json_utils.h"

namespace velora {
namespace {

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
    nlohmann::json output = nlohmann::json::array();
    for (nlohmann::json request : requests) {
      if (!request.is_array() || request.size() < 2)
        continue;
      std::vector<std::string> name = tern::string_utils::split(request[0].get<std::string>(), ".");
      if (name.size() < 2)
        continue;
      omni::ExecuteResult result =
          adapter->syncCall(name[0], name[1], context, omni::AbilityData(request[1]));
      request.push_back(result.toFormattedData().getAnyMapData());
      output.push_back(std::move(request));
    }
    return output.dump();
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
