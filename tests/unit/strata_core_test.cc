// Offline packages: what is served, what is refused, and swapping packages
// while lookups run.
#include "strata/strata_core.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <zip.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "strata/host_config.h"
#include "test_support.h"

namespace fs = std::filesystem;
using StrataCore::Access;
using StrataCore::PackageManager;

namespace {

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// A folder package with one resource per (url, file, body).
fs::path makePackage(const fs::path& root,
                     const std::string& id,
                     const std::string& version,
                     const std::vector<std::tuple<std::string, std::string, std::string>>& files,
                     nlohmann::json extra = nlohmann::json::object()) {
  fs::path dir = root / (id + "-" + version);
  nlohmann::json manifest = {
      {"id", id}, {"version", version}, {"resources", nlohmann::json::array()}};
  for (const auto& [url, file, body] : files) {
    write(dir / file, body);
    nlohmann::json resource = {
        {"url", url}, {"file", file}, {"headers", {{"Content-Type", "text/plain"}}}};
    resource.update(extra);
    manifest["resources"].push_back(resource);
  }
  write(dir / "manifest.json", manifest.dump());
  return dir;
}

fs::path zipFolder(const fs::path& folder, const fs::path& out) {
  int error = 0;
  zip_t* archive = zip_open(out.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (!entry.is_regular_file())
      continue;
    std::string name = fs::relative(entry.path(), folder).generic_string();
    zip_file_add(archive, name.c_str(), zip_source_file(archive, entry.path().c_str(), 0, -1), 0);
  }
  zip_close(archive);
  return out;
}

std::unique_ptr<StrataCore::ResourceResponse> lookup(const std::string& url) {
  std::promise<std::unique_ptr<StrataCore::ResourceResponse>> answer;
  auto future = answer.get_future();
  Access::getResource(StrataCore::ResourceRequest(url, {}),
                      [&](std::unique_ptr<StrataCore::ResourceResponse> response) {
                        answer.set_value(std::move(response));
                      });
  return future.get();
}

class StrataCoreTest : public ::testing::Test {
 protected:
  void SetUp() override { StrataCore::usePackagesDir(installed_.path()); }
  velora_test::TempDir installed_;
  velora_test::TempDir sources_;
};

}  // namespace

std::atomic<int> g_answeredAtShutdown{0};  // trivially destroyed: usable at exit

VELORA_CHILD(StrataShutdownAnswersPending) {
  StrataCore::pauseLookups();
  std::atomic<int>* answered = &g_answeredAtShutdown;
  for (int i = 0; i < 10; ++i) {
    Access::getResource(StrataCore::ResourceRequest("https://a.test/x", {}),
                        [answered](std::unique_ptr<StrataCore::ResourceResponse> response) {
                          if (response->error.code() == StrataCore::Error::kShuttingDown) {
                            std::printf("answered %d\n", ++*answered);
                            std::fflush(stdout);
                          }
                        });
  }
  return 0;
}

TEST_F(StrataCoreTest, FolderAndZipPackagesServeTheirFilesWithTheManifestHeaders) {
  std::string big(3 << 20, 'b');
  fs::path folder = makePackage(sources_.path(), "app", "1",
                                {{"https://a.test/index.html", "index.html", "<p>hi</p>"},
                                 {"https://a.test/big.bin", "sub/big.bin", big}});
  fs::path zipped =
      zipFolder(makePackage(sources_.path(), "lib", "2",
                            {{"https://cdn.test/lib.js", "lib.js", "js()"}}, {{"anyQuery", true}}),
                fs::path(sources_.path()) / "lib.zip");
  std::string error;
  ASSERT_TRUE(PackageManager::install(folder.string(), &error)) << error;
  ASSERT_TRUE(PackageManager::install(zipped.string(), &error)) << error;
  EXPECT_EQ(PackageManager::list().size(), 2u);

  auto page = lookup("https://a.test/index.html#top");
  EXPECT_FALSE(page->error);
  EXPECT_EQ(page->body, "<p>hi</p>");
  EXPECT_EQ(page->headers.at("Content-Type"), "text/plain");
  EXPECT_EQ(lookup("https://a.test/big.bin")->body, big);
  EXPECT_EQ(lookup("https://cdn.test/lib.js?v=123")->body, "js()");  // any query
  EXPECT_EQ(lookup("https://a.test/index.html?v=1")->error.code(), StrataCore::Error::kNotFound);
  EXPECT_EQ(lookup("https://a.test/missing")->error.code(), StrataCore::Error::kNotFound);

  ASSERT_TRUE(PackageManager::remove("lib"));
  EXPECT_TRUE(lookup("https://cdn.test/lib.js")->error);
  EXPECT_FALSE(PackageManager::remove("lib"));
}

