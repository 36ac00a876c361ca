// A zip archive opened once and read by offset from any thread.
//
// libzip re-reads the whole central directory on every open and one zip_t
// must not be read by two threads at once. An installed package is instead
// opened once: its directory is read here, each served entry resolved to the
// offset of its data, and hits pread() from the kept descriptor, which is
// safe from any number of threads. Nothing the archive states about itself
// is trusted beyond the file's size and the caller's limit.
#ifndef STRATA_ZIP_ARCHIVE_H
#define STRATA_ZIP_ARCHIVE_H

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace StrataCore {

// What tells a file apart from one that replaced or rewrote it.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec modified{};
  timespec changed{};
  static FileIdentity of(const struct stat& st);
  bool operator==(const FileIdentity& other) const;
};

// An entry as the central directory lists it.
struct ZipDirectoryEntry {
  uint16_t flags = 0;
  uint16_t method = 0;
  uint32_t crc = 0;
  uint64_t compressedSize = 0;
  uint64_t size = 0;
  uint64_t localHeader = 0;
};

// An entry ready to be read: where its data starts and how it is stored.
struct ZipEntry {
  uint16_t method = 0;  // 0 stored, 8 deflated
  uint32_t crc = 0;
  uint64_t compressedSize = 0;
  uint64_t size = 0;
  uint64_t dataOffset = 0;
};

using ZipDirectory = std::unordered_map<std::string, ZipDirectoryEntry>;

class ZipArchive {
 public:
  // Opens `path` and reads its central directory into `directory`. Null with
  // `error` set for a file that is no readable zip archive.
  static std::shared_ptr<ZipArchive> open(const std::string& path,
                                          ZipDirectory* directory,
                                          std::string* error);
  ~ZipArchive();
  ZipArchive(const ZipArchive&) = delete;
  ZipArchive& operator=(const ZipArchive&) = delete;

  // Checks the entry's local header and where its data lies. False with
  // `why` set for an entry that cannot be served.
  bool resolve(const ZipDirectoryEntry& listed, ZipEntry* entry, std::string* why) const;

  // Reads the entry's bytes into `out`: stored ones straight from the file,
  // deflated ones inflated as they are read. Fails (with `why`) when the
  // entry claims or yields more than `limit` or than it declares, when its
  // data is damaged or cut short.
  bool read(const ZipEntry& entry, std::string* out, uint64_t limit, std::string* why) const;

  // True while the file at the path is still the one opened, unchanged;
  // with `pathToo` false only the open file is looked at (cheaper: no path
  // lookup), which finds rewrites in place but not a replacement.
  bool unchanged(bool pathToo) const;

  const std::string& path() const { return path_; }
  const FileIdentity& identity() const { return identity_; }

  // Set once the package no longer holds this archive: a read from it that
  // ends after that is looked up again.
  void retire() { retired_.store(true, std::memory_order_release); }
  bool retired() const { return retired_.load(std::memory_order_acquire); }
  // True for the first caller only: one re-index per change noticed.
  bool firstToNoticeChange() const { return !changeNoticed_.exchange(true); }

 private:
  ZipArchive(int fd, std::string path, const FileIdentity& identity, uint64_t directoryOffset)
      : fd_(fd), path_(std::move(path)), identity_(identity), directoryOffset_(directoryOffset) {}
  bool readStored(const ZipEntry& entry, std::string* out, std::string* why) const;
  bool readDeflated(const ZipEntry& entry, std::string* out, std::string* why) const;

  const int fd_;
  const std::string path_;
  const FileIdentity identity_;
  // Entry data lies before the central directory.
  const uint64_t directoryOffset_;
  std::atomic<bool> retired_{false};
  mutable std::atomic<bool> changeNoticed_{false};
};

}  // namespace StrataCore

#endif  // STRATA_ZIP_ARCHIVE_H
