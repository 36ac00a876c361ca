#ifndef VELORA_WEBVIEW_INTERCEPT_INTERCEPT_TESSERA_LISTENER_H
#define VELORA_WEBVIEW_INTERCEPT_INTERCEPT_TESSERA_LISTENER_H

#include "tessera/tessera_config.h"

namespace velora {

// Re-applies the remote interception configuration on every update.
class InterceptTesseraListener : public tessera::IOConfigListener {
 public:
  void onConfigUpdate(const std::string& nameSpace,
                      const std::map<std::string, std::string>& configs) override;
  void onConfigChange(const std::string&, const std::string&, const std::string&) override {}
  void onCustomConfigChange(const std::string&, const std::string&) override {}
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_INTERCEPT_INTERCEPT_TESSERA_LISTENER_H
