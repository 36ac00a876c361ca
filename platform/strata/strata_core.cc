// Host StrataCore: an in-memory index of the installed packages, swapped
// whole on every change; lookups answered by two worker threads that read the
// file (from the folder or the .zip) straight into the response.
//
// A zipped package is opened once, when it is indexed: the index keeps each
// resource's place in the archive and hits read it by offset from the kept
// descriptor, so a hit costs the same whatever the archive holds. Before a
// read the file is checked to be the one opened; one replaced or rewritten
// by another process fails that hit and has the folder re-indexed.
//
// A page asks for its resources in bursts. A worker that runs out of work
// watches the queue for a short while before it sleeps, so the lookups of a
// burst after the first do not pay for waking a thread; one worker at most
// watches, and a lookup wakes a sleeper only when none does.
#include "strata/strata_core.h"
#include "strata/host_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <thread>

#include "common/host_env.h"
#include "common/json_limits.h"
#include "hilog/log.h"
#include "strata/zip_archive.h"

namespace fs = std::filesystem;

namespace StrataCore {
namespace {

constexpr char kTag[] = "StrataCore";
constexpr int kWorkers = 2;
// How long an idle worker watches the queue before it sleeps.
constexpr auto kWatchBeforeSleep = std::chrono::microseconds(50);
// A manifest larger than this is refused.
constexpr uint64_t kMaxManifestBytes = 8u << 20;

// The largest resource served ($VELORA_PACKAGE_MAX_BYTES, default 64 MiB):
// what an archive or a file claims is never trusted beyond it.
uint64_t maxResourceBytes() {
  static const uint64_t limit = [] {
    std::string text = host::envOr("VELORA_PACKAGE_MAX_BYTES", "");
    char* end = nullptr;
    unsigned long long value = text.empty() ? 0 : std::strtoull(text.c_str(), &end, 10);
    return value > 0 && end && *end == '\0' ? value : 64ull << 20;
  }();
  return limit;
}

struct Resource {
  std::string packageId;
  std::string version;
  std::string packagePath;
  std::string file;
  Headers headers;
  std::shared_ptr<const ZipArchive> archive;  // null for a folder package
  ZipEntry entry;                             // where the file lies in the archive
};

struct Index {
  std::unordered_map<std::string, Resource> exact;     // URL without fragment
  std::unordered_map<std::string, Resource> anyQuery;  // URL without query and fragment
  std::vector<PackageInfo> packages;
};

struct Package {
  PackageInfo info;
  bool zipped = false;
  std::shared_ptr<ZipArchive> archive;  // a zipped package's, open while indexed
  std::vector<std::pair<std::string, Resource>> exact;
  std::vector<std::pair<std::string, Resource>> anyQuery;
};

std::string withoutFragment(const std::string& url) {
  return url.substr(0, url.find('#'));
}

std::string withoutQuery(const std::string& url) {
  std::string base = withoutFragment(url);
  return base.substr(0, base.find('?'));
}

// "1.10.0" > "1.9.3": dot-separated parts compared as numbers when both are.
int compareVersions(const std::string& a, const std::string& b) {
  std::istringstream left(a), right(b);
  std::string x, y;
  while (true) {
    bool hasX = static_cast<bool>(std::getline(left, x, '.'));
    bool hasY = static_cast<bool>(std::getline(right, y, '.'));
    if (!hasX && !hasY)
      return 0;
    if (!hasX)
      return -1;
    if (!hasY)
      return 1;
    bool numeric = !x.empty() && !y.empty() &&
                   x.find_first_not_of("0123456789") == std::string::npos &&
                   y.find_first_not_of("0123456789") == std::string::npos;
    if (numeric) {
      // Compared as digit strings: no part is too long for a number.
      x.erase(0, std::min(x.find_first_not_of('0'), x.size() - 1));
      y.erase(0, std::min(y.find_first_not_of('0'), y.size() - 1));
      if (x.size() != y.size())
        return x.size() < y.size() ? -1 : 1;
      if (x != y)
        return x < y ? -1 : 1;
    } else if (x != y) {
      return x < y ? -1 : 1;
    }
  }
}

// Package ids name files in the packages folder: plain names only.
bool isPlainId(const std::string& id) {
  if (id.empty() || id.size() > 128 || id[0] == '.')
    return false;
  for (char c : id) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '.' || c == '_' || c == '-';
    if (!plain)
      return false;
  }
  return true;
}

// True when `path`, resolved (links and ".." included), lies strictly inside
// the folder `dir`.
bool isInside(const std::string& dir, const std::string& path) {
  std::error_code ec;
  std::string root = fs::weakly_canonical(dir, ec).string();
  if (ec || root.empty())
    return false;
  std::string resolved = fs::weakly_canonical(path, ec).string();
  if (ec)
    return false;
  if (root.back() != '/')
    root += '/';
  return resolved.size() > root.size() && resolved.compare(0, root.size(), root) == 0;
}

// The first symbolic link under the folder `dir` (itself excluded), or "".
std::string firstLinkUnder(const std::string& dir) {
  std::error_code ec;
  for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_symlink(ec))
      return it->path().string();
  }
  return std::string();
}

