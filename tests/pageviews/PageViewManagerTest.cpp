#include <korvel/pageviews/PageViewManager.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <korvel/beacon/KVRLogging.h>
#include <korvel/platform/Application.h>
#include "support/TestEnv.h"

namespace korvel {

void PrintTo(const PageView& v, std::ostream* os) { *os << v.toJSONString(); }

namespace {

using platform::ApplicationDidEnterBackgroundNotification;
using platform::ApplicationWillEnterForegroundNotification;

constexpr uint64_t kMillisecond = 1'000'000;
constexpr uint64_t kSecond = 1'000'000'000;

const char* const kClosedMiss = "Cannot track closed page: Missing page on page stack";
const char* const kRenameMiss = "Cannot track page name change: Page stack is empty";
const char* const kParametersMiss =
    "Cannot track page view reporting parameters change: Page is not in the stack";

class RecordingReporter : public PageViewReporter {
 public:
  void report(const PageView& pageView) override {
    std::lock_guard lock(mutex_);
    views_.push_back(pageView);
  }
  std::vector<PageView> views() const {
    std::lock_guard lock(mutex_);
    return views_;
  }
  // The views reported since the last call.
  std::vector<PageView> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(views_, {});
  }

 private:
  mutable std::mutex mutex_;
  std::vector<PageView> views_;
};

PageView view(const std::string& name, double seconds, ReportingParameters parameters = {}) {
  return PageView{PageName(name), seconds, std::move(parameters)};
}

class PageViewManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_.setMonotonicNanos(100 * kSecond);
    manager_ = std::make_unique<PageViewManager>(reporter_, true);
  }

  void advance(uint64_t nanos) { env_.advanceMonotonic(nanos); }
  std::vector<PageView> reported() { return reporter_->take(); }
  void appear(const PageID& id, const std::string& name, ReportingParameters parameters = {}) {
    manager_->trackPageAppeared(id, PageName(name), parameters);
  }
  std::optional<std::string> current() const {
    auto name = manager_->currentPageName();
    return name ? std::optional(name->stringValue) : std::nullopt;
  }
  void post(std::string_view name) { env_.notificationCenter().post(name); }

  testing::TestEnv env_;
  platform::ScopedEnv scope_{env_};
  std::shared_ptr<RecordingReporter> reporter_ = std::make_shared<RecordingReporter>();
  std::unique_ptr<PageViewManager> manager_;
  const PageID p1_ = PageID::make();
  const PageID p2_ = PageID::make();
  const PageID p3_ = PageID::make();
};

// --- Appearing ---------------------------------------------------------------

TEST_F(PageViewManagerTest, FirstPageCountsFromConstructionNotFromItsAppearance) {
  advance(2 * kSecond);
  appear(p1_, "one");
  EXPECT_TRUE(reported().empty());
  EXPECT_EQ(current(), "one");

  advance(3 * kSecond);
  appear(p2_, "two");
  EXPECT_EQ(reported(), std::vector{view("one", 5.0)});
  EXPECT_EQ(current(), "two");
}

TEST_F(PageViewManagerTest, ANewTopReportsTheCoveredPageAndRestartsTheClock) {
  appear(p1_, "one");
  advance(1 * kSecond);
  appear(p2_, "two");
  advance(250 * kMillisecond);
  appear(p3_, "three");
  EXPECT_EQ(reported(), (std::vector{view("one", 1.0), view("two", 0.25)}));
}

TEST_F(PageViewManagerTest, ASecondAppearanceOfTheSameIdIsIgnored) {
  appear(p1_, "one");
  advance(1 * kSecond);
  appear(p1_, "renamed?");
  EXPECT_TRUE(reported().empty());
  EXPECT_EQ(current(), "one");

  advance(1 * kSecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), std::vector{view("one", 2.0)});
  manager_->trackPageClosed(p1_);  // only one entry was ever pushed
  EXPECT_EQ(env_.logs().messages(), std::vector<std::string>{kClosedMiss});
}

// --- Closing -----------------------------------------------------------------

