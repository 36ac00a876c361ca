#include "prefetch/prefetch_network.h"

#include <map>

#include "log_tags.h"
#include "network/net_service.h"
#include "prefetch/prefetch_request_cache.h"
#include "prefetch/prefetch_request_listener.h"
#include "tern/safe_ptr.h"
#include "tern/time_utils.h"
#include "tide_logger/log.h"
#include "user_agent/user_agent_helper.h"
#include "utils/log_headers.h"

namespace velora {
namespace {

constexpr const char* kLogTag = log_tags::kPrefetchNetwork;

template <typename T>
using Pool = tern::inner::safe_ptr<std::map<std::string, std::shared_ptr<T>>>;

// Created at load time, empty.
Pool<PrefetchRequestCache> PREFETCH_CACHE_POOL;
Pool<NetRequest> PREFETCH_REQUEST_POOL;
Pool<NetRequestCallBack> PREFETCH_REQUEST_CALLBACK_POOL;

std::map<std::string, std::string> defaultHeaders() {
  return {
      {"Accept", "text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8"},
      {"Accept-Encoding", "gzip, deflate"},
      // The trailing ';' is part of the value servers expect.
      {"Accept-Language", "zh-CN,zh;q=0.9,en-CN;q=0.8,en-US;q=0.7,en;q=0.6;"},
      {"User-Agent", UserAgentHelper::getInstance().getUserAgent()},
  };
}

template <typename T>
std::shared_ptr<T> find(const Pool<T>& pool, const std::string& id) {
  auto locked = pool.lock();
  auto it = locked->find(id);
  return it == locked->end() ? nullptr : it->second;
}

// Erases `id` from `pool`, handing back what it held.
template <typename T>
std::shared_ptr<T> take(const Pool<T>& pool, const std::string& id) {
  std::shared_ptr<T> entry;
  auto locked = pool.lock();
  auto it = locked->find(id);
  if (it != locked->end()) {
    entry = std::move(it->second);
    locked->erase(it);
  }
  return entry;
}

}  // namespace

std::string PrefetchNetwork::startPrefetch(std::shared_ptr<PrefetchRequest> request,
                                           std::shared_ptr<NetRequestCallBack> callback) {
  auto copy = std::make_shared<PrefetchRequest>(request);
  const std::string id = copy->getRequestId();
  // Registered before the request goes out, so no consumer can miss the start.
  auto cache = std::make_shared<PrefetchRequestCache>(copy);
  (*PREFETCH_CACHE_POOL.lock())[id] = cache;
  auto listener = std::make_shared<PrefetchRequestListener>(copy);
  std::shared_ptr<NetRequest> netRequest =
      NetService::createNetRequest(request->getUrl(), listener);
  netRequest->setLogId(id);
  (*PREFETCH_REQUEST_POOL.lock())[id] = netRequest;
  listener->setRequestCache(cache);
  listener->setRequestCallBack(std::move(callback));
  (*PREFETCH_REQUEST_CALLBACK_POOL.lock())[id] = listener;

  auto entry = tide::Log::build(tide::kInfo, kLogTag);
  entry.event("startPrefetch");
  netRequest->setMethod(request->getMethod());
  std::map<std::string, std::string> headers = defaultHeaders();
  // The gateway then renders only the first chunk of the page.
  if (request->isJustFirstChunk() && NetService::isSSR(request->getUrl()))
    headers["x-s-first-chunk"] = "true";
  for (const auto& [name, value] : request->getHeaders())
    headers[name] = value;
  for (const auto& [name, value] : headers) {
    netRequest->setHeader(name, value);
    copy->setHeader(name, value);
    if (!name.empty())
      entry.key(name).value(headerValueForLog(name, value));
  }
  entry.key("url").value(request->getUrl()).key("id").value(id).done();
  netRequest->sendRequest();
  copy->setRequestTime(static_cast<double>(tern::currentTimeMillis()));
  return id;
}

std::string PrefetchNetwork::startPrefetch(std::shared_ptr<PrefetchRequest> request,
                                           NetRequestCallBackProxy::OnResponse onResponse,
                                           NetRequestCallBackProxy::OnData onData,
                                           NetRequestCallBackProxy::OnFinish onFinish,
                                           NetRequestCallBackProxy::OnError onError) {
  return startPrefetch(std::move(request), std::make_shared<NetRequestCallBackProxy>(
                                               std::move(onResponse), std::move(onData),
                                               std::move(onFinish), std::move(onError)));
}

std::shared_ptr<PrefetchRequest> PrefetchNetwork::getPrefetchRequest(const std::string& id) {
  std::shared_ptr<PrefetchRequestCache> cache = find(PREFETCH_CACHE_POOL, id);
  return cache ? cache->getPrefetchRequest() : nullptr;
}

bool PrefetchNetwork::consumePrefetch(const std::string& id,
                                      std::shared_ptr<NetRequestCallBack> callback) {
  std::shared_ptr<PrefetchRequestCache> cache = find(PREFETCH_CACHE_POOL, id);
  return cache && cache->consume(std::move(callback));
}

std::shared_ptr<void> PrefetchNetwork::keepAlive(const std::string& id) {
  struct Hold {
    std::shared_ptr<NetRequest> request;
    std::shared_ptr<NetRequestCallBack> listener;
  };
  auto hold = std::make_shared<Hold>(
      Hold{find(PREFETCH_REQUEST_POOL, id), find(PREFETCH_REQUEST_CALLBACK_POOL, id)});
  return hold->request && hold->listener ? hold : nullptr;
}

bool PrefetchNetwork::removePrefetch(const std::string& id) {
  // Released after each map's lock: their destructors may reach the registry.
  bool removed = take(PREFETCH_CACHE_POOL, id) != nullptr;
  take(PREFETCH_REQUEST_POOL, id);
  if (std::shared_ptr<NetRequestCallBack> listener = take(PREFETCH_REQUEST_CALLBACK_POOL, id)) {
    // The registry only holds PrefetchRequestListeners.
    static_cast<PrefetchRequestListener*>(listener.get())->abandon();
  }
  tide::Log::build(tide::kInfo, kLogTag)
      .event("removePrefetch")
      .key("id")
      .value(id)
      .key("removed")
      .value(removed)
      .done();
  return removed;
}

}  // namespace velora
