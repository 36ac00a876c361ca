#include "common/host_env.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace host {

std::string envOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return (value && *value) ? std::string(value) : fallback;
}

std::string dataDir() {
  std::string dir = envOr("VELORA_DATA_DIR", "");
  if (!dir.empty()) {
    return dir;
  }
  return envOr("HOME", "/tmp") + "/.local/share/velora";
}

bool makeDirs(const std::string& dir) {
  if (dir.empty()) {
    return false;
  }
  for (size_t pos = 1; pos <= dir.size(); ++pos) {
    if (pos == dir.size() || dir[pos] == '/') {
      std::string prefix = dir.substr(0, pos);
      if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
        return false;
      }
    }
  }
  struct stat st;
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string dirName(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

LineSink::LineSink(const std::string& target) {
  if (target.empty()) {
    return;
  }
  if (target == "-") {
    file_ = stderr;
    return;
  }
  makeDirs(dirName(target));
  file_ = std::fopen(target.c_str(), "a");
  if (!file_) {
    std::fprintf(stderr, "velora: cannot open log file %s: %s; writing to stderr\n", target.c_str(),
                 std::strerror(errno));
    file_ = stderr;
    return;
  }
  owned_ = true;
}

LineSink::~LineSink() {
  if (owned_) {
    std::fclose(file_);
  }
}

void LineSink::writeLine(const std::string& line) {
  if (!file_) {
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  std::fwrite(line.data(), 1, line.size(), file_);
  std::fputc('\n', file_);
  std::fflush(file_);
}

}  // namespace host
