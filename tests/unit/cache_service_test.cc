#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include "tern/cache_service.h"
#include "tern/host_config.h"
#include "test_support.h"

using tern::ICacheService;
using velora_test::runChild;

namespace {

// Points the process at another database file for one test.
class ScopedDatabase {
 public:
  explicit ScopedDatabase(const std::string& path, int busyTimeoutMs = 2000) {
    tern::useDatabase(path, busyTimeoutMs);
  }
  ~ScopedDatabase() {
    tern::useDatabase(std::string(std::getenv("VELORA_DATA_DIR")) + "/store.db");
  }
};

}  // namespace

VELORA_CHILD(CacheWriteMany) {
  auto store = ICacheService::of("Shared");
  for (int i = 0; i < 200; ++i) {
    if (!store->put("child" + std::to_string(i), std::to_string(i)))
      return 1;
  }
  return 0;
}

TEST(CacheService, StoresAreSeparateAndValuesKeepEveryByte) {
  auto a = ICacheService::of("A");
  auto b = ICacheService::of("B");
  const std::string bytes("x\0y\xff\xfe{\"", 7);
  ASSERT_TRUE(a->put("k", bytes));
  ASSERT_TRUE(b->put("k", "other"));
  EXPECT_EQ(a->get("k"), bytes);
  EXPECT_EQ(b->get("k"), "other");
  EXPECT_FALSE(a->get("missing").has_value());
  EXPECT_TRUE(a->remove("k"));
  EXPECT_FALSE(a->get("k").has_value());
  EXPECT_EQ(b->get("k"), "other");
}

TEST(CacheService, ConcurrentWritersInThreadsAndAnotherProcessAllLand) {
  auto store = ICacheService::of("Shared");
  std::vector<std::thread> writers;
  for (int t = 0; t < 6; ++t) {
    writers.emplace_back([store, t] {
      for (int i = 0; i < 150; ++i) {
        EXPECT_TRUE(store->put("t" + std::to_string(t) + "-" + std::to_string(i), "v"));
        store->get("t0-0");
      }
    });
  }
  int childStatus = runChild("CacheWriteMany");
  for (auto& writer : writers)
    writer.join();
  ASSERT_EQ(childStatus, 0);
  for (int t = 0; t < 6; ++t) {
    for (int i = 0; i < 150; ++i) {
      EXPECT_EQ(store->get("t" + std::to_string(t) + "-" + std::to_string(i)), "v");
    }
  }
  for (int i = 0; i < 200; ++i)
    EXPECT_EQ(store->get("child" + std::to_string(i)), std::to_string(i));
}

TEST(CacheService, CorruptFileAnswersEmptyWithALogLineAndRecoversOnceReplaced) {
  velora_test::TempDir dir;
  std::string path = dir.file("store.db");
  {
    std::ofstream out(path, std::ios::binary);
    for (int i = 0; i < 64; ++i)
      out << "this is not a database file, just text ";
  }
  velora_test::HilogCapture hilog;
  ScopedDatabase scoped(path);
  auto store = ICacheService::of("X");
  EXPECT_FALSE(store->get("k").has_value());
  EXPECT_FALSE(store->put("k", "v"));
  EXPECT_FALSE(store->remove("k"));
  EXPECT_TRUE(hilog.contains("tern/cache_service"));

  std::remove(path.c_str());
  EXPECT_TRUE(store->put("k", "v"));
  EXPECT_EQ(store->get("k"), "v");
}

TEST(CacheService, LockHeldByAnotherConnectionFailsWritesAfterABoundedWait) {
  velora_test::TempDir dir;
  std::string path = dir.file("store.db");
  ScopedDatabase scoped(path, 100);
  auto store = ICacheService::of("L");
  ASSERT_TRUE(store->put("k", "before"));

  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE; DELETE FROM kv;", nullptr, nullptr, nullptr),
            SQLITE_OK);
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(store->put("k", "blocked"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(store->get("k"), "before");  // readers are not blocked by the writer
  sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  EXPECT_TRUE(store->put("k", "after"));
  EXPECT_EQ(store->get("k"), "after");
}

TEST(CacheService, UnwritableLocationFailsWithoutThrowing) {
  velora_test::HilogCapture hilog;
  ScopedDatabase scoped("/proc/velora-no-such-dir/store.db");
  auto store = ICacheService::of("U");
  EXPECT_FALSE(store->put("k", "v"));
  EXPECT_FALSE(store->get("k").has_value());
  EXPECT_TRUE(hilog.contains("cannot open store"));
}
