#include <korvel/platform/KVNTimer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/TestEnv.h"

namespace korvel {
namespace {

constexpr uint64_t kMillisecond = 1'000'000;
constexpr uint64_t kSecond = 1'000'000'000;

class KVNTimerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scope_.emplace(env_);
    env_.setMonotonicNanos(100 * kSecond);
  }
  void TearDown() override { scope_.reset(); }

  testing::TestEnv env_;
  KVNTimer timer_;

 private:
  std::optional<platform::ScopedEnv> scope_;
};

TEST_F(KVNTimerTest, MeasuresSecondsOnTheMonotonicClock) {
  timer_.startTimerForKey("k");
  EXPECT_EQ(timer_.elapsedTimeForKey("k"), 0.0);
  env_.advanceMonotonic(2 * kSecond + 500 * kMillisecond);
  EXPECT_EQ(timer_.elapsedTimeForKey("k"), 2.5);
  // Reading does not stop it.
  env_.advanceMonotonic(kSecond);
  EXPECT_EQ(timer_.elapsedTimeForKey("k"), 3.5);
  env_.advanceMonotonic(1);
  EXPECT_DOUBLE_EQ(*timer_.elapsedTimeForKey("k"), 3.500000001);
}

TEST_F(KVNTimerTest, RestartEndAndUnknownKeys) {
  EXPECT_EQ(timer_.elapsedTimeForKey("never"), std::nullopt);
  timer_.startTimerForKey("k");
  env_.advanceMonotonic(5 * kSecond);
  timer_.startTimerForKey("k");  // restarts from now
  env_.advanceMonotonic(kSecond);
  EXPECT_EQ(timer_.elapsedTimeForKey("k"), 1.0);

  timer_.endTimerForKey("k");
  EXPECT_EQ(timer_.elapsedTimeForKey("k"), std::nullopt);
  timer_.endTimerForKey("k");  // ending twice is harmless
  timer_.endTimerForKey("never");
}

TEST_F(KVNTimerTest, KeysAreIndependent) {
  timer_.startTimerForKey("a");
  env_.advanceMonotonic(kSecond);
  timer_.startTimerForKey("b");
  env_.advanceMonotonic(kSecond);
  EXPECT_EQ(timer_.elapsedTimeForKey("a"), 2.0);
  EXPECT_EQ(timer_.elapsedTimeForKey("b"), 1.0);
  timer_.endTimerForKey("a");
  EXPECT_EQ(timer_.elapsedTimeForKey("b"), 1.0);

  // Two timers do not share keys.
  KVNTimer other;
  EXPECT_EQ(other.elapsedTimeForKey("b"), std::nullopt);
}

TEST_F(KVNTimerTest, AClockBehindTheStartReadsZeroAndAMonthReadsWhole) {
  timer_.startTimerForKey("k");
  env_.setMonotonicNanos(50 * kSecond);
  EXPECT_EQ(timer_.elapsedTimeForKey("k"), 0.0);
  timer_.startTimerForKey("k");
  env_.advanceMonotonic(30ull * 24 * 3600 * kSecond);
  EXPECT_EQ(timer_.elapsedTimeForKey("k"), 30.0 * 24 * 3600);
}

// Starts, reads and ends from several threads; run under ThreadSanitizer.
TEST_F(KVNTimerTest, ConcurrentUse) {
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      while (!go) std::this_thread::yield();
      const std::string own = "key" + std::to_string(t);
      for (int i = 0; i < 500; ++i) {
        timer_.startTimerForKey(own);
        timer_.startTimerForKey("shared");
        env_.advanceMonotonic(kMillisecond);
        auto mine = timer_.elapsedTimeForKey(own);
        ASSERT_TRUE(mine.has_value());
        EXPECT_GE(*mine, 0.0);
        timer_.elapsedTimeForKey("shared");
        if (i % 7 == 0) timer_.endTimerForKey("shared");
        timer_.endTimerForKey(own);
      }
    });
  }
  go = true;
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(timer_.elapsedTimeForKey("key" + std::to_string(t)), std::nullopt);
  }
}

}  // namespace
}  // namespace korvel
