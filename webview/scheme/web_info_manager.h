#ifndef VELORA_WEBVIEW_SCHEME_WEB_INFO_MANAGER_H
#define VELORA_WEBVIEW_SCHEME_WEB_INFO_MANAGER_H

#include <memory>
#include <string>

#include "scheme/web_info.h"

namespace velora {

// The registry of bound components by web tag.
class WebInfoManager {
 public:
  // The record of `tag`. An unknown tag gets an empty entry, which stays
  // until removeWebInfo.
  static std::shared_ptr<WebInfo> getWebInfo(const std::string& tag);
  static void setWebInfo(const std::string& tag, std::shared_ptr<WebInfo> info);
  // True when an entry existed, even an empty one.
  static bool removeWebInfo(const std::string& tag);

  // Keeps a scheme handler that is no longer installed, with its holder, for
  // the life of the process: a start callback may still be reading the
  // holder, so neither is ever freed.
  static void retire(ArkWeb_SchemeHandler* handler, WebInfoHolder* holder);
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_SCHEME_WEB_INFO_MANAGER_H
