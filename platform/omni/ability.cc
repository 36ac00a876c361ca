// The ability framework on the host: a registry by name, abilities found in
// loaded libraries with dlsym, and synchronous calls with a bounded wait.
#include "omni/ability.h"
#include "omni/ability_registry.h"

#include <dlfcn.h>

#include <condition_variable>
#include <optional>

#include "hilog/log.h"

namespace omni {
namespace {

constexpr char kTag[] = "omni";

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<Ability>> abilities;
};

// Never destroyed: abilities live in libraries that may already be gone
// while the process exits, so they are not destroyed then either.
Registry& registry() {
  static Registry* instance = new Registry;
  return *instance;
}

}  // namespace

ExecuteResult ExecuteResult::success(nlohmann::json data, int statusCode) {
  ExecuteResult result;
  result.data_ = std::move(data);
  result.statusCode_ = statusCode;
  return result;
}

ExecuteResult ExecuteResult::error(std::string code, std::string message, int statusCode) {
  ExecuteResult result;
  result.success_ = false;
  result.code_ = std::move(code);
  result.message_ = std::move(message);
  result.statusCode_ = statusCode;
  return result;
}

FormattedData ExecuteResult::toFormattedData() const {
  return FormattedData(AnyMap{
      {"type", success_ ? "result" : "error"},
      {"data", data_},
      {"msg", message_},
      {"code", code_},
      {"statusCode", statusCode_},
  });
}

void AbilityContext::setDataToUserDataMap(const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  userData_[key] = value;
}

std::string AbilityContext::getDataFromUserDataMap(const std::string& key) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = userData_.find(key);
  return it == userData_.end() ? std::string() : it->second;
}

bool AbilityRegistry::loadAbility(const std::string& library, const std::string& name) {
  if (find(name))
    return true;
  // Never closed: the ability's code must stay mapped as long as it exists.
  void* handle = dlopen(library.empty() ? nullptr : library.c_str(), RTLD_NOW);
  if (!handle) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "cannot load %{public}s: %{public}s", library.c_str(),
                 dlerror());
    return false;
  }
  using Create = Ability* (*)();
  using Destroy = void (*)(Ability*);
  auto create = reinterpret_cast<Create>(dlsym(handle, ("create_" + name).c_str()));
  auto destroy = reinterpret_cast<Destroy>(dlsym(handle, ("destroy_" + name).c_str()));
  if (!create || !destroy) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "%{public}s offers no ability %{public}s",
                 library.empty() ? "this process" : library.c_str(), name.c_str());
    return false;
  }
  Ability* ability = create();
  if (!ability)
    return false;
  registerAbility(name, std::shared_ptr<Ability>(ability, destroy));
  return true;
}

void AbilityRegistry::registerAbility(const std::string& name, std::shared_ptr<Ability> ability) {
  std::shared_ptr<Ability> previous;
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto& slot = r.abilities[name];
  previous = std::move(slot);
  slot = std::move(ability);
  if (!slot)
    r.abilities.erase(name);
}

std::shared_ptr<Ability> AbilityRegistry::find(const std::string& name) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.abilities.find(name);
  return it == r.abilities.end() ? nullptr : it->second;
}

std::shared_ptr<AbilityAdapter> AbilityAdapter::create(const std::string& business) {
  return std::make_shared<AbilityAdapter>(business);
}

ExecuteResult AbilityAdapter::syncCall(const std::string& ability,
                                       const std::string& api,
                                       std::shared_ptr<AbilityContext> context,
                                       const AbilityData& data) {
  std::shared_ptr<Ability> target = AbilityRegistry::find(ability);
  if (!target)
    return ExecuteResult::error("NOT_FOUND", "no ability " + ability);
  if (!context)
    context = std::make_shared<AbilityContext>();

  // Shared with the callback, which may come after the wait gave up.
  struct Outcome {
    std::mutex mutex;
    std::condition_variable done;
    std::optional<ExecuteResult> result;
  };
  auto outcome = std::make_shared<Outcome>();
  try {
    target->execute(api, context, data, [outcome](const ExecuteResult& result) {
      std::lock_guard<std::mutex> lock(outcome->mutex);
      if (!outcome->result) {
        outcome->result = result;
        outcome->done.notify_all();
      }
    });
  } catch (const std::exception& e) {
    return ExecuteResult::error("EXCEPTION", e.what());
  } catch (...) {
    return ExecuteResult::error("EXCEPTION", "unknown");
  }
  std::unique_lock<std::mutex> lock(outcome->mutex);
  if (!outcome->done.wait_for(lock, timeout_, [&] { return outcome->result.has_value(); })) {
    OH_LOG_Print(LOG_APP, LOG_WARN, 0, kTag, "%{public}s.%{public}s gave no result in time",
                 ability.c_str(), api.c_str());
    return ExecuteResult::error("TIMEOUT", ability + "." + api + " gave no result in time");
  }
  return *outcome->result;
}

}  // namespace omni
