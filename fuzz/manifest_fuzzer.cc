// Package manifests from strangers: refused or read, never a crash, a hang
// or a path outside the package.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "strata/host_config.h"

namespace {

// One folder for the whole run, holding two small files to point at.
std::string packageFolder() {
  static const std::string folder = [] {
    char pattern[] = "/tmp/velora-manifest-fuzz-XXXXXX";
    std::string dir = mkdtemp(pattern);
    for (const char* name : {"/a.txt", "/b.css"}) {
      FILE* file = std::fopen((dir + name).c_str(), "w");
      std::fputs("x", file);
      std::fclose(file);
    }
    return dir;
  }();
  return folder;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string folder = packageFolder();
  FILE* manifest = std::fopen((folder + "/manifest.json").c_str(), "wb");
  std::fwrite(data, 1, size, manifest);
  std::fclose(manifest);
  StrataCore::PackageInfo info;
  std::string error;
  if (StrataCore::inspectPackage(folder, &info, &error) && info.id.empty())
    std::abort();  // an accepted package always has an id
  return 0;
}