TEST_F(PageViewManagerTest, ClosingTheTopReportsItAndThePageBelowCountsFromThen) {
  appear(p1_, "one");
  advance(1 * kSecond);
  appear(p2_, "two");
  reported();
  advance(2 * kSecond);
  manager_->trackPageClosed(p2_);
  EXPECT_EQ(reported(), std::vector{view("two", 2.0)});
  EXPECT_EQ(current(), "one");

  advance(4 * kSecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), std::vector{view("one", 4.0)});
  EXPECT_EQ(current(), std::nullopt);
}

TEST_F(PageViewManagerTest, ClosingACoveredPageReportsNothingAndKeepsTheClock) {
  appear(p1_, "one");
  appear(p2_, "two");
  appear(p3_, "three");
  reported();
  advance(1 * kSecond);
  manager_->trackPageClosed(p2_);
  EXPECT_TRUE(reported().empty());
  EXPECT_EQ(current(), "three");

  advance(1 * kSecond);
  manager_->trackPageClosed(p3_);
  EXPECT_EQ(reported(), std::vector{view("three", 2.0)});
  EXPECT_EQ(current(), "one");  // the order of the others is kept
}

TEST_F(PageViewManagerTest, ClosingAnUnknownPageIsLoggedAndChangesNothing) {
  appear(p1_, "one");
  advance(1 * kSecond);
  manager_->trackPageClosed(p2_);
  EXPECT_TRUE(reported().empty());
  EXPECT_EQ(current(), "one");

  const auto records = env_.logs().records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message, kClosedMiss);
  EXPECT_EQ(records[0].level, platform::LogLevel::Default);
  EXPECT_EQ(records[0].category, "PageView");
  EXPECT_EQ(records[0].subsystem, KVRLogging::subsystem());

  advance(1 * kSecond);
  appear(p2_, "two");
  EXPECT_EQ(reported(), std::vector{view("one", 2.0)});  // the clock was not touched
}

TEST_F(PageViewManagerTest, TheLastCloseRestartsTheClockForTheNextFirstPage) {
  appear(p1_, "one");
  advance(1 * kSecond);
  manager_->trackPageClosed(p1_);
  reported();
  advance(3 * kSecond);
  appear(p2_, "two");
  advance(1 * kSecond);
  appear(p3_, "three");
  EXPECT_EQ(reported(), std::vector{view("two", 4.0)});
}

// --- Renaming ----------------------------------------------------------------

TEST_F(PageViewManagerTest, RenamingTheTopSplitsItsStretch) {
  const ReportingParameters parameters = {ReportingParameter::tagID("tag")};
  appear(p1_, "old", parameters);
  advance(2 * kSecond);
  manager_->trackPageNameChanged(PageName("new"), p1_);
  EXPECT_EQ(reported(), std::vector{view("old", 2.0, parameters)});
  EXPECT_EQ(current(), "new");

  advance(3 * kSecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), std::vector{view("new", 3.0, parameters)});
}

TEST_F(PageViewManagerTest, RenamingACoveredPageOnlyReplacesItsName) {
  appear(p1_, "one");
  appear(p2_, "two");
  reported();
  advance(1 * kSecond);
  manager_->trackPageNameChanged(PageName("one renamed"), p1_);
  EXPECT_TRUE(reported().empty());

  advance(1 * kSecond);
  manager_->trackPageClosed(p2_);
  EXPECT_EQ(reported(), std::vector{view("two", 2.0)});
  EXPECT_EQ(current(), "one renamed");
}

TEST_F(PageViewManagerTest, RenamingOnAnEmptyStackIsLogged) {
  manager_->trackPageNameChanged(PageName("x"), p1_);
  EXPECT_EQ(env_.logs().messages(), std::vector<std::string>{kRenameMiss});
  EXPECT_EQ(current(), std::nullopt);
}

TEST_F(PageViewManagerTest, RenamingAnUnknownPageOnAFilledStackIsSilent) {
  appear(p1_, "one");
  advance(1 * kSecond);
  manager_->trackPageNameChanged(PageName("x"), p2_);
  EXPECT_TRUE(env_.logs().messages().empty());
  EXPECT_TRUE(reported().empty());
  EXPECT_EQ(current(), "one");
  advance(1 * kSecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), std::vector{view("one", 2.0)});
}

