// Which way an SSR request reaches the gateway: straight, or through the
// first-chunk cache.
#ifndef VELORA_WEBVIEW_FIRST_CHUNK_SSR_SERVICE_H
#define VELORA_WEBVIEW_FIRST_CHUNK_SSR_SERVICE_H

#include <memory>
#include <string>

#include "first_chunk/first_chunk_handler.h"
#include "gantry_ssr/ssr_service.h"

namespace velora {

class SSRService {
 public:
  virtual void asyncCall(const std::shared_ptr<gantry_ssr::SsrRequest>& request,
                         const std::shared_ptr<gantry_ssr::SsrListener>& listener) = 0;
  virtual ~SSRService() = default;

  void setTraceId(const std::string& traceId) { traceId_ = traceId; }

 protected:
  std::string traceId_;
};

// The gateway, as it is.
class GantrySSRService : public SSRService {
 public:
  void asyncCall(const std::shared_ptr<gantry_ssr::SsrRequest>& request,
                 const std::shared_ptr<gantry_ssr::SsrListener>& listener) override;
};

// The gateway behind a FirstChunkHandler, which this service keeps alive.
class FirstChunkSSRService : public SSRService {
 public:
  void asyncCall(const std::shared_ptr<gantry_ssr::SsrRequest>& request,
                 const std::shared_ptr<gantry_ssr::SsrListener>& listener) override;

 private:
  std::shared_ptr<FirstChunkHandler> handler_;
};

class SSRServiceFactory {
 public:
  // Reads the first-chunk switch at every call.
  static std::shared_ptr<SSRService> createSSRService();
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_FIRST_CHUNK_SSR_SERVICE_H
