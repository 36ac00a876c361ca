#include "network/net_service.h"

#include "gantry_ssr/ssr_service.h"
#include "network/flume_request.h"
#include "network/ssr_request.h"
#include "tern/singleton.h"

namespace velora {

HeaderMultimap NetRequestCallBack::transformHeaders(
    const std::unordered_map<std::string, std::string>& headers) {
  HeaderMultimap result;
  for (const auto& [name, value] : headers)
    result[name].push_back(value);
  return result;
}

bool NetService::isSSR(const std::string& url) {
  return tern::Singleton<gantry_ssr::SsrService>::getInstance().validate(url);
}

std::shared_ptr<NetRequest> NetService::createNetRequest(
    const std::string& url,
    std::shared_ptr<NetRequestCallBack> callback) {
  std::shared_ptr<NetRequest> request;
  if (isSSR(url))
    request = std::make_shared<SSRRequest>(std::move(callback));
  else
    request = std::make_shared<FlumeRequest>(std::move(callback));
  request->setUrl(url);
  return request;
}

std::shared_ptr<NetRequest> NetService::createNetRequest(
    const std::string& url,
    NetRequestCallBackProxy::OnResponse onResponse,
    NetRequestCallBackProxy::OnData onData,
    NetRequestCallBackProxy::OnFinish onFinish,
    NetRequestCallBackProxy::OnError onError) {
  auto proxy = std::make_shared<NetRequestCallBackProxy>(std::move(onResponse), std::move(onData),
                                                         std::move(onFinish), std::move(onError));
  return createNetRequest(url, proxy);
}

}  // namespace velora
