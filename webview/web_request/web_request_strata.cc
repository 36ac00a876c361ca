// Answering GET requests from the offline resource packages.
#include "log_tags.h"
#include "strata/strata_core.h"
#include "tide_logger/log.h"
#include "web_request/web_request.h"

namespace velora {
namespace {

constexpr const char* kRequestTag = log_tags::kWebRequest;
constexpr char kAllowOrigin[] = "Access-Control-Allow-Origin";

void logStrata(const char* event, const std::string& tag, const char* url) {
  tide::Log::build(tide::kInfo, kRequestTag).event(event, tag).key("url").value(url).done();
}

}  // namespace

void WebRequest::sendStrataRequest() {
  logStrata("strataStart", tag_, url_);
  // The lookup must never keep the request alive: a page may go away first.
  // url_ lives as long as the request does.
  std::weak_ptr<WebRequest> weak = weak_from_this();
  StrataCore::Access::getResource(
      StrataCore::ResourceRequest(url_, StrataCore::Headers(headers_.begin(), headers_.end())),
      [weak](std::unique_ptr<StrataCore::ResourceResponse> response) {
        std::shared_ptr<WebRequest> self = weak.lock();
        if (!self)
          return;
        if (response->error) {
          logStrata("strataFail", self->tag_, self->url_);
          self->sendNetRequest();
          return;
        }
        logStrata("strataSuccess", self->tag_, self->url_);
        HeaderMultimap answer = transformHeaders(response->headers);
        // Packaged resources are usable by pages of any origin.
        if (answer.find(kAllowOrigin) == answer.end())
          answer[kAllowOrigin].push_back("*");
        self->onResponse(200, answer);
        self->onData(reinterpret_cast<const unsigned char*>(response->body.data()),
                     response->body.size());
        self->onFinish();
      });
}

}  // namespace velora
