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

void TaskRunner::post(std::function<void()> task) {
  bool wake = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    takeDueLocked();  // a delayed task already due goes first
    ready_.push_back(std::move(task));
    wake = sleeping_;
  }
  if (wake)
    wake_.notify_one();
}

void TaskRunner::postDelayed(std::function<void()> task, long delayMs) {
  if (delayMs <= 0) {
    post(std::move(task));
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    delayed_.emplace(Clock::now() + std::chrono::milliseconds(delayMs), std::move(task));
  }
  wake_.notify_one();  // the sleep may have to end sooner
}

void TaskRunner::waitIdle() {
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] {
    return !running_ && ready_.empty() &&
           (delayed_.empty() || delayed_.begin()->first > Clock::now());
  });
}

void TaskRunner::takeDueLocked() {
  if (delayed_.empty())
    return;
  const Clock::time_point now = Clock::now();
  while (!delayed_.empty() && delayed_.begin()->first <= now) {
    ready_.push_back(std::move(delayed_.begin()->second));
    delayed_.erase(delayed_.begin());
  }
}

void TaskRunner::loop() {
  std::vector<std::function<void()>> batch;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    takeDueLocked();
    if (ready_.empty()) {
      running_ = false;
      idle_.notify_all();
      if (stopping_)
        return;
      sleeping_ = true;
      if (delayed_.empty()) {
        wake_.wait(lock);
      } else {
        wake_.wait_until(lock, delayed_.begin()->first);
      }
      sleeping_ = false;
      continue;
    }
    batch.swap(ready_);
    running_ = true;
    lock.unlock();
    for (auto& task : batch) {
      task();
      task = nullptr;  // what it holds goes before the next task runs
    }
    batch.clear();
    lock.lock();
  }
}

}  // namespace arkweb_host
