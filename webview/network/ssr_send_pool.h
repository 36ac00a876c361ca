// The threads SSR requests are sent from.
#ifndef VELORA_WEBVIEW_NETWORK_SSR_SEND_POOL_H
#define VELORA_WEBVIEW_NETWORK_SSR_SEND_POOL_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace velora {

// Runs SSR sends away from the web engine's IO thread. A send may block: on
// the ability calls its page URL asks for, and on the first-chunk store
// (another process may hold its lock). Up to kMaxWorkers sends run at once,
// each on its own thread, so a send that blocks holds up its own page and
// no other; more sends than that wait in order.
//
// Never destroyed. When the process exits, queued sends are dropped and
// running ones get a bounded time to end.
class SsrSendPool {
 public:
  static constexpr int kMaxWorkers = 4;

  static SsrSendPool& getInstance();

  // Queues `task`; returns at once. Any thread. An exception the task
  // throws is caught and logged.
  void post(std::function<void()> task);

 private:
  SsrSendPool() = default;
  void work();
  void stopAtExit();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable finished_;
  std::deque<std::function<void()>> queue_;  // guarded by mutex_
  int workers_ = 0;                          // guarded by mutex_
  int idle_ = 0;                             // guarded by mutex_
  int busy_ = 0;                             // guarded by mutex_
  bool stopping_ = false;                    // guarded by mutex_
};

}  // namespace velora

#endif  // VELORA_WEBVIEW_NETWORK_SSR_SEND_POOL_H
