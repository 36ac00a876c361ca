// Lazily created process-wide instances.
#ifndef TERN_SINGLETON_H
#define TERN_SINGLETON_H

namespace tern {

// The one T of the process, created on first use (thread-safe) and never
// destroyed: other threads may still use it while the process exits.
template <typename T>
class Singleton {
 public:
  static T& getInstance() {
    static T* instance = new T();
    return *instance;
  }

  Singleton() = delete;
};

}  // namespace tern

#endif  // TERN_SINGLETON_H
