// A host web component bound to Velora the way webviewNativeInit and
// webviewNativeAttach bind it, destroyed with the object.
#ifndef VELORA_TESTS_UNIT_BOUND_PAGE_H
#define VELORA_TESTS_UNIT_BOUND_PAGE_H

#include <memory>
#include <string>

#include "arkweb_host/web_component.h"
#include "scheme/page_binding.h"

namespace velora_test {

class BoundPage {
 public:
  explicit BoundPage(const std::string& tag,
                     const std::string& prefetchId = "",
                     const std::string& prefetchUrl = "")
      : web_(arkweb_host::WebComponent::create(tag)) {
    auto info = std::make_shared<velora::WebInfo>();
    info->webTag = tag;
    info->prefetchId = prefetchId;
    info->prefetchUrl = prefetchUrl;
    velora::PageBinding::init(info);
    velora::PageBinding::attach(tag);
  }
  ~BoundPage() { destroy(); }

  arkweb_host::LoadResult load(arkweb_host::LoadOptions options) {
    return web_->loadAndWait(std::move(options));
  }
  arkweb_host::WebComponent& web() { return *web_; }
  void destroy() {
    if (!destroyed_)
      web_->destroy();
    destroyed_ = true;
  }

 private:
  std::shared_ptr<arkweb_host::WebComponent> web_;
  bool destroyed_ = false;
};

}  // namespace velora_test

#endif  // VELORA_TESTS_UNIT_BOUND_PAGE_H
