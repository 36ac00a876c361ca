// The user-agent text of the requests the module makes itself (prefetch,
// first chunk).
#ifndef VELORA_WEBVIEW_USER_AGENT_USER_AGENT_HELPER_H
#define VELORA_WEBVIEW_USER_AGENT_USER_AGENT_HELPER_H

#include <mutex>
#include <string>

namespace velora {

// Set by the script layer and persisted, so the next process start sends it
// before any script has run; without one, a default is composed from the
// application's tag and version.
class UserAgentHelper {
 public:
  static UserAgentHelper& getInstance();

  // Replaces the text at once; the write to storage happens in the background.
  void setUserAgent(std::string userAgent);
  // The set or stored text, else the default. Any thread.
  std::string getUserAgent();

 private:
  UserAgentHelper() = default;

  std::mutex mutex_;
  std::string userAgent_;  // guarded by mutex_; empty until first set or read
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_USER_AGENT_USER_AGENT_HELPER_H