// Process CPU time, user and system, in ms.
static double cpuMs() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto ms = [](const timeval& t) { return t.tv_sec * 1000.0 + t.tv_usec / 1000.0; };
  return ms(usage.ru_utime) + ms(usage.ru_stime);
}

// Idle workers watch the queue briefly after work, then sleep: a burst of
// hits is served whole, and a library with nothing to do costs no CPU.
TEST_F(StrataCoreTest, WorkersSleepWhenThereIsNothingToLookUp) {
  fs::path folder =
      makePackage(sources_.path(), "app", "1", {{"https://a.test/a.js", "a.js", "a()"}});
  std::string error;
  ASSERT_TRUE(PackageManager::install(folder.string(), &error)) << error;
  std::atomic<int> served{0};
  std::promise<void> all;
  constexpr int kBurst = 64;
  for (int i = 0; i < kBurst; ++i) {
    Access::getResource(StrataCore::ResourceRequest("https://a.test/a.js", {}),
                        [&](std::unique_ptr<StrataCore::ResourceResponse> response) {
                          if (!response->error && response->body == "a()" && ++served == kBurst)
                            all.set_value();
                        });
  }
  all.get_future().get();

  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the watch is over
  double before = cpuMs();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_LT(cpuMs() - before, 100) << "a worker kept running with nothing to do";
  EXPECT_EQ(lookup("https://a.test/a.js")->body, "a()");  // and a sleeper still wakes
}

TEST_F(StrataCoreTest, BadPackagesAreSkippedAndNothingOutsideAPackageIsServed) {
  velora_test::HilogCapture hilog;
  write(installed_.path() + "/nomanifest/a.txt", "x");
  write(installed_.path() + "/badjson/manifest.json", "{not json");
  write(installed_.path() + "/badtypes/manifest.json",
        R"({"id": "t", "version": 2, "resources": [{"url": 5, "file": "a", "anyQuery": "yes"}]})");
  write(installed_.path() + "/broken.zip", "not a zip");
  write(sources_.path() + "/secret.txt", "secret");
  fs::path escaping =
      makePackage(installed_.path(), "escape", "1", {{"https://a.test/ok", "ok.txt", "ok"}});
  nlohmann::json manifest = nlohmann::json::parse(std::ifstream(escaping / "manifest.json"));
  manifest["resources"].push_back({{"url", "https://a.test/up"}, {"file", "../../secret.txt"}});
  manifest["resources"].push_back(
      {{"url", "https://a.test/abs"}, {"file", sources_.path() + "/secret.txt"}});
  manifest["resources"].push_back({{"url", "https://a.test/gone"}, {"file", "gone.txt"}});
  fs::create_symlink(sources_.path() + "/secret.txt", escaping / "link.txt");
  manifest["resources"].push_back({{"url", "https://a.test/link"}, {"file", "link.txt"}});
  write(escaping / "manifest.json", manifest.dump());
  PackageManager::rescan();

  EXPECT_EQ(lookup("https://a.test/ok")->body, "ok");
  for (const char* url :
       {"https://a.test/up", "https://a.test/abs", "https://a.test/gone", "https://a.test/link"}) {
    auto response = lookup(url);
    EXPECT_TRUE(response->error) << url;
    EXPECT_TRUE(response->body.empty()) << url;
  }
  EXPECT_EQ(PackageManager::list().size(), 1u);
  EXPECT_TRUE(hilog.contains("skipping package " + installed_.path() + "/badjson"));
  EXPECT_TRUE(hilog.contains("skipping package " + installed_.path() + "/broken.zip"));
  EXPECT_TRUE(hilog.contains("skipping package " + installed_.path() +
                             "/badtypes: manifest.json is malformed"));
  EXPECT_TRUE(hilog.contains("outside the package"));
  std::string error;
  EXPECT_FALSE(PackageManager::install(installed_.path() + "/badjson", &error));
  EXPECT_NE(error.find("not JSON"), std::string::npos);
}

TEST_F(StrataCoreTest, TheNewerVersionWinsADuplicateUrl) {
  velora_test::HilogCapture hilog;
  std::string error;
  ASSERT_TRUE(PackageManager::install(
      makePackage(sources_.path(), "new", "1.10.0", {{"https://a.test/x", "x", "new"}}).string(),
      &error));
  ASSERT_TRUE(PackageManager::install(
      makePackage(sources_.path(), "old", "1.9.3", {{"https://a.test/x", "x", "old"}}).string(),
      &error));
  EXPECT_EQ(lookup("https://a.test/x")->body, "new");
  EXPECT_EQ(lookup("https://a.test/x")->packageId, "new");
  EXPECT_TRUE(hilog.contains("serving it from the newer one, new"));
  // Parts longer than any integer still compare.
  ASSERT_TRUE(
      PackageManager::install(makePackage(sources_.path(), "huge", "1.0099999999999999999999999",
                                          {{"https://a.test/x", "x", "huge"}})
                                  .string(),
                              &error));
  EXPECT_EQ(lookup("https://a.test/x")->body, "huge");
}

