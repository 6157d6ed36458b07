#include <korvel/debug/KVRWaitingForConfigDetector.h>

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include <korvel/foundation/KVNConfiguration.h>
#include "support/TestEnv.h"
#include "support/TestUIEnv.h"

namespace korvel {
namespace {

constexpr uint64_t kSecond = 1'000'000'000;

class KVRWaitingForConfigDetectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scope_.emplace(env_);
    setConfigured(false);
  }

  void setConfigured(bool configured) {
    KVNConfiguration::sharedInstance().setConfigured(configured);
  }
  // Lets the injected clock run for seconds and the main queue do its work.
  void runFor(double seconds) {
    env_.advanceMonotonic(static_cast<uint64_t>(seconds * kSecond));
    uiEnv_.mainQueue().runPending();
  }
  KVRWaitingForConfigDetector::Callback recorder() {
    return [this](bool stillWaiting) {
      reports_.push_back(stillWaiting);
      threads_.push_back(std::this_thread::get_id());
    };
  }

  testing::TestEnv env_;
  testing::TestUIEnv uiEnv_;
  std::optional<platform::ScopedEnv> scope_;
  std::vector<bool> reports_;  // main queue only
  std::vector<std::thread::id> threads_;
};

TEST_F(KVRWaitingForConfigDetectorTest, ReportsAtOnceThenEverySecondUntilUnregistered) {
  KVRWaitingForConfigDetector detector;
  detector.registerForConfigUpdates(recorder());
  EXPECT_TRUE(reports_.empty());  // the start waits for the main queue

  uiEnv_.mainQueue().runPending();
  EXPECT_EQ(reports_, (std::vector<bool>{true}));
  EXPECT_TRUE(detector.isPolling());

  runFor(0.999);
  EXPECT_EQ(reports_.size(), 1u);
  runFor(0.001);
  runFor(1.0);
  EXPECT_EQ(reports_, (std::vector<bool>{true, true, true}));

  // The configuration arrives: false each second, polling goes on.
  setConfigured(true);
  runFor(1.0);
  runFor(1.0);
  EXPECT_EQ(reports_, (std::vector<bool>{true, true, true, false, false}));

  detector.unregisterForConfigUpdates();
  EXPECT_FALSE(detector.isPolling());
  runFor(5.0);
  EXPECT_EQ(reports_.size(), 5u);

  // The callback is kept: polling can resume with it.
  EXPECT_TRUE(detector.hasCallback());
  detector.startPolling();
  uiEnv_.mainQueue().runPending();
  runFor(1.0);
  EXPECT_EQ(reports_, (std::vector<bool>{true, true, true, false, false, false, false}));
}

TEST_F(KVRWaitingForConfigDetectorTest, RegisteringAgainReplacesTheTimerAndTheCallback) {
  KVRWaitingForConfigDetector detector;
  std::vector<bool> first;
  detector.registerForConfigUpdates([&first](bool waiting) { first.push_back(waiting); });
  uiEnv_.mainQueue().runPending();
  detector.registerForConfigUpdates(recorder());
  uiEnv_.mainQueue().runPending();
  runFor(1.0);
  runFor(1.0);
  EXPECT_EQ(first.size(), 1u);
  // One timer only: one report a second, plus the one at registration.
  EXPECT_EQ(reports_.size(), 3u);
}

TEST_F(KVRWaitingForConfigDetectorTest, CallbacksRunOnTheMainQueueWhoeverRegisters) {
  KVRWaitingForConfigDetector detector;
  std::thread([&] { detector.registerForConfigUpdates(recorder()); }).join();
  uiEnv_.mainQueue().runPending();
  runFor(1.0);
  ASSERT_EQ(threads_.size(), 2u);
  for (auto id : threads_) EXPECT_EQ(id, std::this_thread::get_id());
}

TEST_F(KVRWaitingForConfigDetectorTest, UnregisteringBeforeTheStartRanPreventsPolling) {
  KVRWaitingForConfigDetector detector;
  detector.registerForConfigUpdates(recorder());
  detector.unregisterForConfigUpdates();
  uiEnv_.mainQueue().runPending();
  runFor(3.0);
  EXPECT_TRUE(reports_.empty());
  EXPECT_FALSE(detector.isPolling());
}

TEST_F(KVRWaitingForConfigDetectorTest, ADestroyedDetectorStopsPolling) {
  auto detector = std::make_unique<KVRWaitingForConfigDetector>();
  detector->registerForConfigUpdates(recorder());
  uiEnv_.mainQueue().runPending();
  detector->startPolling();  // queued, runs after the detector is gone
  detector.reset();
  uiEnv_.mainQueue().runPending();
  runFor(3.0);
  EXPECT_EQ(reports_.size(), 1u);
}

TEST_F(KVRWaitingForConfigDetectorTest, AMissingCallbackIsLoggedNotCalled) {
  KVRWaitingForConfigDetector detector;
  detector.registerForConfigUpdates(nullptr);
  uiEnv_.mainQueue().runPending();
  runFor(2.0);
  detector.poll();
  const auto records = env_.logs().records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, platform::LogLevel::Fault);
  EXPECT_NE(records[0].message.find("without a callback"), std::string::npos);
  detector.unregisterForConfigUpdates();
}

TEST(KVRWaitingForConfigViewTest, LoadingStartsTheActivityIndicator) {
  auto view = KVRWaitingForConfigView::loadFromInterfaceFile();
  ASSERT_NE(view, nullptr);
  EXPECT_TRUE(view->activityIndicator.isAnimating());
  EXPECT_FALSE(view->activityIndicator.isHidden());
  KVRWaitingForConfigView plain;
  EXPECT_FALSE(plain.activityIndicator.isAnimating());
}

}  // namespace
}  // namespace korvel
