#include <korvel/network/InProcessRequestExecutor.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <korvel/foundation/KVNConfiguration.h>
#include "support/Latch.h"

namespace korvel {
namespace {

using namespace std::chrono_literals;

// Generous: only reached when something is wrong.
constexpr auto kLong = 10s;
// How long a request must stay held to count as held back.
constexpr auto kHeld = 150ms;

// What the transport saw, in order.
class TransportLog {
 public:
  void add(const std::string& url) {
    std::lock_guard lock(mutex_);
    urls_.push_back(url);
    cv_.notify_all();
  }
  std::vector<std::string> urls() const {
    std::lock_guard lock(mutex_);
    return urls_;
  }
  // Waits until at least n deliveries were attempted.
  bool waitFor(size_t n) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, kLong, [&] { return urls_.size() >= n; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::string> urls_;
};

KVNNetworkRequest request(std::string url, int priority = 1, int policy = 0, int retries = 0) {
  KVNNetworkRequest r;
  r.setPriority(priority);
  r.setConfigurationPolicy(policy);
  r.setBackgroundSessionRetryCount(retries);
  r.setEndpointBuilderBlock([url] { return std::optional<KVNEndpoint>(KVNEndpoint(url)); });
  return r;
}

class InProcessRequestExecutorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KVNConfiguration::Snapshot s;
    s.configured = true;
    s.inid = "I";
    s.beacons.beaconEndpoint = "https://b.example/";
    KVNConfiguration::sharedInstance().replace(s);
  }
  void TearDown() override { KVNConfiguration::sharedInstance().replace({}); }

