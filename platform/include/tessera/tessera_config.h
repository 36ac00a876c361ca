// Tessera: remote configuration, by namespace, as key -> text maps.
#ifndef TESSERA_TESSERA_CONFIG_H
#define TESSERA_TESSERA_CONFIG_H

#include <map>
#include <memory>
#include <string>

namespace tessera {

// Observer of one namespace. Called on the library's own thread.
class IOConfigListener {
 public:
  virtual ~IOConfigListener() = default;
  // The namespace's values changed; `configs` holds all of them now.
  virtual void onConfigUpdate(const std::string& nameSpace,
                              const std::map<std::string, std::string>& configs) = 0;
  // One key changed.
  virtual void onConfigChange(const std::string& nameSpace,
                              const std::string& key,
                              const std::string& value) = 0;
  // A namespace delivered as one free-form text changed.
  virtual void onCustomConfigChange(const std::string& nameSpace, const std::string& content) = 0;
};

class ITesseraConfig {
 public:
  virtual ~ITesseraConfig() = default;
  // The values of `nameSpace` as last delivered; empty when there are none yet.
  virtual std::map<std::string, std::string> getConfigs(const std::string& nameSpace) = 0;
  // Keeps `listener` alive and calls it on every change of `nameSpace`.
  virtual void registerListener(const std::string& nameSpace,
                                std::shared_ptr<IOConfigListener> listener) = 0;
};

// The process-wide configuration. On the host the values come from the JSON
// file named by VELORA_CONFIG ({"namespace": {"key": "text"}}), re-read when
// the file changes.
ITesseraConfig* getITesseraConfig();

}  // namespace tessera

#endif  // TESSERA_TESSERA_CONFIG_H