// A package file name must stay inside the package.
bool isSafeRelativePath(const std::string& file) {
  if (file.empty() || file[0] == '/')
    return false;
  for (const auto& part : fs::path(file)) {
    if (part == "..")
      return false;
  }
  return true;
}

bool readFile(const std::string& path, std::string* out, uint64_t limit) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  struct stat st;
  bool ok =
      fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) <= limit;
  if (ok) {
    // Straight into the response: no intermediate buffer.
    out->resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (ok && done < out->size()) {
      ssize_t n = read(fd, out->data() + done, out->size() - done);
      if (n <= 0)
        ok = false;
      else
        done += static_cast<size_t>(n);
    }
  }
  close(fd);
  return ok;
}

// Reads and checks the package at `path`. Resources that cannot be served
// are left out with a log line; a package that cannot be read at all is
// refused with `error` set.
std::optional<Package> readPackage(const std::string& path, std::string* error) {
  Package package;
  package.zipped = path.size() > 4 && path.compare(path.size() - 4, 4, ".zip") == 0;
  std::string manifestText;
  ZipDirectory directory;
  if (package.zipped) {
    std::string why;
    package.archive = ZipArchive::open(path, &directory, &why);
    if (!package.archive) {
      *error = "not a readable zip archive: " + why;
      return std::nullopt;
    }
    auto listed = directory.find("manifest.json");
    ZipEntry entry;
    if (listed == directory.end()) {
      *error = "no manifest.json at the top of the archive";
      return std::nullopt;
    }
    if (!package.archive->resolve(listed->second, &entry, &why) ||
        !package.archive->read(entry, &manifestText, kMaxManifestBytes, &why)) {
      *error = "cannot read manifest.json: " + why;
      return std::nullopt;
    }
  } else if (!readFile(path + "/manifest.json", &manifestText, kMaxManifestBytes)) {
    *error = "no manifest.json in the folder";
    return std::nullopt;
  }

  nlohmann::json manifest;
  try {
    manifest = host::parseJson(manifestText);
  } catch (const std::exception& e) {
    *error = std::string("manifest.json is not JSON: ") + e.what();
    return std::nullopt;
  }
  if (!manifest.is_object() || !manifest.contains("id") || !manifest["id"].is_string() ||
      manifest["id"].get<std::string>().empty() || !manifest.contains("resources") ||
      !manifest["resources"].is_array()) {
    *error = "manifest.json needs a non-empty \"id\" and a \"resources\" array";
    return std::nullopt;
  }
  package.info.id = manifest["id"];
  if (!isPlainId(package.info.id)) {
    *error = "the package id \"" + package.info.id +
             "\" is not a plain name (letters, digits, '.', '_', '-', not starting with '.')";
    return std::nullopt;
  }
  const nlohmann::json& version = manifest.contains("version") ? manifest["version"] : "0";
  package.info.version = version.is_string() ? version.get<std::string>() : version.dump();
  package.info.path = path;
  std::string realRoot = package.zipped ? "" : fs::weakly_canonical(path).string() + "/";
  for (const auto& entry : manifest["resources"]) {
    std::string url = entry.is_object() ? entry.value("url", "") : "";
    std::string file = entry.is_object() ? entry.value("file", "") : "";
    auto skip = [&](const char* why) {
      OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag,
                   "package %{public}s: resource %{public}s (%{public}s) left out: %{public}s",
                   package.info.id.c_str(), url.c_str(), file.c_str(), why);
    };
    if (url.empty() || !isSafeRelativePath(file)) {
      skip("it needs a url and a file path inside the package");
      continue;
    }
    ZipEntry zipEntry;
    if (package.zipped) {
      auto listed = directory.find(file);
      std::string why;
      if (listed == directory.end()) {
        skip("the file is not in the archive");
        continue;
      }
      if (!package.archive->resolve(listed->second, &zipEntry, &why)) {
        skip(why.c_str());
        continue;
      }
    } else {
      std::error_code ec;
      std::string real = fs::canonical(path + "/" + file, ec).string();
      if (ec || real.compare(0, realRoot.size(), realRoot) != 0 || !fs::is_regular_file(real)) {
        skip(ec ? "the file does not exist" : "the file is outside the package");
        continue;
      }
    }
    Resource resource{package.info.id, package.info.version, path, file, {}, package.archive,
                      zipEntry};
    if (entry.contains("headers") && entry["headers"].is_object()) {
      for (const auto& [name, value] : entry["headers"].items()) {
        resource.headers[name] = value.is_string() ? value.get<std::string>() : value.dump();
      }
    }
    bool anyQuery = entry.value("anyQuery", false);
    (anyQuery ? package.anyQuery : package.exact)
        .emplace_back(anyQuery ? withoutQuery(url) : withoutFragment(url), std::move(resource));
  }
  package.info.resources = package.exact.size() + package.anyQuery.size();
  return package;
}

