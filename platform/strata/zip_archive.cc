#include "strata/zip_archive.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace StrataCore {
namespace {

constexpr uint32_t kLocalHeaderSignature = 0x04034b50;
constexpr uint32_t kDirectorySignature = 0x02014b50;
constexpr uint32_t kEndSignature = 0x06054b50;
constexpr uint32_t kZip64EndSignature = 0x06064b50;
constexpr uint32_t kZip64LocatorSignature = 0x07064b50;
constexpr size_t kEndSize = 22;
constexpr size_t kZip64EndSize = 56;
constexpr size_t kZip64LocatorSize = 20;
constexpr size_t kDirectoryRecordSize = 46;
constexpr size_t kLocalHeaderSize = 30;
constexpr size_t kMaxCommentSize = 0xFFFF;
// A directory this large would list millions of entries: no package does.
constexpr uint64_t kMaxDirectoryBytes = 64u << 20;
constexpr size_t kPiece = 64 * 1024;

uint16_t u16(const unsigned char* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t u32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
uint64_t u64(const unsigned char* p) {
  return static_cast<uint64_t>(u32(p)) | (static_cast<uint64_t>(u32(p + 4)) << 32);
}

// Reads exactly `size` bytes at `offset`; false on an error or an early end.
bool readAt(int fd, void* into, size_t size, uint64_t offset) {
  auto* at = static_cast<unsigned char*>(into);
  while (size > 0) {
    ssize_t n = pread(fd, at, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    at += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

bool sameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Where the central directory lies, from the end records.
struct DirectoryPlace {
  uint64_t entries = 0;
  uint64_t size = 0;
  uint64_t offset = 0;
  uint64_t end = 0;  // the first byte after the space the directory may take
};

bool findDirectory(int fd, uint64_t fileSize, DirectoryPlace* place, std::string* error) {
  if (fileSize < kEndSize) {
    *error = "too short for a zip archive";
    return false;
  }
  const size_t tailSize =
      static_cast<size_t>(std::min<uint64_t>(fileSize, kEndSize + kMaxCommentSize));
  std::vector<unsigned char> tail(tailSize);
  const uint64_t tailStart = fileSize - tailSize;
  if (!readAt(fd, tail.data(), tailSize, tailStart)) {
    *error = "cannot read the end of the archive";
    return false;
  }
  // The last end record whose comment reaches no further than the file.
  size_t at = tailSize - kEndSize + 1;
  bool found = false;
  while (at-- > 0) {
    if (u32(&tail[at]) == kEndSignature && u16(&tail[at + 20]) <= tailSize - at - kEndSize) {
      found = true;
      break;
    }
  }
  if (!found) {
    *error = "no end of central directory record";
    return false;
  }
  const unsigned char* end = &tail[at];
  const uint64_t endOffset = tailStart + at;
  uint32_t disk = u16(end + 4), directoryDisk = u16(end + 6);
  place->entries = u16(end + 10);
  place->size = u32(end + 12);
  place->offset = u32(end + 16);
  place->end = endOffset;
  const bool zip64 =
      place->entries == 0xFFFF || place->size == 0xFFFFFFFFu || place->offset == 0xFFFFFFFFu;
  if (zip64) {
    unsigned char locator[kZip64LocatorSize];
    if (endOffset < kZip64LocatorSize ||
        !readAt(fd, locator, sizeof(locator), endOffset - kZip64LocatorSize) ||
        u32(locator) != kZip64LocatorSignature) {
      *error = "no ZIP64 end record locator";
      return false;
    }
    const uint64_t zip64End = u64(locator + 8);
    unsigned char record[kZip64EndSize];
    if (zip64End > endOffset - kZip64LocatorSize ||
        endOffset - kZip64LocatorSize - zip64End < kZip64EndSize ||
        !readAt(fd, record, sizeof(record), zip64End) || u32(record) != kZip64EndSignature) {
      *error = "no ZIP64 end record";
      return false;
    }
    disk = u32(record + 16);
    directoryDisk = u32(record + 20);
    place->entries = u64(record + 32);
    place->size = u64(record + 40);
    place->offset = u64(record + 48);
    place->end = zip64End;
  }
  if (disk != 0 || directoryDisk != 0) {
    *error = "archives spanning several disks are not read";
    return false;
  }
  if (place->offset > place->end || place->size > place->end - place->offset) {
    *error = "the central directory lies outside the archive";
    return false;
  }
  if (place->size > kMaxDirectoryBytes || place->entries > place->size / kDirectoryRecordSize) {
    *error = "the central directory is larger than its entries allow";
    return false;
  }
  return true;
}

// Sizes and offsets too large for their 32-bit fields come from the entry's
// ZIP64 extra field, in this order, each only when its field is saturated.
bool readZip64Extra(const unsigned char* extra, size_t size, ZipDirectoryEntry* entry) {
  const bool wantSize = entry->size == 0xFFFFFFFFu;
  const bool wantCompressed = entry->compressedSize == 0xFFFFFFFFu;
  const bool wantOffset = entry->localHeader == 0xFFFFFFFFu;
  if (!wantSize && !wantCompressed && !wantOffset)
    return true;
  for (size_t at = 0; at + 4 <= size;) {
    const uint16_t id = u16(extra + at), length = u16(extra + at + 2);
    if (length > size - at - 4)
      return false;
    if (id == 0x0001) {
      const unsigned char* field = extra + at + 4;
      size_t left = length;
      for (auto [want, value] :
           {std::pair{wantSize, &entry->size}, std::pair{wantCompressed, &entry->compressedSize},
            std::pair{wantOffset, &entry->localHeader}}) {
        if (!want)
          continue;
        if (left < 8)
          return false;
        *value = u64(field);
        field += 8;
        left -= 8;
      }
      return true;
    }
    at += 4 + length;
  }
  return false;
}

}  // namespace

FileIdentity FileIdentity::of(const struct stat& st) {
  FileIdentity identity;
  identity.device = st.st_dev;
  identity.inode = st.st_ino;
  identity.size = st.st_size;
  identity.modified = st.st_mtim;
  identity.changed = st.st_ctim;
  return identity;
}

bool FileIdentity::operator==(const FileIdentity& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         sameTime(modified, other.modified) && sameTime(changed, other.changed);
}

std::shared_ptr<ZipArchive> ZipArchive::open(const std::string& path,
                                             ZipDirectory* directory,
                                             std::string* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = std::string("cannot open: ") + std::strerror(errno);
    return nullptr;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    *error = "not a regular file";
    return nullptr;
  }
  DirectoryPlace place;
  if (!findDirectory(fd, static_cast<uint64_t>(st.st_size), &place, error)) {
    close(fd);
    return nullptr;
  }
  // From here the descriptor is the archive's and closes with it.
  std::shared_ptr<ZipArchive> archive(new ZipArchive(fd, path, FileIdentity::of(st), place.offset));
  std::vector<unsigned char> records(static_cast<size_t>(place.size));
  if (!readAt(fd, records.data(), records.size(), place.offset)) {
    *error = "cannot read the central directory";
    return nullptr;
  }
  directory->clear();
  directory->reserve(static_cast<size_t>(place.entries));
  size_t at = 0;
  for (uint64_t i = 0; i < place.entries; ++i) {
    if (records.size() - at < kDirectoryRecordSize || u32(&records[at]) != kDirectorySignature) {
      *error = "the central directory lists fewer entries than it declares";
      return nullptr;
    }
    const unsigned char* record = &records[at];
    const size_t nameSize = u16(record + 28), extraSize = u16(record + 30),
                 commentSize = u16(record + 32);
    if (records.size() - at - kDirectoryRecordSize < nameSize + extraSize + commentSize) {
      *error = "a central directory entry runs past the directory";
      return nullptr;
    }
    ZipDirectoryEntry entry;
    entry.flags = u16(record + 8);
    entry.method = u16(record + 10);
    entry.crc = u32(record + 16);
    entry.compressedSize = u32(record + 20);
    entry.size = u32(record + 24);
    entry.localHeader = u32(record + 42);
    const unsigned char* name = record + kDirectoryRecordSize;
    if (!readZip64Extra(name + nameSize, extraSize, &entry)) {
      *error = "an entry's ZIP64 sizes are missing or cut short";
      return nullptr;
    }
    // A name listed twice is served from its first entry.
    directory->emplace(std::string(reinterpret_cast<const char*>(name), nameSize), entry);
    at += kDirectoryRecordSize + nameSize + extraSize + commentSize;
  }
  return archive;
}

ZipArchive::~ZipArchive() {
  close(fd_);
}

bool ZipArchive::resolve(const ZipDirectoryEntry& listed, ZipEntry* entry, std::string* why) const {
  if (listed.flags & 0x0001) {
    *why = "the entry is encrypted";
    return false;
  }
  if (listed.method != 0 && listed.method != 8) {
    *why = "the entry is compressed with method " + std::to_string(listed.method) +
           "; only stored and deflated entries are served";
    return false;
  }
  if (listed.method == 0 && listed.compressedSize != listed.size) {
    *why = "a stored entry whose two sizes differ";
    return false;
  }
  unsigned char header[kLocalHeaderSize];
  if (directoryOffset_ < kLocalHeaderSize ||
      listed.localHeader > directoryOffset_ - kLocalHeaderSize ||
      !readAt(fd_, header, sizeof(header), listed.localHeader) ||
      u32(header) != kLocalHeaderSignature) {
    *why = "no local header where the directory points";
    return false;
  }
  const uint64_t data = listed.localHeader + kLocalHeaderSize + u16(header + 26) + u16(header + 28);
  if (data > directoryOffset_ || listed.compressedSize > directoryOffset_ - data) {
    *why = "the entry's data runs past the entries' part of the archive";
    return false;
  }
  entry->method = listed.method;
  entry->crc = listed.crc;
  entry->compressedSize = listed.compressedSize;
  entry->size = listed.size;
  entry->dataOffset = data;
  return true;
}

bool ZipArchive::read(const ZipEntry& entry,
                      std::string* out,
                      uint64_t limit,
                      std::string* why) const {
  if (entry.size > limit) {
    *why = "the entry claims " + std::to_string(entry.size) + " bytes, more than the limit of " +
           std::to_string(limit);
    return false;
  }
  return entry.method == 0 ? readStored(entry, out, why) : readDeflated(entry, out, why);
}

bool ZipArchive::readStored(const ZipEntry& entry, std::string* out, std::string* why) const {
  // Straight into the response, as a file of a folder package is: a stored
  // entry is served as unchecked as that file.
  out->resize(static_cast<size_t>(entry.size));
  if (!readAt(fd_, out->data(), out->size(), entry.dataOffset)) {
    *why = "the archive ends before the entry's data";
    return false;
  }
  return true;
}

bool ZipArchive::readDeflated(const ZipEntry& entry, std::string* out, std::string* why) const {
  z_stream stream{};
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) {
    *why = "cannot start inflating";
    return false;
  }
  struct End {
    z_stream* stream;
    ~End() { inflateEnd(stream); }
  } end{&stream};
  unsigned char input[kPiece];
  unsigned char spare;  // room to find out whether anything follows the declared size
  uint64_t at = entry.dataOffset, left = entry.compressedSize, produced = 0;
  // Grows with what is produced: a claimed size allocates nothing up front.
  out->clear();
  for (;;) {
    if (stream.avail_in == 0 && left > 0) {
      const size_t want = static_cast<size_t>(std::min<uint64_t>(sizeof(input), left));
      if (!readAt(fd_, input, want, at)) {
        *why = "the archive ends before the entry's data";
        return false;
      }
      at += want;
      left -= want;
      stream.next_in = input;
      stream.avail_in = static_cast<uInt>(want);
    }
    const bool full = produced == entry.size;
    if (!full && produced == out->size())
      out->resize(static_cast<size_t>(
          std::min<uint64_t>(entry.size, std::max<uint64_t>(kPiece, out->size() * 2))));
    const size_t room = full ? 1 : std::min<size_t>(out->size() - produced, 1u << 30);
    stream.next_out = full ? &spare : reinterpret_cast<unsigned char*>(out->data()) + produced;
    stream.avail_out = static_cast<uInt>(room);
    const int result = inflate(&stream, Z_NO_FLUSH);
    if (full && stream.avail_out == 0) {
      *why = "the entry inflates to more than the " + std::to_string(entry.size) +
             " bytes it declares";
      return false;
    }
    if (!full)
      produced += room - stream.avail_out;
    if (result == Z_STREAM_END)
      break;
    if (result == Z_BUF_ERROR && stream.avail_in == 0 && left > 0)
      continue;  // wants more input
    if (result != Z_OK) {
      *why = result == Z_BUF_ERROR ? std::string("the entry's compressed data ends early")
                                   : std::string("damaged compressed data: ") +
                                         (stream.msg ? stream.msg : std::to_string(result));
      return false;
    }
  }
  if (produced != entry.size) {
    *why = "the entry inflates to " + std::to_string(produced) + " bytes, not the " +
           std::to_string(entry.size) + " it declares";
    return false;
  }
  // Damaged deflate data can still inflate to the right length.
  if (crc32_z(0, reinterpret_cast<const Bytef*>(out->data()), out->size()) != entry.crc) {
    *why = "the entry's checksum does not match its bytes";
    return false;
  }
  return true;
}

bool ZipArchive::unchanged(bool pathToo) const {
  struct stat st;
  if (fstat(fd_, &st) != 0 || !(FileIdentity::of(st) == identity_))
    return false;
  return !pathToo || (stat(path_.c_str(), &st) == 0 && FileIdentity::of(st) == identity_);
}

}  // namespace StrataCore