// --- Parameters --------------------------------------------------------------

TEST_F(PageViewManagerTest, ChangingParametersDoesNotSplitTheStretch) {
  const ReportingParameters before = {ReportingParameter::trackID("a")};
  const ReportingParameters after = {ReportingParameter::trackID("b"),
                                     ReportingParameter::sampleRate(44100)};
  appear(p1_, "track", before);
  advance(2 * kSecond);
  manager_->trackPageViewReportingParametersChanged(after, p1_);
  EXPECT_TRUE(reported().empty());

  advance(3 * kSecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), std::vector{view("track", 5.0, after)});
}

TEST_F(PageViewManagerTest, ChangingParametersOfACoveredPage) {
  const ReportingParameters after = {ReportingParameter::tagType("x")};
  appear(p1_, "one");
  appear(p2_, "two");
  manager_->trackPageViewReportingParametersChanged(after, p1_);
  reported();
  advance(1 * kSecond);
  manager_->trackPageClosed(p2_);
  advance(1 * kSecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), (std::vector{view("two", 1.0), view("one", 1.0, after)}));
}

TEST_F(PageViewManagerTest, ChangingParametersOfAnUnknownPageIsLogged) {
  manager_->trackPageViewReportingParametersChanged({}, p1_);  // empty stack
  appear(p2_, "two");
  manager_->trackPageViewReportingParametersChanged({}, p1_);  // not on the stack
  EXPECT_EQ(env_.logs().messages(), (std::vector<std::string>{kParametersMiss, kParametersMiss}));
  EXPECT_TRUE(reported().empty());
}

// --- Background and foreground -----------------------------------------------

TEST_F(PageViewManagerTest, BackgroundReportsOnceAndForegroundRestartsTheClock) {
  appear(p1_, "one");
  advance(3 * kSecond);
  manager_->trackAppBackgrounded();
  EXPECT_EQ(reported(), std::vector{view("one", 3.0)});

  advance(10 * kSecond);
  manager_->trackAppBackgrounded();
  EXPECT_TRUE(reported().empty());

  advance(60 * kSecond);
  manager_->trackAppForegrounded();
  advance(2 * kSecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), std::vector{view("one", 2.0)});
}

TEST_F(PageViewManagerTest, BackgroundWithAnEmptyStackLeavesTheFlagAlone) {
  manager_->trackAppBackgrounded();
  appear(p1_, "one");
  advance(1 * kSecond);
  appear(p2_, "two");
  EXPECT_EQ(reported(), std::vector{view("one", 1.0)});
}

TEST_F(PageViewManagerTest, ForegroundRestartsTheClockEvenWhenNotBackgrounded) {
  appear(p1_, "one");
  advance(2 * kSecond);
  manager_->trackAppForegrounded();
  advance(1 * kSecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), std::vector{view("one", 1.0)});
}

TEST_F(PageViewManagerTest, WhileBackgroundedTheStackChangesButNothingIsReported) {
  appear(p1_, "one");
  manager_->trackAppBackgrounded();
  reported();

  advance(1 * kSecond);
  appear(p2_, "two");  // restarts the clock, reports nothing
  advance(1 * kSecond);
  manager_->trackPageNameChanged(PageName("two renamed"), p2_);
  appear(p3_, "three");
  manager_->trackPageClosed(p3_);
  EXPECT_TRUE(reported().empty());
  EXPECT_EQ(current(), "two renamed");

  advance(7 * kSecond);
  manager_->trackAppForegrounded();
  advance(3 * kSecond);
  manager_->trackPageClosed(p2_);
  EXPECT_EQ(reported(), std::vector{view("two renamed", 3.0)});
}

TEST_F(PageViewManagerTest, ForegroundWithAnEmptyStackRestartsTheClock) {
  advance(5 * kSecond);
  manager_->trackAppForegrounded();
  appear(p1_, "one");
  advance(2 * kSecond);
  appear(p2_, "two");
  EXPECT_EQ(reported(), std::vector{view("one", 2.0)});
}

