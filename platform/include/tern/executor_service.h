// Named background executors and the tasks (fibers) posted to them.
#ifndef TERN_EXECUTOR_SERVICE_H
#define TERN_EXECUTOR_SERVICE_H

#include <functional>
#include <memory>
#include <string>

namespace tern {

// Where a task was posted from; printed when the task fails.
struct SourceLocation {
  const char* file = "";
  int line = 0;
  const char* function = "";
};

#define TERN_HERE (::tern::SourceLocation{__FILE__, __LINE__, __func__})

// One unit of background work.
class Fiber {
 public:
  explicit Fiber(std::function<void()> body) : body_(std::move(body)) {}
  void operator()() const {
    if (body_) {
      body_();
    }
  }

 private:
  std::function<void()> body_;
};

class ExecutorPool;

// A handle to the executor of a given name. All handles of one name share one
// worker thread, so the tasks of a name run one at a time, in posting order.
// Tasks still queued when the process exits normally run before it ends.
class ExecutorService {
 public:
  static ExecutorService of(const std::string& name, const SourceLocation& location);

  // Queues `fiber`; returns at once. An exception thrown by the task is caught
  // and logged with the posting location.
  void post(Fiber fiber) const;

  // Blocks until every task posted so far to this name has run.
  void waitIdle() const;

 private:
  ExecutorService(std::shared_ptr<ExecutorPool> pool, SourceLocation location)
      : pool_(std::move(pool)), location_(location) {}

  std::shared_ptr<ExecutorPool> pool_;
  SourceLocation location_;
};

}  // namespace tern

#endif  // TERN_EXECUTOR_SERVICE_H