  testing::Latch gate_{1};
  TransportLog log_;
  // Its transport delivers every request into log_; one to "blocker" waits
  // for gate_ first.
  InProcessRequestExecutor executor_{"t", [this](const KVNNetworkRequest&, const KVNEndpoint& e) {
                                       if (e.urlString() == "blocker") gate_.wait();
                                       log_.add(e.urlString());
                                       return true;
                                     }};
};

TEST_F(InProcessRequestExecutorTest, SendsHigherPrioritiesFirstAndEqualOnesInOrder) {
  // The worker is held inside the first request while the rest queue up.
  executor_.executeRequest(request("blocker", 100));
  executor_.executeRequest(request("low-1", 0));
  executor_.executeRequest(request("normal-1", 1));
  executor_.executeRequest(request("high-1", 5));
  executor_.executeRequest(request("normal-2", 1));
  executor_.executeRequest(request("low-2", 0));
  executor_.executeRequest(request("high-2", 5));
  executor_.executeRequest(request("negative", -3));
  gate_.count_down();

  ASSERT_TRUE(executor_.flush(kLong));
  EXPECT_EQ(log_.urls(), (std::vector<std::string>{"blocker", "high-1", "high-2", "normal-1",
                                                  "normal-2", "low-1", "low-2", "negative"}));
}

TEST_F(InProcessRequestExecutorTest, PolicyTwoHoldsUntilEndpointAndInidExist) {
  KVNConfiguration::sharedInstance().update([](KVNConfiguration::Snapshot& s) {
    s.beacons.beaconEndpoint.reset();
    s.inid.reset();
  });
  executor_.executeRequest(request("held", 1, 2));
  executor_.executeRequest(request("free", 1, 0));

  // A held request does not block the ones behind it.
  ASSERT_TRUE(log_.waitFor(1));
  EXPECT_FALSE(executor_.flush(kHeld));
  EXPECT_EQ(log_.urls(), (std::vector<std::string>{"free"}));

  // Half the conditions are not enough.
  KVNConfiguration::sharedInstance().setInid("I");
  EXPECT_FALSE(executor_.flush(kHeld));
  KVNConfiguration::sharedInstance().setBeaconEndpoint("");
  EXPECT_FALSE(executor_.flush(kHeld));

  KVNConfiguration::sharedInstance().setBeaconEndpoint("https://b.example/");
  ASSERT_TRUE(executor_.flush(kLong));
  EXPECT_EQ(log_.urls(), (std::vector<std::string>{"free", "held"}));
}

TEST_F(InProcessRequestExecutorTest, PolicyOneHoldsUntilConfigured) {
  KVNConfiguration::sharedInstance().setConfigured(false);
  executor_.executeRequest(request("held", 1, 1));
  EXPECT_FALSE(executor_.flush(kHeld));
  EXPECT_TRUE(log_.urls().empty());
  KVNConfiguration::sharedInstance().setConfigured(true);
  ASSERT_TRUE(executor_.flush(kLong));
  EXPECT_EQ(log_.urls(), (std::vector<std::string>{"held"}));
}

TEST_F(InProcessRequestExecutorTest, RetriesUpToCountPlusOneAttempts) {
  struct Case {
    int retries;
    int succeedOnAttempt;  // 0: never
    int attempts;
  };
  const std::vector<Case> cases = {
      {3, 0, 4}, {0, 0, 1}, {-2, 0, 1}, {3, 1, 1}, {3, 2, 2}, {3, 4, 4}, {1, 3, 2},
  };
  for (const auto& c : cases) {
    std::atomic<int> attempts{0};
    InProcessRequestExecutor executor("t", [&](const KVNNetworkRequest&, const KVNEndpoint&) {
      return ++attempts == c.succeedOnAttempt;
    });
    executor.executeRequest(request("u", 1, 0, c.retries));
    // Given up or delivered, nothing is left pending.
    ASSERT_TRUE(executor.flush(kLong));
    EXPECT_EQ(attempts, c.attempts) << "retries " << c.retries << ", success on attempt "
                                    << c.succeedOnAttempt;
  }
}

TEST_F(InProcessRequestExecutorTest, FlushHonoursItsDeadline) {
  testing::Latch gate{1};
  InProcessRequestExecutor executor("t", [&](const KVNNetworkRequest&, const KVNEndpoint&) {
    gate.wait();
    return true;
  });
  EXPECT_TRUE(executor.flush(0ms));  // nothing queued
  executor.executeRequest(request("slow"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(executor.flush(50ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  gate.count_down();
  EXPECT_TRUE(executor.flush(kLong));
}

TEST_F(InProcessRequestExecutorTest, BuildsTheEndpointOnTheWorkerWhenSending) {
  executor_.executeRequest(request("blocker"));

  std::atomic<int> builds{0};
  std::thread::id builderThread;
  KVNNetworkRequest late;
  late.setEndpointBuilderBlock([&]() -> std::optional<KVNEndpoint> {
    ++builds;
    builderThread = std::this_thread::get_id();
    return KVNEndpoint("inid=" + KVNConfiguration::sharedInstance().inid().value_or("none"));
  });
  executor_.executeRequest(late);
  EXPECT_EQ(builds, 0);  // queuing does not build

  // Changed after queuing, before sending: the URL sees the change.
  KVNConfiguration::sharedInstance().setInid("CHANGED");
  gate_.count_down();
  ASSERT_TRUE(executor_.flush(kLong));
  EXPECT_EQ(builds, 1);
  EXPECT_NE(builderThread, std::this_thread::get_id());
  EXPECT_EQ(log_.urls(), (std::vector<std::string>{"blocker", "inid=CHANGED"}));
}

TEST_F(InProcessRequestExecutorTest, RequestWithoutEndpointIsDropped) {
  KVNNetworkRequest none;
  none.setEndpointBuilderBlock([] { return std::optional<KVNEndpoint>(); });
  executor_.executeRequest(none);
  executor_.executeRequest(KVNNetworkRequest());  // no builder at all
  executor_.executeRequest(request("after"));
  ASSERT_TRUE(executor_.flush(kLong));
  EXPECT_EQ(log_.urls(), (std::vector<std::string>{"after"}));
}

TEST_F(InProcessRequestExecutorTest, StopDropsWhatIsQueued) {
  KVNConfiguration::sharedInstance().setConfigured(false);
  executor_.executeRequest(request("dropped-1", 1, 1));
  executor_.executeRequest(request("dropped-2", 1, 1));
  executor_.stop();
  EXPECT_TRUE(executor_.flush(0ms));
  EXPECT_TRUE(log_.urls().empty());
}

// Requests from several threads all arrive exactly once.
TEST_F(InProcessRequestExecutorTest, ConcurrentSubmitters) {
  std::mutex mutex;
  std::vector<std::string> delivered;
  InProcessRequestExecutor executor("t", [&](const KVNNetworkRequest&, const KVNEndpoint& e) {
    std::lock_guard lock(mutex);
    delivered.push_back(e.urlString());
    return true;
  });
  constexpr int kThreads = 4;
  constexpr int kEach = 250;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        executor.executeRequest(request(std::to_string(t) + ":" + std::to_string(i), i % 3));
      }
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_TRUE(executor.flush(kLong));
  std::lock_guard lock(mutex);
  EXPECT_EQ(delivered.size(), static_cast<size_t>(kThreads * kEach));
  std::sort(delivered.begin(), delivered.end());
  EXPECT_EQ(std::adjacent_find(delivered.begin(), delivered.end()), delivered.end());
}

}  // namespace
}  // namespace korvel