TEST_F(PageViewManagerTest, TheLifeCycleNotificationsDriveTheManager) {
  appear(p1_, "one");
  advance(2 * kSecond);
  post(ApplicationDidEnterBackgroundNotification);
  post(ApplicationDidEnterBackgroundNotification);
  EXPECT_EQ(reported(), std::vector{view("one", 2.0)});

  advance(30 * kSecond);
  post(ApplicationWillEnterForegroundNotification);
  advance(1 * kSecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), std::vector{view("one", 1.0)});
}

TEST_F(PageViewManagerTest, NotificationsInterleavedWithPages) {
  post(ApplicationDidEnterBackgroundNotification);  // empty stack: nothing happens
  post(ApplicationWillEnterForegroundNotification);  // restart at t
  appear(p1_, "one");
  advance(1 * kSecond);
  appear(p2_, "two");
  advance(2 * kSecond);
  post(ApplicationDidEnterBackgroundNotification);
  manager_->trackPageClosed(p2_);  // backgrounded: restart, no report
  advance(4 * kSecond);
  post(ApplicationWillEnterForegroundNotification);
  advance(500 * kMillisecond);
  manager_->trackPageClosed(p1_);
  EXPECT_EQ(reported(), (std::vector{view("one", 1.0), view("two", 2.0), view("one", 0.5)}));
}

TEST_F(PageViewManagerTest, ADestroyedManagerIsNeverCalledBack) {
  appear(p1_, "one");
  manager_.reset();
  EXPECT_EQ(reporter_.use_count(), 1);  // the reporter is released
  advance(1 * kSecond);
  post(ApplicationDidEnterBackgroundNotification);
  post(ApplicationWillEnterForegroundNotification);
  EXPECT_TRUE(reported().empty());
  EXPECT_FALSE(env_.notificationCenter().hasObservers(ApplicationDidEnterBackgroundNotification));
  EXPECT_FALSE(env_.notificationCenter().hasObservers(ApplicationWillEnterForegroundNotification));
}

// --- Reporting switch --------------------------------------------------------

TEST_F(PageViewManagerTest, DisabledReportingKeepsEveryTransitionButReportsNothing) {
  EXPECT_TRUE(manager_->isReportingEnabled());
  manager_->setIsReportingEnabled(false);
  EXPECT_FALSE(manager_->isReportingEnabled());

  appear(p1_, "one");
  advance(2 * kSecond);
  appear(p2_, "two");
  advance(1 * kSecond);
  manager_->trackPageNameChanged(PageName("two renamed"), p2_);
  manager_->trackAppBackgrounded();
  EXPECT_TRUE(reported().empty());
  EXPECT_EQ(current(), "two renamed");

  manager_->trackAppForegrounded();
  advance(3 * kSecond);
  manager_->setIsReportingEnabled(true);
  manager_->trackPageClosed(p2_);
  EXPECT_EQ(reported(), std::vector{view("two renamed", 3.0)});
}

TEST_F(PageViewManagerTest, AManagerMadeDisabledStaysSilentUntilEnabled) {
  PageViewManager manager(reporter_, false);
  manager.trackPageAppeared(p1_, PageName("one"), {});
  advance(1 * kSecond);
  manager.trackPageClosed(p1_);
  EXPECT_TRUE(reported().empty());
}

// --- Reporter interplay ------------------------------------------------------

TEST_F(PageViewManagerTest, TheReporterMayReadTheManager) {
  class Reader : public PageViewReporter {
   public:
    PageViewManager* manager = nullptr;
    std::vector<std::string> seen;
    void report(const PageView& pageView) override {
      seen.push_back(pageView.name.stringValue + " while top is " +
                     manager->currentPageName().value_or(PageName("-")).stringValue);
    }
  };
  auto reader = std::make_shared<Reader>();
  PageViewManager manager(reader, true);
  reader->manager = &manager;
  manager.trackPageAppeared(p1_, PageName("one"), {});
  manager.trackPageAppeared(p2_, PageName("two"), {});
  manager.trackPageClosed(p2_);
  EXPECT_EQ(reader->seen, (std::vector<std::string>{"one while top is one",
                                                    "two while top is two"}));
}

