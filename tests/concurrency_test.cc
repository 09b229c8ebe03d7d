// Races that matter in this layer, run under ThreadSanitizer in CI.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "entry/class_counter.h"
#include "hashdb/text_pool.h"
#include "host/language.h"
#include "refhost/catalogue.h"
#include "refhost/log_service.h"
#include "refhost/thread_pool.h"
#include "tests/mock_host.h"

using testing::Invoke;
using testing::ReturnRef;

TEST(ConcurrencyTest, LookUpsFromManyThreadsWhileTheLocalisationServiceAppears) {
  MockServices services;
  std::shared_ptr<CLocaleService> real = std::make_shared<CRefCatalogue>(
      std::map<std::string, std::string>{{"key", "text"}});
  std::shared_ptr<CLocaleService> empty;
  std::atomic<int> asked{0};
  ON_CALL(*services.host, Locale()).WillByDefault(Invoke([&]() -> const std::shared_ptr<CLocaleService>& {
    return ++asked > 20 ? real : empty;
  }));
  CLanguage language(services.host);
  std::vector<std::thread> threads;
  std::atomic<int> translated{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        std::string out;
        language.Text(out, "key");
        if (out == "text") ++translated;
        else EXPECT_EQ("key", out);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_GT(translated.load(), 0);
}

TEST(ConcurrencyTest, CountersFromManyThreadsEndAtZero) {
  MockServices services;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) CClassCounter counter(services.host, "HDBI");
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(0u, services.counter_map["HDBI"]);
}

TEST(ConcurrencyTest, ThePoolRunsTasksSubmittedFromSeveralThreads) {
  auto log = std::make_shared<CRefLogService>("error", false, "");
  CRefThreadPool pool(2, log);
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) pool.Submit([&done] { ++done; });
    });
  }
  for (auto& thread : threads) thread.join();
  while (!pool.WaitAllFinished(100)) {
  }
  EXPECT_EQ(300, done.load());
}

// Sets its flag when it is destroyed, a little after the task itself has ended.
struct CSlowToRelease {
  std::shared_ptr<std::atomic<bool>> released;
  ~CSlowToRelease() {
    if (!released) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    released->store(true);
  }
  CSlowToRelease(std::shared_ptr<std::atomic<bool>> flag) : released(std::move(flag)) {}
  CSlowToRelease(CSlowToRelease&& other) noexcept : released(std::move(other.released)) {}
};

TEST(ConcurrencyTest, ThePoolIsIdleOnlyOnceEveryTaskHasBeenReleased) {
  auto log = std::make_shared<CRefLogService>("error", false, "");
  CRefThreadPool pool(2, log);
  std::vector<std::shared_ptr<std::atomic<bool>>> flags;
  for (int i = 0; i < 4; ++i) {
    flags.push_back(std::make_shared<std::atomic<bool>>(false));
    auto holder = std::make_shared<CSlowToRelease>(flags.back());
    pool.Submit([holder] {});
  }
  pool.WaitIdle();
  for (const auto& flag : flags) EXPECT_TRUE(flag->load());
}

// Restore tasks share security texts side by side: each distinct text is still kept once.
TEST(TextPoolTest, ThreadsSharingTheSameTextsGetOneCopyEach) {
  CTextPool pool;
  std::vector<std::vector<CCompactText>> got(4);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < got.size(); ++t) {
    threads.emplace_back([&pool, &got, t] {
      for (int i = 0; i < 2000; ++i) got[t].push_back(pool.Share("mode=" + std::to_string(i % 10)));
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(10u, pool.size());
  for (size_t t = 1; t < got.size(); ++t) {
    for (size_t i = 0; i < got[t].size(); ++i) EXPECT_EQ(got[0][i].data(), got[t][i].data());
  }
}