std::optional<Package> loadPackage(const std::string& path, std::string* error) {
  try {
    return readPackage(path, error);
  } catch (const std::exception& e) {
    // A member of the wrong type ("anyQuery": "yes", "url": 5, ...).
    *error = std::string("manifest.json is malformed: ") + e.what();
    return std::nullopt;
  }
}

void addResources(const std::vector<std::pair<std::string, Resource>>& resources,
                  std::unordered_map<std::string, Resource>& table) {
  for (const auto& [url, resource] : resources) {
    auto existing = table.find(url);
    if (existing != table.end()) {
      bool newer = compareVersions(resource.version, existing->second.version) > 0;
      const Resource& winner = newer ? resource : existing->second;
      const Resource& loser = newer ? existing->second : resource;
      OH_LOG_Print(LOG_APP, LOG_WARN, 0, kTag,
                   "%{public}s is in packages %{public}s %{public}s and %{public}s %{public}s; "
                   "serving it from the newer one, %{public}s",
                   url.c_str(), winner.packageId.c_str(), winner.version.c_str(),
                   loser.packageId.c_str(), loser.version.c_str(), winner.packageId.c_str());
      if (!newer)
        continue;
    }
    table[url] = resource;
  }
}

// Zipped packages as last indexed, by path.
using ZipPackages = std::unordered_map<std::string, Package>;

// Indexes the packages of `dir`. A zipped package whose file is still the one
// indexed in `previous` is taken from there rather than opened and read
// again; `current` receives the zipped packages of the new index.
std::shared_ptr<const Index> buildIndex(const std::string& dir,
                                        const ZipPackages& previous,
                                        ZipPackages* current) {
  auto index = std::make_shared<Index>();
  std::error_code ec;
  std::vector<std::string> paths;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    std::string name = entry.path().filename().string();
    if (name.empty() || name[0] == '.')
      continue;  // installs in progress
    if (entry.is_directory() || (entry.is_regular_file() && entry.path().extension() == ".zip")) {
      paths.push_back(entry.path().string());
    }
  }
  std::sort(paths.begin(), paths.end());
  for (const std::string& path : paths) {
    std::string error;
    std::optional<Package> package;
    auto known = previous.find(path);
    if (known != previous.end() && known->second.archive->unchanged(true))
      package = known->second;
    else
      package = loadPackage(path, &error);
    if (!package) {
      OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "skipping package %{public}s: %{public}s",
                   path.c_str(), error.c_str());
      continue;
    }
    if (package->archive)
      current->emplace(path, *package);
    addResources(package->exact, index->exact);
    addResources(package->anyQuery, index->anyQuery);
    index->packages.push_back(package->info);
  }
  return index;
}

class Library {
 public:
  Library() : dir_(host::envOr("VELORA_PACKAGES_DIR", host::dataDir() + "/packages")) {
    swapIndexLocked();  // nothing else runs yet: no lock needed
    for (int i = 0; i < kWorkers; ++i)
      workers_.emplace_back([this] { work(); });
  }

