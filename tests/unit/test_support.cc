#include "test_support.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "hilog/log.h"

extern char** environ;

namespace velora_test {
namespace {

constexpr char kChildVariable[] = "VELORA_TEST_CHILD";

std::map<std::string, ChildMain>& children() {
  static std::map<std::string, ChildMain> registry;
  return registry;
}

}  // namespace

TempDir::TempDir() {
  std::string base = std::filesystem::temp_directory_path().string() + "/velora-test-XXXXXX";
  std::vector<char> buffer(base.begin(), base.end());
  buffer.push_back('\0');
  if (!mkdtemp(buffer.data()))
    throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeFile(const std::string& path, const std::string& text) {
  std::string temp = path + ".tmp";
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    out << text;
  }
  std::filesystem::rename(temp, path);
}

namespace {
std::mutex g_hilogMutex;
std::vector<std::string> g_hilogLines;

void recordHilog(const LogType,
                 const LogLevel,
                 const unsigned int,
                 const char* tag,
                 const char* msg) {
  std::lock_guard<std::mutex> lock(g_hilogMutex);
  g_hilogLines.push_back(std::string(tag) + ": " + msg);
}
}  // namespace

HilogCapture::HilogCapture() {
  std::lock_guard<std::mutex> lock(g_hilogMutex);
  g_hilogLines.clear();
  OH_LOG_SetCallback(recordHilog);
}

HilogCapture::~HilogCapture() {
  OH_LOG_SetCallback(nullptr);
}

std::vector<std::string> HilogCapture::lines() const {
  std::lock_guard<std::mutex> lock(g_hilogMutex);
  return g_hilogLines;
}

bool HilogCapture::contains(const std::string& part) const {
  for (const auto& line : lines()) {
    if (line.find(part) != std::string::npos)
      return true;
  }
  return false;
}

bool registerChild(const char* name, ChildMain main) {
  children()[name] = main;
  return true;
}

int runChild(const std::string& name, const std::map<std::string, std::string>& env) {
  std::map<std::string, std::string> merged;
  for (char** entry = environ; *entry; ++entry) {
    std::string text(*entry);
    size_t eq = text.find('=');
    if (eq != std::string::npos)
      merged[text.substr(0, eq)] = text.substr(eq + 1);
  }
  for (const auto& [key, value] : env)
    merged[key] = value;
  merged[kChildVariable] = name;
  std::vector<std::string> envText;
  for (const auto& [key, value] : merged)
    envText.push_back(key + "=" + value);
  std::vector<char*> envp;
  for (auto& text : envText)
    envp.push_back(text.data());
  envp.push_back(nullptr);

  std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  char* argv[] = {self.data(), nullptr};
  // fork and exec rather than posix_spawn: ThreadSanitizer handles a fork of
  // a process with many threads, not the vfork-like clone posix_spawn uses.
  // Between the two the child only calls execve and _exit.
  pid_t pid = fork();
  if (pid < 0)
    return -1;
  if (pid == 0) {
    execve(self.c_str(), argv, envp.data());
    _exit(127);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool runChildFromEnvironment(int* status) {
  const char* name = std::getenv(kChildVariable);
  if (!name)
    return false;
  auto it = children().find(name);
  if (it == children().end()) {
    std::fprintf(stderr, "no child named %s\n", name);
    *status = 99;
  } else {
    *status = it->second();
  }
  return true;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition())
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return condition();
}

}  // namespace velora_test
