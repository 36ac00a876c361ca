#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tern/cache_service.h"
#include "tern/executor_service.h"
#include "test_support.h"

using tern::ExecutorService;
using tern::Fiber;

VELORA_CHILD(ExecutorPostThenExit) {
  auto store = tern::ICacheService::of("Exit");
  auto executor = ExecutorService::of("Velora", TERN_HERE);
  for (int i = 0; i < 20; ++i) {
    executor.post(Fiber([store, i] {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      store->put("k" + std::to_string(i), "done");
    }));
  }
  return 0;  // returns from main while the tasks are still queued
}

TEST(ExecutorService, TasksOfOneNameRunInPostingOrderOneAtATime) {
  std::mutex mutex;
  std::vector<int> order;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::vector<std::thread> posters;
  auto executor = ExecutorService::of("ordered", TERN_HERE);
  for (int i = 0; i < 100; ++i) {
    executor.post(Fiber([&, i] {
      if (running.fetch_add(1) != 0)
        overlapped = true;
      {
        std::lock_guard<std::mutex> lock(mutex);
        order.push_back(i);
      }
      running.fetch_sub(1);
    }));
  }
  // Another handle of the same name shares the queue.
  ExecutorService::of("ordered", TERN_HERE).waitIdle();
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(order[i], i);
  EXPECT_FALSE(overlapped);
}

TEST(ExecutorService, ThrowingTaskIsLoggedWithItsOriginAndLaterTasksStillRun) {
  velora_test::HilogCapture hilog;
  auto executor = ExecutorService::of("throwing", TERN_HERE);
  std::atomic<bool> ranAfter{false};
  executor.post(Fiber([] { throw std::runtime_error("boom"); }));
  executor.post(Fiber([&] { ranAfter = true; }));
  executor.waitIdle();
  EXPECT_TRUE(ranAfter);
  EXPECT_TRUE(hilog.contains("executor_service_test.cc"));
  EXPECT_TRUE(hilog.contains("boom"));
}

TEST(ExecutorService, QueuedTasksRunBeforeANormalProcessExit) {
  ASSERT_EQ(velora_test::runChild("ExecutorPostThenExit"), 0);
  auto store = tern::ICacheService::of("Exit");
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(store->get("k" + std::to_string(i)), "done") << i;
}