  // Stops the workers for good and answers what was still queued "shutting
  // down"; later lookups are answered so at once. Idempotent.
  void shutdown() {
    std::deque<Job> left;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_)
        return;
      stopping_ = true;
      stoppingHint_ = true;
      left.swap(jobs_);
    }
    wake_.notify_all();
    for (auto& worker : workers_)
      worker.join();
    for (Job& job : left)
      answerShuttingDown(job);
  }

  void submit(const ResourceRequest& request, Completion completion) {
    enum { kShuttingDown, kQueued, kQueuedToWake } outcome = kShuttingDown;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      // A URL no package holds is answered at once, on the caller's thread:
      // the index is immutable, so there is nothing to wait for.
      if (!stopping_ && !paused_ && !find(*index(), request.url())) {
        lock.unlock();
        auto response = std::make_unique<ResourceResponse>();
        response->error = Error(Error::kNotFound, "no package holds " + request.url());
        complete(completion, std::move(response));
        return;
      }
      if (!stopping_) {
        jobs_.push_back({request.url(), std::move(completion)});
        queued_.store(jobs_.size(), std::memory_order_release);
        // A watching worker takes it: it looks at the queue again, under the
        // lock, before it sleeps.
        outcome = watching_ ? kQueued : kQueuedToWake;
      }
    }
    if (outcome == kQueuedToWake)
      wake_.notify_one();  // after unlocking: the worker must not wake into a held lock
    if (outcome != kShuttingDown)
      return;
    Job job{request.url(), std::move(completion)};
    answerShuttingDown(job);
  }

  void setPaused(bool paused) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      paused_ = paused;
    }
    wake_.notify_all();
  }

  // Guarded by changeMutex_ for writers; read by lookups through the index.
  std::string dir() const {
    std::lock_guard<std::mutex> lock(dirMutex_);
    return dir_;
  }
  void useDir(const std::string& dir) {
    std::lock_guard<std::mutex> change(changeMutex_);
    {
      std::lock_guard<std::mutex> lock(dirMutex_);
      dir_ = dir;
    }
    swapIndexLocked();
  }
  std::shared_ptr<const Index> index() const { return std::atomic_load(&index_); }

  void rescan() {
    std::lock_guard<std::mutex> lock(changeMutex_);
    swapIndexLocked();
  }

  std::mutex& changeMutex() { return changeMutex_; }

  void swapIndexLocked() {
    ZipPackages zips;
    std::atomic_store(&index_, buildIndex(dir(), zips_, &zips));
    // Lookups still reading from an archive no longer indexed look again.
    // The archive closes when the last of them lets go of it.
    for (auto& [path, package] : zips_) {
      auto kept = zips.find(path);
      if (kept == zips.end() || kept->second.archive != package.archive)
        package.archive->retire();
    }
    zips_ = std::move(zips);
  }

 private:
  struct Job {
    std::string url;
    Completion completion;
  };

  void work() {
    std::unique_lock<std::mutex> lock(mutex_);
    bool justWorked = false;  // watching follows work, never a watch
    for (;;) {
      if (stopping_)
        return;
      if (!paused_ && !jobs_.empty()) {
        Job job = std::move(jobs_.front());
        jobs_.pop_front();
        queued_.store(jobs_.size(), std::memory_order_relaxed);
        // Lookups queued while this worker watched woke nobody: the next
        // one goes to another worker rather than wait behind this one.
        const bool more = !jobs_.empty();
        lock.unlock();
        if (more)
          wake_.notify_one();
        answer(job);
        lock.lock();
        justWorked = true;
        continue;
      }
      if (justWorked && !paused_ && !watching_) {
        justWorked = false;
        watching_ = true;
        lock.unlock();
        watchQueue();
        lock.lock();
        watching_ = false;
        continue;  // whatever came meanwhile is looked at under the lock
      }
      justWorked = false;
      wake_.wait(lock);
    }
  }

  // Returns when a lookup is queued, the library stops, or the watch is over.
  void watchQueue() const {
    const auto until = std::chrono::steady_clock::now() + kWatchBeforeSleep;
    while (queued_.load(std::memory_order_acquire) == 0 &&
           !stoppingHint_.load(std::memory_order_relaxed) &&
           std::chrono::steady_clock::now() < until) {
#if defined(__x86_64__) || defined(__i386__)
      __builtin_ia32_pause();
#elif defined(__aarch64__)
      asm volatile("yield");
#endif
    }
  }

  // Nothing thrown on a worker escapes it: a lookup that fails is answered
  // as a read failure, a completion that throws is logged.
  void answer(Job& job) {
    std::unique_ptr<ResourceResponse> response;
    bool reindex = false;
    try {
      response = lookup(job.url, &reindex);
    } catch (const std::exception& e) {
      response = std::make_unique<ResourceResponse>();
      response->error = Error(Error::kReadFailed, std::string("lookup failed: ") + e.what());
    }
    complete(job.completion, std::move(response));
    if (reindex)
      reindexAfterOutsideChange();
  }

  // An archive replaced or rewritten by another process is read afresh (or
  // left out, if it no longer reads) for the hits after the one that noticed.
  void reindexAfterOutsideChange() {
    try {
      std::lock_guard<std::mutex> lock(changeMutex_);
      OH_LOG_Print(LOG_APP, LOG_INFO, 0, kTag,
                   "re-indexing %{public}s: an archive changed on disk since it was indexed",
                   dir().c_str());
      swapIndexLocked();
    } catch (const std::exception& e) {
      OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "re-indexing failed: %{public}s", e.what());
    }
  }

  void answerShuttingDown(Job& job) {
    auto response = std::make_unique<ResourceResponse>();
    response->error = Error(Error::kShuttingDown, "the offline cache is shutting down");
    complete(job.completion, std::move(response));
  }

  static void complete(Completion& completion, std::unique_ptr<ResourceResponse> response) {
    try {
      completion(std::move(response));
    } catch (const std::exception& e) {
      OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "a lookup's completion threw: %{public}s",
                   e.what());
    } catch (...) {
      OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "a lookup's completion threw");
    }
  }

  static const Resource* find(const Index& index, const std::string& url) {
    // Most URLs have neither fragment nor query: they are looked up as they
    // are, without a copy.
    const bool plain = url.find_first_of("#?") == std::string::npos;
    auto exact = plain ? index.exact.find(url) : index.exact.find(withoutFragment(url));
    if (exact != index.exact.end())
      return &exact->second;
    if (index.anyQuery.empty())
      return nullptr;
    auto any = plain ? index.anyQuery.find(url) : index.anyQuery.find(withoutQuery(url));
    return any != index.anyQuery.end() ? &any->second : nullptr;
  }

  // Reads the resource `url` names. Sets `reindex` when its archive is no
  // longer the file that was indexed.
  std::unique_ptr<ResourceResponse> lookup(const std::string& url, bool* reindex) {
    // A read that overlapped a change made through the library is done again
    // from the new index; the bound only guards against endless changes.
    constexpr int kAttempts = 3;
    for (int attempt = 1;; ++attempt) {
      auto response = std::make_unique<ResourceResponse>();
      std::shared_ptr<const Index> index = this->index();
      const Resource* resource = find(*index, url);
      if (!resource) {
        response->error = Error(Error::kNotFound, "no package holds " + url);
        return response;
      }
      bool read = false;
      std::string why;
      if (resource->archive) {
        const ZipArchive& archive = *resource->archive;
        // Checked before the read (a replaced file) and after it (a file
        // rewritten in place while it was read).
        bool intact = archive.unchanged(true);
        read = intact && archive.read(resource->entry, &response->body, maxResourceBytes(), &why);
        if (read && !archive.unchanged(false))
          read = intact = false;
        if (!intact && !archive.retired()) {
          // An install through the library replaces the file before it swaps
          // the index: once it is done, the archive is retired if it was one.
          std::lock_guard<std::mutex> settled(changeMutex_);
        }
        if (archive.retired() && attempt < kAttempts)
          continue;
        if (!intact) {
          why = "the archive was replaced or changed on disk since it was indexed";
          *reindex = archive.firstToNoticeChange();
        }
      } else {
        read = readFile(resource->packagePath + "/" + resource->file, &response->body,
                        maxResourceBytes());
        if (!read)
          why = "the file is missing, not a regular file or larger than the limit";
      }
      if (!read) {
        OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag,
                     "cannot read %{public}s from package %{public}s: %{public}s",
                     resource->file.c_str(), resource->packageId.c_str(), why.c_str());
        response->body.clear();
        response->error =
            Error(Error::kReadFailed, "cannot read " + resource->file + " of package " +
                                          resource->packageId + ": " + why);
        return response;
      }
      response->headers = resource->headers;
      response->packageId = resource->packageId;
      return response;
    }
  }

  mutable std::mutex dirMutex_;
  std::string dir_;                     // guarded by dirMutex_
  std::shared_ptr<const Index> index_;  // atomic load/store only
  std::mutex changeMutex_;              // one change of the folder at a time
  ZipPackages zips_;                    // guarded by changeMutex_
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Job> jobs_;  // guarded by mutex_
  // jobs_.size(), read by a watching worker without the lock.
  std::atomic<size_t> queued_{0};
  bool watching_ = false;  // guarded by mutex_: a worker watches the queue
  bool paused_ = false;
  bool stopping_ = false;
  std::atomic<bool> stoppingHint_{false};  // stopping_, for a watching worker
  std::vector<std::thread> workers_;
};

