#include "first_chunk/ssr_service.h"

#include "first_chunk/first_chunk_manager.h"
#include "tern/singleton.h"

namespace velora {

void GantrySSRService::asyncCall(const std::shared_ptr<gantry_ssr::SsrRequest>& request,
                                 const std::shared_ptr<gantry_ssr::SsrListener>& listener) {
  tern::Singleton<gantry_ssr::SsrService>::getInstance().asyncCall(request, listener);
}

void FirstChunkSSRService::asyncCall(const std::shared_ptr<gantry_ssr::SsrRequest>& request,
                                     const std::shared_ptr<gantry_ssr::SsrListener>& listener) {
  handler_ = std::make_shared<FirstChunkHandler>(listener);
  handler_->setTraceId(traceId_);
  // A stored chunk may reach the listener here, before the gateway is asked.
  handler_->onSendRequest(request);
  tern::Singleton<gantry_ssr::SsrService>::getInstance().asyncCall(request, handler_);
}

std::shared_ptr<SSRService> SSRServiceFactory::createSSRService() {
  if (tern::Singleton<FirstChunkManager>::getInstance().isEnable())
    return std::make_shared<FirstChunkSSRService>();
  return std::make_shared<GantrySSRService>();
}

}  // namespace velora
