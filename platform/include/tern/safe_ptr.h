// A shared object whose every access holds its recursive mutex.
#ifndef TERN_SAFE_PTR_H
#define TERN_SAFE_PTR_H

#include <memory>
#include <mutex>
#include <utility>

namespace tern {
namespace inner {

// safe_ptr<T> shares one T and one std::recursive_mutex between its copies.
// `ptr->op()` holds the mutex for the length of that one expression; lock()
// holds it for a scope, when several accesses must be seen as one.
template <typename T>
class safe_ptr {
 public:
  template <typename... Args>
  explicit safe_ptr(Args&&... args)
      : object_(std::make_shared<T>(std::forward<Args>(args)...)),
        mutex_(std::make_shared<std::recursive_mutex>()) {}

  class Locked {
   public:
    Locked(T* object, std::recursive_mutex& mutex) : object_(object), lock_(mutex) {}
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }

   private:
    T* object_;
    std::unique_lock<std::recursive_mutex> lock_;
  };

  Locked operator->() const { return Locked(object_.get(), *mutex_); }
  Locked lock() const { return Locked(object_.get(), *mutex_); }

 private:
  std::shared_ptr<T> object_;
  std::shared_ptr<std::recursive_mutex> mutex_;
};

}  // namespace inner
}  // namespace tern

#endif  // TERN_SAFE_PTR_H
