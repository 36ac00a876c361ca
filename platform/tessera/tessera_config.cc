// Host tessera: configuration values from a JSON file, watched with inotify.
// Listener calls and reloads happen on the library's own thread.
#include "tessera/tessera_config.h"
#include "tessera/host_config.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "common/host_env.h"
#include "common/json_limits.h"
#include "hilog/log.h"

namespace tessera {
namespace {

constexpr char kTag[] = "tessera";

using Values = std::map<std::string, std::map<std::string, std::string>>;

// Parses {"namespace": {"key": value}}. String values are taken as they are;
// any other JSON value is kept as its JSON text, so a list may be written as
// a list. Throws on a malformed file.
Values parseValues(const std::string& text) {
  Values values;
  nlohmann::json root = host::parseJson(text);
  if (!root.is_object())
    throw std::runtime_error("the top level is not a JSON object");
  for (auto& [ns, entries] : root.items()) {
    if (!entries.is_object())
      throw std::runtime_error("namespace \"" + ns + "\" is not an object");
    auto& map = values[ns];
    for (auto& [key, value] : entries.items()) {
      map[key] = value.is_string() ? value.get<std::string>() : value.dump();
    }
  }
  return values;
}

class FileTesseraConfig : public ITesseraConfig {
 public:
  FileTesseraConfig() {
    std::string dir = host::dataDir();
    path_ = host::envOr("VELORA_CONFIG", dir + "/config.json");
    reload(/*notify=*/false);
    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    thread_ = std::thread([this] { watch(); });
    waitArmed();
  }

  ~FileTesseraConfig() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    uint64_t one = 1;
    (void)!write(wakeFd_, &one, sizeof one);
    if (thread_.joinable())
      thread_.join();
    close(wakeFd_);
  }

  std::map<std::string, std::string> getConfigs(const std::string& nameSpace) override {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = values_.find(nameSpace);
    return it == values_.end() ? std::map<std::string, std::string>() : it->second;
  }

  void registerListener(const std::string& nameSpace,
                        std::shared_ptr<IOConfigListener> listener) override {
    if (!listener)
      return;
    std::lock_guard<std::mutex> lock(mutex_);
    listeners_.emplace_back(nameSpace, std::move(listener));
  }

  void useFile(const std::string& path) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      path_ = path;
      ++generation_;  // the watcher re-arms on the new folder
    }
    uint64_t one = 1;
    (void)!write(wakeFd_, &one, sizeof one);
    // Changes made right after this call must not be missed.
    waitArmed();
    reload(/*notify=*/true);
  }

 private:
  // Waits until the watcher watches the current file.
  void waitArmed() {
    std::unique_lock<std::mutex> lock(mutex_);
    armedChanged_.wait(lock, [this] { return armedGeneration_ == generation_; });
  }

  void setArmed(uint64_t generation) {
    std::lock_guard<std::mutex> lock(mutex_);
    armedGeneration_ = generation;
    armedChanged_.notify_all();
  }

  // Reads the file and applies it. A missing file means no values; a
  // malformed one is reported and the previous values stay.
  void reload(bool notify) {
    std::string path;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      path = path_;
    }
    Values fresh;
    std::ifstream in(path, std::ios::binary);
    if (in) {
      std::stringstream text;
      text << in.rdbuf();
      try {
        fresh = parseValues(text.str());
      } catch (const std::exception& e) {
        OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag,
                     "ignoring malformed configuration %{public}s: %{public}s; the previous "
                     "values stay until the file is fixed",
                     path.c_str(), e.what());
        return;
      }
    }
    std::vector<std::pair<std::string, std::shared_ptr<IOConfigListener>>> toCall;
    std::vector<std::pair<std::string, std::map<std::string, std::string>>> changed;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const auto& [ns, map] : fresh) {
        auto old = values_.find(ns);
        if (old == values_.end() || old->second != map)
          changed.emplace_back(ns, map);
      }
      for (const auto& [ns, map] : values_) {
        if (!fresh.count(ns))
          changed.emplace_back(ns, std::map<std::string, std::string>());
      }
      values_ = std::move(fresh);
      if (!notify)
        return;
      toCall = listeners_;
    }
    for (const auto& [ns, map] : changed) {
      OH_LOG_Print(LOG_APP, LOG_INFO, 0, kTag, "namespace %{public}s updated", ns.c_str());
      for (const auto& [listenedNs, listener] : toCall) {
        if (listenedNs == ns)
          listener->onConfigUpdate(ns, map);
      }
    }
  }

  // Watches the file's folder (so editors that replace the file are seen too)
  // and reloads on every change of the file's name.
  void watch() {
    for (;;) {
      std::string path;
      uint64_t generation;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
          return;
        path = path_;
        generation = generation_;
      }
      std::string dir = host::dirName(path);
      std::string name =
          path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
      host::makeDirs(dir);
      int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
      if (fd < 0 || inotify_add_watch(
                        fd, dir.c_str(),
                        IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MOVED_FROM) < 0) {
        OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag,
                     "cannot watch %{public}s for changes; values stay as first read", dir.c_str());
        if (fd >= 0)
          close(fd);
        setArmed(generation);
        waitForWake(-1);
        continue;
      }
      setArmed(generation);
      bool rearm = false;
      while (!rearm) {
        bool fileChanged = false;
        if (!waitForWake(fd)) {
          rearm = true;  // woken: stop or new file
          break;
        }
        alignas(inotify_event) char buffer[4096];
        ssize_t n;
        while ((n = read(fd, buffer, sizeof buffer)) > 0) {
          for (char* p = buffer; p < buffer + n;) {
            auto* event = reinterpret_cast<inotify_event*>(p);
            if (event->len && name == event->name)
              fileChanged = true;
            p += sizeof(inotify_event) + event->len;
          }
        }
        if (fileChanged) {
          std::lock_guard<std::mutex> lock(mutex_);
          if (generation != generation_)
            break;
        }
        if (fileChanged)
          reload(/*notify=*/true);
      }
      close(fd);
    }
  }

  // Waits for inotify data on fd (or forever for -1). False when woken up
  // through wakeFd_.
  bool waitForWake(int fd) {
    struct pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {fd, POLLIN, 0}};
    for (;;) {
      int ready = poll(fds, fd >= 0 ? 2 : 1, -1);
      if (ready < 0)
        continue;
      if (fds[0].revents & POLLIN) {
        uint64_t count;
        (void)!read(wakeFd_, &count, sizeof count);
        return false;
      }
      if (fd >= 0 && (fds[1].revents & POLLIN))
        return true;
    }
  }

  std::mutex mutex_;
  std::string path_;  // guarded by mutex_
  uint64_t generation_ = 0;
  uint64_t armedGeneration_ = UINT64_MAX;
  std::condition_variable armedChanged_;
  bool stopping_ = false;
  Values values_;
  std::vector<std::pair<std::string, std::shared_ptr<IOConfigListener>>> listeners_;
  int wakeFd_ = -1;
  std::thread thread_;
};

FileTesseraConfig& instance() {
  static FileTesseraConfig config;
  return config;
}

}  // namespace

ITesseraConfig* getITesseraConfig() {
  return &instance();
}

void useConfigFile(const std::string& path) {
  instance().useFile(path);
}

}  // namespace tessera