// Never destroyed: lookups may still be submitted while the process exits.
// The workers stop at exit before the objects made before the library are
// destroyed.
Library& library() {
  static Library* instance = new Library;
  static struct StopAtExit {
    ~StopAtExit() { instance->shutdown(); }
  } stopAtExit;
  return *instance;
}

}  // namespace

void Access::getResource(const ResourceRequest& request, Completion completion) {
  if (!completion)
    return;
  library().submit(request, std::move(completion));
}

bool inspectPackage(const std::string& path, PackageInfo* info, std::string* error) {
  std::string ignored;
  std::optional<Package> package = loadPackage(path, error ? error : &ignored);
  if (package && info)
    *info = package->info;
  return package.has_value();
}

void usePackagesDir(const std::string& dir) {
  library().useDir(dir);
}

void pauseLookups() {
  library().setPaused(true);
}

void resumeLookups() {
  library().setPaused(false);
}

std::string PackageManager::packagesDir() {
  return library().dir();
}

bool PackageManager::install(const std::string& source, std::string* error) {
  std::string ignored;
  std::string& why = error ? *error : ignored;
  std::string path = source;
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  std::optional<Package> package = loadPackage(path, &why);
  if (!package)
    return false;
  if (!package->zipped) {
    // A link could copy in (and serve) any file of the machine, or loop.
    std::string link = firstLinkUnder(path);
    if (!link.empty()) {
      why = "the package holds a symbolic link, " + link + "; links are not installed";
      return false;
    }
  }
  Library& lib = library();
  std::lock_guard<std::mutex> lock(lib.changeMutex());
  std::error_code ec;
  fs::create_directories(lib.dir(), ec);
  std::string name = package->info.id + (package->zipped ? ".zip" : "");
  std::string staging = lib.dir() + "/." + name + ".installing";
  const std::string folderTarget = lib.dir() + "/" + package->info.id;
  const std::string zipTarget = folderTarget + ".zip";
  for (const std::string& target : {staging, folderTarget, zipTarget}) {
    if (!isInside(lib.dir(), target)) {
      why = target + " is not inside the packages folder " + lib.dir();
      return false;
    }
  }
  fs::remove_all(staging, ec);
  if (package->zipped) {
    fs::copy_file(path, staging, ec);
  } else {
    // Links are copied as links, never followed; one that appeared after the
    // check above is found in the copy.
    fs::copy(path, staging, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
    if (!ec && !firstLinkUnder(staging).empty()) {
      why = "the package holds a symbolic link; links are not installed";
      fs::remove_all(staging, ec);
      return false;
    }
  }
  if (ec) {
    why = "cannot copy into " + lib.dir() + ": " + ec.message();
    fs::remove_all(staging, ec);
    return false;
  }
  // An installed package of the same id, in either form, is replaced.
  fs::remove_all(folderTarget, ec);
  fs::remove(zipTarget, ec);
  fs::rename(staging, package->zipped ? zipTarget : folderTarget, ec);
  if (ec) {
    why = "cannot move the package into place: " + ec.message();
    return false;
  }
  lib.swapIndexLocked();
  OH_LOG_Print(LOG_APP, LOG_INFO, 0, kTag, "installed package %{public}s %{public}s",
               package->info.id.c_str(), package->info.version.c_str());
  return true;
}

bool PackageManager::remove(const std::string& id) {
  Library& lib = library();
  const std::string folder = lib.dir() + "/" + id;
  const std::string zip = folder + ".zip";
  if (!isPlainId(id) || !isInside(lib.dir(), folder) || !isInside(lib.dir(), zip)) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "refusing to remove \"%{public}s\": not a package id",
                 id.c_str());
    return false;
  }
  std::lock_guard<std::mutex> lock(lib.changeMutex());
  std::error_code ec;
  bool removed = fs::remove_all(folder, ec) > 0;
  removed = fs::remove(zip, ec) || removed;
  if (removed)
    lib.swapIndexLocked();
  return removed;
}

std::vector<PackageInfo> PackageManager::list() {
  return library().index()->packages;
}

void PackageManager::rescan() {
  library().rescan();
}

}  // namespace StrataCore
