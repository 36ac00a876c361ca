// Environment and files shared by the host libraries.
#ifndef VELORA_PLATFORM_COMMON_HOST_ENV_H
#define VELORA_PLATFORM_COMMON_HOST_ENV_H

#include <cstdio>
#include <mutex>
#include <string>

namespace host {

// The value of environment variable `name`, or `fallback` when unset or empty.
std::string envOr(const char* name, const std::string& fallback);

// $VELORA_DATA_DIR, default ~/.local/share/velora. Not created here.
std::string dataDir();

// Creates `dir` and its parents; true when it exists afterwards.
bool makeDirs(const std::string& dir);

// The folder part of `path` ("." when it has none).
std::string dirName(const std::string& path);

// A line-oriented output: a file opened for appending, or stderr for "-".
// Each write is one whole line, flushed, so readers in other processes see
// complete lines.
class LineSink {
 public:
  // `target` is a path, "-" for stderr, or "" for nowhere.
  explicit LineSink(const std::string& target);
  ~LineSink();
  LineSink(const LineSink&) = delete;
  LineSink& operator=(const LineSink&) = delete;

  bool enabled() const { return file_ != nullptr; }
  void writeLine(const std::string& line);

 private:
  std::mutex mutex_;
  FILE* file_ = nullptr;
  bool owned_ = false;
};

}  // namespace host

#endif  // VELORA_PLATFORM_COMMON_HOST_ENV_H
