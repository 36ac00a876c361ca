// Named persistent text stores.
#ifndef TERN_CACHE_SERVICE_H
#define TERN_CACHE_SERVICE_H

#include <memory>
#include <optional>
#include <string>

namespace tern {

// One named store of text values by text key. Values persist across processes.
// Every operation may be called from any thread. Failures (a database that
// stays locked past the bounded wait, a corrupt or unwritable file) are logged
// and answered as "absent" / false; nothing is thrown.
class ICacheService {
 public:
  virtual ~ICacheService() = default;

  // The store named `name`. Cheap: the database is opened on first use.
  static std::shared_ptr<ICacheService> of(const std::string& name);

  // The value of `key`, or nothing when it is absent or cannot be read.
  virtual std::optional<std::string> get(const std::string& key) = 0;

  // Stores `value` under `key`; true once it is durable.
  virtual bool put(const std::string& key, const std::string& value) = 0;

  // Deletes `key`; true when the store answered (also when it was absent).
  virtual bool remove(const std::string& key) = 0;
};

}  // namespace tern

#endif  // TERN_CACHE_SERVICE_H
