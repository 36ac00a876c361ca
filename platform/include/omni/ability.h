// omni: the ability framework. Parts of an app offer abilities (named
// objects with named APIs); other parts call them through an adapter, with a
// context that says on whose behalf, and get one result per call.
#ifndef OMNI_ABILITY_H
#define OMNI_ABILITY_H

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

namespace omni {

// Result members by key: "type", "data", "msg", "code", "statusCode".
using AnyMap = std::map<std::string, nlohmann::json>;

// The parameters of one call: any JSON value.
class AbilityData {
 public:
  AbilityData() = default;
  explicit AbilityData(nlohmann::json value) : value_(std::move(value)) {}
  const nlohmann::json& getData() const { return value_; }

 private:
  nlohmann::json value_;
};

class FormattedData {
 public:
  explicit FormattedData(AnyMap map) : map_(std::move(map)) {}
  const AnyMap& getAnyMapData() const { return map_; }

 private:
  AnyMap map_;
};

// The outcome of one call: a result ("type" "result") with optional data, or
// an error ("type" "error") with a code and a message.
class ExecuteResult {
 public:
  static ExecuteResult success(nlohmann::json data = nullptr, int statusCode = 0);
  static ExecuteResult error(std::string code, std::string message, int statusCode = 0);

  bool isSuccess() const { return success_; }
  const std::string& getCode() const { return code_; }
  const std::string& getMessage() const { return message_; }
  const nlohmann::json& getData() const { return data_; }
  int getStatusCode() const { return statusCode_; }

  // {"type", "data", "msg", "code", "statusCode"}.
  FormattedData toFormattedData() const;

 private:
  bool success_ = true;
  std::string code_;
  std::string message_;
  nlohmann::json data_;
  int statusCode_ = 0;
};

// Who calls: a map of texts the caller fills and the ability reads.
// Thread-safe.
class AbilityContext {
 public:
  void setDataToUserDataMap(const std::string& key, const std::string& value);
  // The value of `key`, or "" when it was never set.
  std::string getDataFromUserDataMap(const std::string& key) const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> userData_;
};

class Ability {
 public:
  using Callback = std::function<void(const ExecuteResult&)>;
  virtual ~Ability() = default;
  // Runs `api` with `data`; calls `callback` exactly once, on any thread.
  virtual void execute(const std::string& api,
                       std::shared_ptr<AbilityContext> context,
                       const AbilityData& data,
                       Callback callback) = 0;
};

// A caller's handle, named after the business that calls.
class AbilityAdapter {
 public:
  static std::shared_ptr<AbilityAdapter> create(const std::string& business);

  explicit AbilityAdapter(std::string business) : business_(std::move(business)) {}
  const std::string& business() const { return business_; }

  // Calls `api` of `ability` and waits for its result: an error "NOT_FOUND"
  // for an unknown ability, "TIMEOUT" when no result came in time.
  ExecuteResult syncCall(const std::string& ability,
                         const std::string& api,
                         std::shared_ptr<AbilityContext> context,
                         const AbilityData& data);

  // How long syncCall waits (default 10 s).
  void setSyncTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }

 private:
  std::string business_;
  std::chrono::milliseconds timeout_{10000};
};

}  // namespace omni

#endif  // OMNI_ABILITY_H
