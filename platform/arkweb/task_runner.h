// A thread that runs posted tasks in order, some of them after a delay.
// Tasks posted while it is busy are taken in one batch, and a post wakes the
// thread only when it sleeps.
#ifndef VELORA_PLATFORM_ARKWEB_TASK_RUNNER_H
#define VELORA_PLATFORM_ARKWEB_TASK_RUNNER_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace arkweb_host {

class TaskRunner {
 public:
  explicit TaskRunner(std::string name);
  ~TaskRunner();  // runs what is due, drops delayed tasks, joins

  void post(std::function<void()> task);
  void postDelayed(std::function<void()> task, long delayMs);
  // Blocks until no task is due or running (delayed tasks do not count).
  void waitIdle();
  // True on the runner's own thread, where its tasks run.
  bool runsTasksOnCurrentThread() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  void loop();
  // Moves the delayed tasks that are due onto ready_. Called locked.
  void takeDueLocked();

  using Clock = std::chrono::steady_clock;
  std::string name_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::vector<std::function<void()>> ready_;  // in posting order
  // Ordered by due time, then by posting order.
  std::multimap<Clock::time_point, std::function<void()>> delayed_;
  bool running_ = false;
  bool sleeping_ = false;  // waiting on wake_: a post must notify
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace arkweb_host

#endif  // VELORA_PLATFORM_ARKWEB_TASK_RUNNER_H
