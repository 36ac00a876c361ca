// Host tern::ExecutorService: one worker thread per executor name.
#include "tern/executor_service.h"
#include "tern/host_config.h"

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "hilog/log.h"

namespace tern {

class ExecutorPool {
 public:
  explicit ExecutorPool(std::string name) : name_(std::move(name)) {}

  void post(Fiber fiber, const SourceLocation& location) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopped_) {
      // Posted while the process exits: run it here rather than lose it.
      lock.unlock();
      run(fiber, location);
      return;
    }
    queue_.emplace_back(std::move(fiber), location);
    if (!worker_.joinable())
      worker_ = std::thread([this] { loop(); });
    wake_.notify_one();
  }

  void waitIdle() {
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return queue_.empty() && !busy_; });
  }

  // Runs what is queued, then ends the worker.
  void drainAndStop() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
      wake_.notify_one();
    }
    if (worker_.joinable())
      worker_.join();
  }

 private:
  void loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return !queue_.empty() || stopped_; });
      if (queue_.empty())
        return;  // stopped and drained
      auto task = std::move(queue_.front());
      queue_.pop_front();
      busy_ = true;
      lock.unlock();
      run(task.first, task.second);
      lock.lock();
      busy_ = false;
      if (queue_.empty())
        idle_.notify_all();
    }
  }

  void run(const Fiber& fiber, const SourceLocation& location) {
    try {
      fiber();
    } catch (const std::exception& e) {
      logFailure(location, e.what());
    } catch (...) {
      logFailure(location, "unknown exception");
    }
  }

  void logFailure(const SourceLocation& location, const char* what) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, "tern/executor",
                 "task on %{public}s posted from %{public}s:%{public}d (%{public}s) threw: "
                 "%{public}s",
                 name_.c_str(), location.file, location.line, location.function, what);
  }

  const std::string name_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::pair<Fiber, SourceLocation>> queue_;
  std::thread worker_;
  bool busy_ = false;
  bool stopped_ = false;
};

namespace {

// Never destroyed: stores and statics may still post while the process exits.
// The pools are drained by an exit handler registered with the first pool, so
// it runs before the statics of anyone who posted (they were built earlier).
struct Registry {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<ExecutorPool>> pools;
};

Registry& registry() {
  static Registry* instance = new Registry();
  return *instance;
}

// The pools now, so that they can be waited for without the registry's lock.
std::map<std::string, std::shared_ptr<ExecutorPool>> allPools() {
  std::lock_guard<std::mutex> lock(registry().mutex);
  return registry().pools;
}

void drainAll() {
  for (auto& entry : allPools())
    entry.second->drainAndStop();
}

}  // namespace

ExecutorService ExecutorService::of(const std::string& name, const SourceLocation& location) {
  Registry& reg = registry();
  std::lock_guard<std::mutex> lock(reg.mutex);
  auto& pool = reg.pools[name];
  if (!pool) {
    static const bool registered = (std::atexit(drainAll), true);
    (void)registered;
    pool = std::make_shared<ExecutorPool>(name);
  }
  return ExecutorService(pool, location);
}

void ExecutorService::post(Fiber fiber) const {
  pool_->post(std::move(fiber), location_);
}

void ExecutorService::waitIdle() const {
  pool_->waitIdle();
}

void waitAllExecutorsIdle() {
  for (auto& entry : allPools())
    entry.second->waitIdle();
}

}  // namespace tern
