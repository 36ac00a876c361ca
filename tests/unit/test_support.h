// Shared helpers of the C++ suites: temporary folders, child processes that
// share the parent's data folder, and polling for asynchronous results.
#ifndef VELORA_TESTS_UNIT_TEST_SUPPORT_H
#define VELORA_TESTS_UNIT_TEST_SUPPORT_H

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace velora_test {

// A fresh folder under $TMPDIR, removed with its contents on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Writes `text` to `path` atomically (write then rename), as editors do.
void writeFile(const std::string& path, const std::string& text);

// A function run in a fresh process of this binary: its return value is the
// child's exit status. Register with VELORA_CHILD(name) { ... }.
using ChildMain = int (*)();
bool registerChild(const char* name, ChildMain main);
// Runs child `name` with the parent's environment plus `env`; returns its
// exit status (or -1 when it did not exit normally).
int runChild(const std::string& name, const std::map<std::string, std::string>& env = {});
// Called by main: runs the child named in the environment, if any.
bool runChildFromEnvironment(int* status);

// Records the hilog lines written while it is alive.
class HilogCapture {
 public:
  HilogCapture();
  ~HilogCapture();
  std::vector<std::string> lines() const;  // "tag: message"
  bool contains(const std::string& part) const;
};

// Polls `condition` every 5 ms until it holds or `timeout` passes.
bool waitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds timeout = std::chrono::seconds(5));

}  // namespace velora_test

#define VELORA_CHILD(name)                                       \
  static int velora_child_##name();                              \
  static const bool velora_child_registered_##name =             \
      ::velora_test::registerChild(#name, &velora_child_##name); \
  static int velora_child_##name()

#endif  // VELORA_TESTS_UNIT_TEST_SUPPORT_H
