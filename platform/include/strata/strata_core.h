// StrataCore: offline resource packages. A package is a folder or a .zip
// under the packages folder holding manifest.json:
//   {"id": "...", "version": "1.2.0",
//    "resources": [{"url": "https://host/path", "file": "relative/path",
//                   "headers": {"Content-Type": "..."}, "anyQuery": false}]}
// A resource with "anyQuery": true answers its URL whatever query the
// request carries. Fragments are ignored.
#ifndef STRATA_STRATA_CORE_H
#define STRATA_STRATA_CORE_H

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace StrataCore {

using Headers = std::unordered_map<std::string, std::string>;

class ResourceRequest {
 public:
  ResourceRequest(const std::string& url, const Headers& headers) : url_(url), headers_(headers) {}
  ~ResourceRequest() = default;
  const std::string& url() const { return url_; }
  const Headers& headers() const { return headers_; }

 private:
  std::string url_;
  Headers headers_;
};

// Set when a lookup found nothing or failed; converts to true then.
class Error {
 public:
  enum Code { kNone = 0, kNotFound = 1, kReadFailed = 2, kShuttingDown = 3 };
  Error() = default;
  Error(Code code, std::string message) : code_(code), message_(std::move(message)) {}
  explicit operator bool() const { return code_ != kNone; }
  Code code() const { return code_; }
  const std::string& message() const { return message_; }

 private:
  Code code_ = kNone;
  std::string message_;
};

class ResourceResponse {
 public:
  ~ResourceResponse() = default;
  std::string body;
  Headers headers;
  Error error;
  std::string packageId;  // the package that answered
};

struct PackageInfo {
  std::string id;
  std::string version;
  std::string path;      // folder or .zip
  size_t resources = 0;  // resources served from it
};

using Completion = std::function<void(std::unique_ptr<ResourceResponse>)>;

class Access {
 public:
  // Looks `request` up. `completion` is called exactly once: with the file's
  // bytes and the manifest's headers on a hit, on one of the library's
  // threads; with the error set otherwise (also when the library shuts down
  // first). A URL that no package holds may be answered before this returns,
  // on the caller's thread.
  static void getResource(const ResourceRequest& request, Completion completion);
};

// The installed packages of $VELORA_PACKAGES_DIR (default
// $VELORA_DATA_DIR/packages), indexed at first use. Changes swap the index
// whole: a lookup sees the packages before or after a change, never half.
class PackageManager {
 public:
  // Copies the folder or .zip at `source` into the packages folder and
  // indexes it. False (with `error` set) for a package that cannot be read.
  static bool install(const std::string& source, std::string* error);
  // Removes the package `id`; false when it is not installed.
  static bool remove(const std::string& id);
  static std::vector<PackageInfo> list();
  // Re-reads the packages folder (after another process changed it).
  static void rescan();
  static std::string packagesDir();
};

}  // namespace StrataCore

#endif  // STRATA_STRATA_CORE_H
