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

// Where the central directory lists `name`, or npos.
size_t directoryEntry(const std::string& bytes, const std::string& name) {
  size_t entry = bytes.find(std::string("PK\x01\x02", 4));
  while (entry != std::string::npos && bytes.compare(entry + 46, readU16(bytes, entry + 28), name))
    entry = bytes.find(std::string("PK\x01\x02", 4), entry + 4);
  return entry;
}

std::string readAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Makes the central directory claim `size` uncompressed bytes for `name`;
// sizes past 32 bits go into a ZIP64 extra field, as large archives do.
void claimSize(const fs::path& zip, const std::string& name, uint64_t size) {
  std::string bytes = readAll(zip);
  size_t entry = directoryEntry(bytes, name);
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

// ---- Zipped packages: opened once, read by offset ----

namespace {

// Bytes that differ with `seed` everywhere, so a wrong entry or offset shows.
std::string bodyOf(int seed, size_t size) {
  std::string body(size, '\0');
  uint32_t state = 2654435761u * static_cast<uint32_t>(seed + 1);
  for (size_t i = 0; i < size; ++i) {
    state = state * 1103515245u + 12345u;
    // Half the bytes repeat so deflate has something to do.
    body[i] = static_cast<char>(i % 2 ? (state >> 16) : (seed + i / 64));
  }
  return body;
}

// A package archive serving each (name, bytes) at `base` + name; entries
// alternate stored and deflated, so both ways of reading run.
fs::path makeZip(const fs::path& out,
                 const std::string& id,
                 const std::string& base,
                 const std::vector<std::pair<std::string, std::string>>& files) {
  nlohmann::json manifest = {{"id", id}, {"version", "1"}, {"resources", nlohmann::json::array()}};
  for (const auto& [name, body] : files)
    manifest["resources"].push_back({{"url", base + name}, {"file", name}});
  std::string manifestText = manifest.dump();
  int error = 0;
  zip_t* archive = zip_open(out.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  zip_file_add(archive, "manifest.json",
               zip_source_buffer(archive, manifestText.data(), manifestText.size(), 0), 0);
  for (size_t i = 0; i < files.size(); ++i) {
    zip_int64_t index = zip_file_add(
        archive, files[i].first.c_str(),
        zip_source_buffer(archive, files[i].second.data(), files[i].second.size(), 0), 0);
    zip_set_file_compression(archive, static_cast<zip_uint64_t>(index),
                             i % 2 ? ZIP_CM_DEFLATE : ZIP_CM_STORE, 0);
  }
  EXPECT_EQ(zip_close(archive), 0);
  return out;
}

// Descriptors of this process open on `path` (removed or not).
int descriptorsOn(const std::string& path) {
  int count = 0;
  for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    std::string target = fs::read_symlink(fd.path(), ec).string();
    if (!ec && (target == path || target == path + " (deleted)"))
      ++count;
  }
  return count;
}

}  // namespace

TEST_F(StrataCoreTest, ThreadsHitManyEntriesOfALargeZipAtOnceByteExact) {
  constexpr int kEntries = 2000;
  std::vector<std::pair<std::string, std::string>> files;
  for (int i = 0; i < kEntries; ++i)
    files.emplace_back("d" + std::to_string(i % 7) + "/f" + std::to_string(i) + ".bin",
                       bodyOf(i, 1 + static_cast<size_t>(i * 7919) % 70000));
  fs::path zip = makeZip(fs::path(sources_.path()) / "big.zip", "big", "https://a.test/", files);
  std::string error;
  ASSERT_TRUE(PackageManager::install(zip.string(), &error)) << error;
  const std::string installed = installed_.path() + "/big.zip";

  std::atomic<int> wrong{0}, served{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int k = 0; k < 150; ++k) {
        const auto& [name, body] = files[(t * 997 + k * 131) % kEntries];
        auto response = lookup("https://a.test/" + name);
        if (response->error || response->body != body)
          ++wrong;
        ++served;
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(wrong.load(), 0) << "of " << served.load();
  EXPECT_EQ(descriptorsOn(installed), 1);  // opened once, not per hit
  ASSERT_TRUE(PackageManager::remove("big"));
  EXPECT_EQ(descriptorsOn(installed), 0);
}

TEST_F(StrataCoreTest, AZipReinstalledWhileHitsRunNeverServesTheOldArchiveAfterwards) {
  constexpr int kGenerations = 24;
  std::vector<fs::path> zips;
  for (int g = 0; g < kGenerations; ++g) {
    std::string prefix = "gen" + std::to_string(g) + ":";
    zips.push_back(makeZip(
        fs::path(sources_.path()) / (std::to_string(g) + ".zip"), "swap", "https://a.test/",
        {{"s.bin", prefix + bodyOf(g, 30000)}, {"d.bin", prefix + bodyOf(g + 100, 30000)}}));
  }
  std::atomic<int> installedGeneration{-1};
  std::atomic<bool> running{true};
  std::atomic<int> stale{0}, damaged{0}, served{0};
  std::vector<std::thread> hitters;
  for (int t = 0; t < 2; ++t) {
    hitters.emplace_back([&, t] {
      for (int k = 0; running; ++k) {
        const int before = installedGeneration.load();
        auto response = lookup(k % 2 == t % 2 ? "https://a.test/s.bin" : "https://a.test/d.bin");
        if (response->error)
          continue;  // removed for the moment
        ++served;
        int generation = std::atoi(response->body.c_str() + 3);
        if (generation < before)
          ++stale;
        std::string prefix = "gen" + std::to_string(generation) + ":";
        bool isStored = k % 2 == t % 2;
        if (response->body != prefix + bodyOf(generation + (isStored ? 0 : 100), 30000))
          ++damaged;
      }
    });
  }
  for (int g = 0; g < kGenerations; ++g) {
    if (g % 2)
      PackageManager::remove("swap");
    std::string error;
    EXPECT_TRUE(PackageManager::install(zips[g].string(), &error))
        << error;  // the hitters still run
    installedGeneration = g;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  running = false;
  for (auto& thread : hitters)
    thread.join();
  EXPECT_EQ(stale.load(), 0);
  EXPECT_EQ(damaged.load(), 0);
  EXPECT_GT(served.load(), kGenerations);
  EXPECT_EQ(descriptorsOn(installed_.path() + "/swap.zip"), 1);  // the old ones were closed
}

// Another process may rewrite, replace or cut short an installed archive:
// the hit that finds out fails (and goes to the network), later ones are
// served from the archive as it now is.
TEST_F(StrataCoreTest, AnArchiveChangedOnDiskFailsTheHitAndIsIndexedAgain) {
  velora_test::HilogCapture hilog;
  auto version = [&](int n) {
    return makeZip(fs::path(sources_.path()) / ("v" + std::to_string(n) + ".zip"), "app",
                   "https://a.test/",
                   {{"s.bin", "v" + std::to_string(n) + bodyOf(n, 5000)},
                    {"d.bin", "v" + std::to_string(n) + bodyOf(n + 9, 5000)}});
  };
  std::string error;
  ASSERT_TRUE(PackageManager::install(version(1).string(), &error)) << error;
  const fs::path installed = fs::path(installed_.path()) / "app.zip";
  EXPECT_EQ(lookup("https://a.test/s.bin")->body.substr(0, 2), "v1");

  // Rewritten in place, then replaced by a rename.
  const std::string v2 = readAll(version(2));
  std::ofstream(installed, std::ios::binary | std::ios::trunc) << v2;
  auto noticed = lookup("https://a.test/d.bin");
  EXPECT_EQ(noticed->error.code(), StrataCore::Error::kReadFailed);
  EXPECT_TRUE(noticed->body.empty());
  EXPECT_TRUE(hilog.contains("changed on disk since it was indexed"));
  EXPECT_TRUE(velora_test::waitFor(
      [] { return lookup("https://a.test/d.bin")->body.substr(0, 2) == "v2"; }));
  fs::copy_file(version(3), fs::path(installed_.path()) / ".v3");
  fs::rename(fs::path(installed_.path()) / ".v3", installed);
  EXPECT_TRUE(lookup("https://a.test/s.bin")->error);
  EXPECT_TRUE(velora_test::waitFor(
      [] { return lookup("https://a.test/s.bin")->body.substr(0, 2) == "v3"; }));

  // Cut short: what no longer reads is left out.
  fs::resize_file(installed, v2.size() / 2);
  EXPECT_EQ(lookup("https://a.test/s.bin")->error.code(), StrataCore::Error::kReadFailed);
  EXPECT_TRUE(velora_test::waitFor(
      [] { return lookup("https://a.test/s.bin")->error.code() == StrataCore::Error::kNotFound; }));
  EXPECT_TRUE(hilog.contains("skipping package " + installed.string()));
  EXPECT_TRUE(PackageManager::list().empty());
}

// Damage that only shows when an entry is read fails that entry alone.
TEST_F(StrataCoreTest, DamagedEntriesFailAloneAndTheRestIsServed) {
  velora_test::HilogCapture hilog;
  fs::path zip = makeZip(fs::path(sources_.path()) / "damaged.zip", "damaged", "https://a.test/",
                         {{"stored-ok", "fine"},
                          {"deflated-flipped", bodyOf(1, 40000)},
                          {"stored-moved", bodyOf(2, 100)},
                          {"deflated-method", bodyOf(3, 100)}});
  std::string bytes = readAll(zip);
  size_t flipped = directoryEntry(bytes, "deflated-flipped");
  size_t local = readU16(bytes, flipped + 42) | (size_t{readU16(bytes, flipped + 44)} << 16);
  size_t data = local + 30 + readU16(bytes, local + 26) + readU16(bytes, local + 28);
  bytes[data + readU16(bytes, flipped + 20) / 2] ^= 0x5a;
  putLittleEndian(bytes, directoryEntry(bytes, "stored-moved") + 42, bytes.size() - 10, 4);
  putLittleEndian(bytes, directoryEntry(bytes, "deflated-method") + 10, 12, 2);  // bzip2
  std::ofstream(zip, std::ios::binary | std::ios::trunc) << bytes;
  std::string error;
  ASSERT_TRUE(PackageManager::install(zip.string(), &error)) << error;

  EXPECT_EQ(lookup("https://a.test/stored-ok")->body, "fine");
  auto flippedHit = lookup("https://a.test/deflated-flipped");
  EXPECT_EQ(flippedHit->error.code(), StrataCore::Error::kReadFailed);
  EXPECT_TRUE(flippedHit->body.empty());
  EXPECT_EQ(lookup("https://a.test/stored-moved")->error.code(), StrataCore::Error::kNotFound);
  EXPECT_EQ(lookup("https://a.test/deflated-method")->error.code(), StrataCore::Error::kNotFound);
  EXPECT_TRUE(hilog.contains("no local header where the directory points"));
  EXPECT_TRUE(hilog.contains("only stored and deflated entries are served"));
  EXPECT_EQ(PackageManager::list().at(0).resources, 2u);
}