TEST_F(StrataCoreTest, InstallAndRemoveWhileLookupsRunNeverServeAHalfPackage) {
  std::string error;
  ASSERT_TRUE(PackageManager::install(
      makePackage(sources_.path(), "stable", "1", {{"https://a.test/s", "s", "stable"}}).string(),
      &error));
  fs::path flipping =
      makePackage(sources_.path(), "flip", "1",
                  {{"https://a.test/f", "f", "flip"}, {"https://a.test/g", "g", "gee"}});
  std::atomic<int> wrong{0}, answered{0}, swaps{0};
  std::atomic<bool> running{true};
  std::thread changer([&] {
    while (running) {
      PackageManager::install(flipping.string(), nullptr);
      PackageManager::remove("flip");
      ++swaps;
    }
  });
  for (int i = 0; i < 500; ++i) {
    if (i % 50 == 0) {
      // Spread the lookups over several swaps.
      int seen = swaps;
      velora_test::waitFor([&] { return swaps > seen; });
    }
    const char* url =
        i % 3 == 0 ? "https://a.test/s" : (i % 3 == 1 ? "https://a.test/f" : "https://a.test/g");
    Access::getResource(StrataCore::ResourceRequest(url, {}),
                        [&, i](std::unique_ptr<StrataCore::ResourceResponse> response) {
                          std::string expected =
                              i % 3 == 0 ? "stable" : (i % 3 == 1 ? "flip" : "gee");
                          bool ok = response->error ? i % 3 != 0 : response->body == expected;
                          if (!ok)
                            ++wrong;
                          ++answered;
                        });
  }
  EXPECT_TRUE(velora_test::waitFor([&] { return answered == 500; }, std::chrono::seconds(60)));
  running = false;
  changer.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_GE(swaps.load(), 10);
}

TEST_F(StrataCoreTest, PendingLookupsAreAnsweredOnceWhenTheLibraryShutsDown) {
  // The child prints a line per completion; its exit is the shutdown.
  std::string out = sources_.path() + "/out.txt";
  std::string command = "VELORA_TEST_CHILD=StrataShutdownAnswersPending /proc/" +
                        std::to_string(getpid()) + "/exe > " + out;
  ASSERT_EQ(std::system(command.c_str()), 0);
  std::ifstream lines(out);
  int count = 0;
  for (std::string line; std::getline(lines, line);)
    ++count;
  EXPECT_EQ(count, 10);
}

// ---- Packages from strangers ----

TEST_F(StrataCoreTest, IdsAreNamesAndNothingOutsideThePackagesFolderIsTouched) {
  velora_test::TempDir victim;
  write(fs::path(victim.path()) / "precious.txt", "keep me");
  const std::string escape = "/../" + fs::path(victim.path()).filename().string();
  for (const std::string& id : {escape, ".." + escape.substr(3), std::string(".."),
                                std::string("."), std::string(".hidden"), std::string("a/b")}) {
    fs::path source = makePackage(sources_.path(), "x", "1", {{"https://a.test/p", "p.txt", "p"}});
    nlohmann::json manifest = nlohmann::json::parse(std::ifstream(source / "manifest.json"));
    manifest["id"] = id;
    write(source / "manifest.json", manifest.dump());
    std::string error;
    EXPECT_FALSE(PackageManager::install(source.string(), &error)) << id;
    EXPECT_NE(error.find("plain name"), std::string::npos) << error;
  }
  for (const std::string& id : {std::string(".."), std::string(""), std::string("../x"),
                                std::string("."), std::string("/"), escape.substr(1)}) {
    EXPECT_FALSE(PackageManager::remove(id)) << id;
  }
  EXPECT_TRUE(fs::exists(fs::path(victim.path()) / "precious.txt"));
  EXPECT_TRUE(fs::is_directory(installed_.path()));
  EXPECT_TRUE(fs::is_empty(installed_.path()));
}

TEST_F(StrataCoreTest, PackagesHoldingLinksAreRefused) {
  velora_test::TempDir outside;
  write(fs::path(outside.path()) / "secret.txt", "secret");
  fs::path linked =
      makePackage(sources_.path(), "linked", "1", {{"https://a.test/s", "s.txt", ""}});
  fs::remove(linked / "s.txt");
  fs::create_symlink(fs::path(outside.path()) / "secret.txt", linked / "s.txt");
  fs::path looping =
      makePackage(sources_.path(), "looping", "1", {{"https://a.test/l", "l.txt", "l"}});
  fs::create_directory_symlink(".", looping / "loop");
  for (const fs::path& source : {linked, looping}) {
    std::string error;
    EXPECT_FALSE(PackageManager::install(source.string(), &error)) << source;
    EXPECT_NE(error.find("symbolic link"), std::string::npos) << error;
  }
  EXPECT_TRUE(PackageManager::list().empty());
  EXPECT_EQ(lookup("https://a.test/s")->error.code(), StrataCore::Error::kNotFound);
}

