#include "arkweb/task_runner.h"

#include <pthread.h>

namespace arkweb_host {

TaskRunner::TaskRunner(std::string name) : name_(std::move(name)) {
  thread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());
    loop();
  });
}

TaskRunner::~TaskRunner() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void TaskRunner::postDelayed(std::function<void()> task, long delayMs) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    tasks_.emplace(Clock::now() + std::chrono::milliseconds(delayMs > 0 ? delayMs : 0),
                   std::move(task));
  }
  wake_.notify_all();
}

void TaskRunner::waitIdle() {
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] {
    return !running_ && (tasks_.empty() || tasks_.begin()->first > Clock::now());
  });
}

void TaskRunner::loop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (tasks_.empty() || tasks_.begin()->first > Clock::now()) {
      idle_.notify_all();
      if (stopping_)
        return;
      if (tasks_.empty()) {
        wake_.wait(lock);
      } else {
        wake_.wait_until(lock, tasks_.begin()->first);
      }
      continue;
    }
    auto task = std::move(tasks_.begin()->second);
    tasks_.erase(tasks_.begin());
    running_ = true;
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
    running_ = false;
  }
}

}  // namespace arkweb_host