TEST_F(PageViewManagerTest, AThrowingReporterIsLoggedAndTheStackStaysConsistent) {
  class Throwing : public PageViewReporter {
   public:
    void report(const PageView&) override { throw std::runtime_error("disk full"); }
  };
  PageViewManager manager(std::make_shared<Throwing>(), true);
  manager.trackPageAppeared(p1_, PageName("one"), {});
  EXPECT_NO_THROW(manager.trackPageAppeared(p2_, PageName("two"), {}));
  EXPECT_EQ(manager.currentPageName(), PageName("two"));
  EXPECT_NO_THROW(manager.trackPageClosed(p2_));
  EXPECT_EQ(manager.currentPageName(), PageName("one"));

  const auto records = env_.logs().records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, platform::LogLevel::Error);
  EXPECT_NE(records[0].message.find("disk full"), std::string::npos);
}

TEST_F(PageViewManagerTest, ANullReporterIsRefused) {
  EXPECT_THROW(PageViewManager(nullptr, true), std::invalid_argument);
}

TEST_F(PageViewManagerTest, NotificationsFromAnotherThreadDoNotRace) {
  // The manager is meant for the main thread, but a host posting its life
  // cycle from elsewhere must not corrupt it (run under ThreadSanitizer).
  std::atomic<bool> stop{false};
  std::thread poster([&] {
    while (!stop.load()) {
      post(ApplicationDidEnterBackgroundNotification);
      post(ApplicationWillEnterForegroundNotification);
    }
  });
  for (int i = 0; i < 2000; ++i) {
    const PageID id = PageID::make();
    appear(id, "page");
    manager_->trackPageNameChanged(PageName("renamed"), id);
    manager_->trackPageViewReportingParametersChanged({ReportingParameter::tagID("x")}, id);
    manager_->setIsReportingEnabled(i % 3 != 0);
    manager_->trackPageClosed(id);
  }
  stop = true;
  poster.join();
  EXPECT_EQ(current(), std::nullopt);
}

// --- Page ids ----------------------------------------------------------------

TEST(PageIDTest, IdsAreCanonicalUUIDs) {
  const auto a = PageID::make();
  const auto b = PageID::make();
  EXPECT_NE(a, b);
  EXPECT_EQ(a.uuidString().size(), 36u);
  EXPECT_EQ(PageID::fromString(a.uuidString()), a);

  const auto lower = PageID::fromString("0f8fad5b-d9cb-469f-a165-70867728950e");
  ASSERT_TRUE(lower);
  EXPECT_EQ(lower->uuidString(), "0F8FAD5B-D9CB-469F-A165-70867728950E");
  EXPECT_EQ(lower, PageID::fromString("0F8FAD5B-D9CB-469F-A165-70867728950E"));
  EXPECT_EQ(lower->hash(), PageID::fromString("0F8FAD5B-D9CB-469F-A165-70867728950E")->hash());

  for (const char* bad : {"", "home", "0F8FAD5B-D9CB-469F-A165-70867728950", "0F8FAD5B-D9CB-469F-A165-70867728950EE",
                          "0F8FAD5BD-9CB-469F-A165-70867728950E", "0G8FAD5B-D9CB-469F-A165-70867728950E"}) {
    EXPECT_FALSE(PageID::fromString(bad)) << bad;
  }
}

// --- Fatal stop ----------------------------------------------------------------

using PageViewManagerDeathTest = PageViewManagerTest;

TEST_F(PageViewManagerDeathTest, ALaunchTimeInTheFutureStopsTheProgram) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        env_.setMonotonicNanos(500 * kSecond);
        PageViewManager manager(reporter_, true);
        manager.trackPageAppeared(p1_, PageName("one"), {});
        env_.setMonotonicNanos(400 * kSecond);
        manager.trackPageAppeared(p2_, PageName("two"), {});
      },
      "launch time lies in the future");
}

}  // namespace
}  // namespace korvel