namespace {

void putLittleEndian(std::string& bytes, size_t at, uint64_t value, int width) {
  for (int i = 0; i < width; ++i)
    bytes[at + i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

uint16_t readU16(const std::string& bytes, size_t at) {
  return static_cast<uint16_t>(static_cast<uint8_t>(bytes[at]) |
                               (static_cast<uint8_t>(bytes[at + 1]) << 8));
}

// Makes the central directory claim `size` uncompressed bytes for `name`;
// sizes past 32 bits go into a ZIP64 extra field, as large archives do.
void claimSize(const fs::path& zip, const std::string& name, uint64_t size) {
  std::string bytes;
  {
    std::ifstream in(zip, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  size_t entry = bytes.find(std::string("PK\x01\x02", 4));
  while (entry != std::string::npos && bytes.compare(entry + 46, readU16(bytes, entry + 28), name))
    entry = bytes.find(std::string("PK\x01\x02", 4), entry + 4);
  ASSERT_NE(entry, std::string::npos);
  if (size < 0xFFFFFFFFu) {
    putLittleEndian(bytes, entry + 24, size, 4);
  } else {
    putLittleEndian(bytes, entry + 24, 0xFFFFFFFFu, 4);
    std::string extra(12, '\0');
    putLittleEndian(extra, 0, 0x0001, 2);
    putLittleEndian(extra, 2, 8, 2);
    putLittleEndian(extra, 4, size, 8);
    size_t extraAt = entry + 46 + readU16(bytes, entry + 28);
    putLittleEndian(bytes, entry + 30, readU16(bytes, entry + 30) + 12, 2);
    bytes.insert(extraAt + readU16(bytes, entry + 30) - 12, extra);
    size_t end = bytes.rfind(std::string("PK\x05\x06", 4));
    uint32_t directorySize = static_cast<uint32_t>(readU16(bytes, end + 12)) |
                             (static_cast<uint32_t>(readU16(bytes, end + 14)) << 16);
    putLittleEndian(bytes, end + 12, directorySize + 12, 4);
  }
  std::ofstream(zip, std::ios::binary | std::ios::trunc) << bytes;
}

}  // namespace

VELORA_CHILD(StrataServesWithinTheConfiguredLimit) {
  std::string error;
  if (!PackageManager::install(std::getenv("LIMIT_PACKAGE"), &error))
    return 10;
  bool small = !lookup("https://a.test/small")->error;
  bool large = lookup("https://a.test/large")->error.code() == StrataCore::Error::kReadFailed;
  return small && large ? 0 : 11;
}

TEST_F(StrataCoreTest, ArchiveSizesAreBoundedByTheDataAndTheLimit) {
  fs::path folder = makePackage(sources_.path(), "claims", "1",
                                {{"https://a.test/huge", "huge.bin", std::string(5000, 'h')},
                                 {"https://a.test/fine", "fine.txt", "fine"}});
  for (uint64_t claim : {uint64_t{0xFFFFFFF0u}, uint64_t{1} << 62}) {
    fs::path zip = zipFolder(folder, fs::path(sources_.path()) / "claims.zip");
    claimSize(zip, "huge.bin", claim);
    std::string error;
    ASSERT_TRUE(PackageManager::install(zip.string(), &error)) << error;
    EXPECT_EQ(lookup("https://a.test/huge")->error.code(), StrataCore::Error::kReadFailed) << claim;
    EXPECT_EQ(lookup("https://a.test/fine")->body, "fine");
  }

  fs::path limited = makePackage(sources_.path(), "limited", "1",
                                 {{"https://a.test/small", "small.txt", std::string(500, 's')},
                                  {"https://a.test/large", "large.txt", std::string(2000, 'l')}});
  EXPECT_EQ(velora_test::runChild(
                "StrataServesWithinTheConfiguredLimit",
                {{"VELORA_PACKAGE_MAX_BYTES", "1000"}, {"LIMIT_PACKAGE", limited.string()}}),
            0);
}

TEST_F(StrataCoreTest, DeeplyNestedManifestsAreRefused) {
  fs::path source = fs::path(sources_.path()) / "deep";
  write(source / "manifest.json", "{\"id\":\"deep\",\"resources\":[],\"x\":" +
                                      std::string(100000, '[') + std::string(100000, ']') + "}");
  std::string error;
  EXPECT_FALSE(PackageManager::install(source.string(), &error));
  EXPECT_NE(error.find("nested"), std::string::npos) << error;
}
