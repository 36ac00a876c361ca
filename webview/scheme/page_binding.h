// Binding a web component to Velora: the registry entry, the destroy notice
// and the scheme handler for "https" and "http".
#ifndef VELORA_WEBVIEW_SCHEME_PAGE_BINDING_H
#define VELORA_WEBVIEW_SCHEME_PAGE_BINDING_H

#include <memory>
#include <string>

#include "scheme/web_info.h"

namespace velora {

class PageBinding {
 public:
  // Registers `webInfo` under its tag and asks the engine for the
  // component's destroy notice. For a tag already registered it replaces
  // the record instead: the handler attached for it serves the new one
  // (with its prefetch), and the old record's prefetch is removed.
  // Script thread.
  static void init(const std::shared_ptr<WebInfo>& webInfo);
  // Installs a new scheme handler for the registered component `webTag`;
  // without a registered component nothing is installed. When the engine
  // refuses it for both schemes (it is not ready, or has no such component)
  // the refusal is logged and the binding keeps the handler it had.
  // Script thread.
  static void attach(const std::string& webTag);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_SCHEME_PAGE_BINDING_H
