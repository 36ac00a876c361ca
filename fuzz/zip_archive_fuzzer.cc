// Archives from strangers: the directory read, entries resolved and read
// within a limit; never a crash, a hang, data placed outside the file or
// more bytes than the entry declares and the limit allows.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "strata/zip_archive.h"

namespace {

constexpr uint64_t kLimit = 1u << 20;
// Entries may share one small, highly compressed stream: reading a few of
// them shows what reading all would.
constexpr int kEntriesRead = 16;

std::string archivePath() {
  static const std::string path = [] {
    char pattern[] = "/tmp/velora-zip-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern)) + "/package.zip";
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = archivePath();
  FILE* file = std::fopen(path.c_str(), "wb");
  std::fwrite(data, 1, size, file);
  std::fclose(file);
  StrataCore::ZipDirectory directory;
  std::string error;
  auto archive = StrataCore::ZipArchive::open(path, &directory, &error);
  if (!archive)
    return 0;
  int read = 0;
  for (const auto& [name, listed] : directory) {
    StrataCore::ZipEntry entry;
    std::string why, body;
    if (!archive->resolve(listed, &entry, &why))
      continue;
    if (entry.dataOffset > size || entry.compressedSize > size - entry.dataOffset)
      std::abort();  // the data must lie inside the file
    if (archive->read(entry, &body, kLimit, &why) &&
        (body.size() != entry.size || body.size() > kLimit))
      std::abort();
    if (++read == kEntriesRead)
      break;
  }
  return 0;
}
