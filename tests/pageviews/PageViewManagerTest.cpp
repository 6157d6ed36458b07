#include <gtest/gtest.h>
#include <korvel/beacon/KVRLogging.h>
#include <korvel/pageviews/PageViewManager.h>
#include <korvel/platform/Application.h>

#include <atomic>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/TestEnv.h"
#include "support/DeathTests.h"
#include "pageviews/PageViewTestSupport.h"

namespace korvel {
namespace {

using testing::kClosedMiss;
using testing::kParametersMiss;
using testing::kRenameMiss;
using testing::view;

using platform::ApplicationDidEnterBackgroundNotification;
using platform::ApplicationWillEnterForegroundNotification;

constexpr uint64_t kMillisecond = 1'000'000;
constexpr uint64_t kSecond = 1'000'000'000;

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
  std::shared_ptr<testing::RecordingReporter> reporter_ =
      std::make_shared<testing::RecordingReporter>();
  std::unique_ptr<PageViewManager> manager_;
  const PageID p1_ = PageID::make();
  const PageID p2_ = PageID::make();
  const PageID p3_ = PageID::make();
};

// --- The stack and its clock, step by step ------------------------------------

// A scenario's steps, separated by spaces: "+1:one" page 1 appears as "one",
// "+1:one#t" with the parameter tag id "t", "-1" page 1 closes, "=1:new" page
// 1 is renamed, "~1:t" its parameters become tag id "t" ("~1:" none), "t2.5"
// the clock moves 2.5 s, "bg"/"fg" the manager is told the app went to the
// background or comes back, "BG"/"FG" the life-cycle notifications are
// posted instead, "off"/"on" switch reporting, "|" a checkpoint, "?" shows
// the top page as "^name" ("^-" for none). The reports are written
// "name@seconds#tag", with "|" where the steps have one: what was reported
// between two checkpoints.
struct Scenario {
  const char* what;
  const char* steps;
  const char* reports;
  std::optional<std::string> current;  // the top page's name at the end
  std::vector<std::string> logs = {};
};

TEST_F(PageViewManagerTest, Scenarios) {
  const Scenario scenarios[] = {
      // Appearing.
      {"the first page counts from construction, not from its appearance", "t2 +1:one | t3 +2:two",
       "| one@5", "two"},
      {"a new top reports the covered page and restarts the clock",
       "+1:one t1 +2:two t0.25 +3:three", "one@1 two@0.25", "three"},
      {"a second appearance of the same id is ignored",
       "+1:one t1 +1:renamed? | t1 -1 | -1",
       "| one@2 |",
       std::nullopt,
       {kClosedMiss}},
      // Closing.
      {"closing the top reports it; the page below counts from then",
       "+1:one t1 +2:two | t2 -2 | t4 -1", "one@1 | two@2 | one@4", std::nullopt},
      {"closing a covered page reports nothing and keeps the clock",
       "+1:one +2:two +3:three | t1 -2 | t1 -3", "one@0 two@0 | | three@2", "one"},
      {"the last close restarts the clock for the next first page",
       "+1:one t1 -1 t3 +2:two t1 +3:three", "one@1 two@4", "three"},
      // Renaming.
      {"renaming a covered page only replaces its name", "+1:one +2:two t1 =1:renamed | t1 -2",
       "one@0 | two@2", "renamed"},
      {"renaming on an empty stack is logged", "=1:x", "", std::nullopt, {kRenameMiss}},
      {"renaming an unknown page on a filled stack is silent", "+1:one t1 =2:x | t1 -1", "| one@2",
       std::nullopt},
      // Background and foreground.
      {"background reports once; foreground restarts the clock",
       "+1:one t3 bg | t10 bg | t60 fg t2 -1", "one@3 | | one@2", std::nullopt},
      {"background with an empty stack leaves the flag alone", "bg +1:one t1 +2:two", "one@1",
       "two"},
      {"foreground restarts the clock even when not backgrounded", "+1:one t2 fg t1 -1", "one@1",
       std::nullopt},
      {"while backgrounded the stack changes but nothing is reported",
       "+1:one bg | t1 +2:two t1 =2:two_renamed +3:three -3 | t7 fg t3 -2",
       "one@0 | | two_renamed@3", "one"},
      {"foreground with an empty stack restarts the clock", "t5 fg +1:one t2 +2:two", "one@2",
       "two"},
      {"the life-cycle notifications drive the manager", "+1:one t2 BG BG | t30 FG t1 -1",
       "one@2 | one@1", std::nullopt},
      {"notifications interleaved with pages", "BG FG +1:one t1 +2:two t2 BG -2 t4 FG t0.5 -1",
       "one@1 two@2 one@0.5", std::nullopt},
      // Parameters.
      {"renaming the top splits its stretch and keeps its parameters",
       "+1:old#tag t2 =1:new ? | t3 -1", "old@2#tag ^new | new@3#tag", std::nullopt},
      {"changing parameters does not split the stretch", "+1:track#a t2 ~1:b | t3 -1",
       "| track@5#b", std::nullopt},
      {"changing parameters of a covered page", "+1:one +2:two ~1:x | t1 -2 t1 -1",
       "one@0 | two@1 one@1#x", std::nullopt},
      {"changing parameters of an unknown page is logged", "~1: +2:two ~1:", "", "two",
       {kParametersMiss, kParametersMiss}},
      // Reporting switched off.
      {"switched off, every transition is kept but nothing is reported",
       "off +1:one t2 +2:two t1 =2:two_renamed bg ? | fg t3 on -2", "^two_renamed | two_renamed@3",
       "one"},
  };
  for (const auto& scenario : scenarios) {
    SCOPED_TRACE(scenario.what);
    env_.setMonotonicNanos(100 * kSecond);
    env_.logs().clear();
    manager_ = std::make_unique<PageViewManager>(reporter_, true);
    reported();
    std::map<std::string, PageID> ids;
    const auto id = [&](const std::string& n) {
      return ids.try_emplace(n, PageID::make()).first->second;
    };
    std::string reports;
    const auto add = [&](const std::string& item) {
      reports += (reports.empty() ? "" : " ") + item;
    };
    const auto flush = [&] {
      for (const auto& v : reported()) {
        std::ostringstream item;
        item << v.name.stringValue << "@" << v.duration;
        for (const auto& p : v.reportingParameters) item << "#" << *p.value.stringValue();
        add(item.str());
      }
    };
    const auto tagged = [](const std::string& tag) {
      return tag.empty() ? ReportingParameters{}
                         : ReportingParameters{ReportingParameter::tagID(tag)};
    };
    std::istringstream steps(scenario.steps);
    for (std::string step; steps >> step;) {
      const auto colon = step.find(':');
      const std::string page = step.substr(1, colon == std::string::npos ? colon : colon - 1);
      std::string name = colon == std::string::npos ? "" : step.substr(colon + 1);
      const auto hash = name.find('#');
      const std::string tag = hash == std::string::npos ? "" : name.substr(hash + 1);
      name = name.substr(0, hash);
      if (step == "|") {
        flush();
        add("|");
      } else if (step == "?") {
        flush();
        add("^" + current().value_or("-"));
      } else if (step == "off" || step == "on") {
        manager_->setIsReportingEnabled(step == "on");
      } else if (step == "bg") {
        manager_->trackAppBackgrounded();
      } else if (step == "fg") {
        manager_->trackAppForegrounded();
      } else if (step == "BG") {
        post(ApplicationDidEnterBackgroundNotification);
      } else if (step == "FG") {
        post(ApplicationWillEnterForegroundNotification);
      } else if (step[0] == 't') {
        advance(static_cast<uint64_t>(std::stod(step.substr(1)) * kSecond));
      } else if (step[0] == '+') {
        appear(id(page), name, tagged(tag));
      } else if (step[0] == '~') {
        manager_->trackPageViewReportingParametersChanged(tagged(name), id(page));
      } else if (step[0] == '-') {
        manager_->trackPageClosed(id(page));
      } else if (step[0] == '=') {
        manager_->trackPageNameChanged(PageName(name), id(page));
      } else {
        FAIL() << "unknown step " << step;
      }
    }
    flush();
    EXPECT_EQ(reports, scenario.reports);
    EXPECT_EQ(current(), scenario.current);
    EXPECT_EQ(env_.logs().messages(), scenario.logs);
  }
}

TEST_F(PageViewManagerTest, ClosingAnUnknownPageIsLoggedAndChangesNothing) {
  appear(p1_, "one");
  advance(1 * kSecond);
  manager_->trackPageClosed(p2_);
  EXPECT_TRUE(reported().empty());
  EXPECT_EQ(current(), "one");

  const auto records = env_.logs().records();
  ASSERT_EQ(records.size(), 1u);  // on the page view logger
  EXPECT_EQ(std::tuple(records[0].message, records[0].level, records[0].category,
                       records[0].subsystem),
            std::tuple(kClosedMiss, platform::LogLevel::Default, "PageView",
                       KVRLogging::subsystem()));

  advance(1 * kSecond);
  appear(p2_, "two");
  EXPECT_EQ(reported(), std::vector{view("one", 2.0)});  // the clock was not touched
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

TEST_F(PageViewManagerTest, AManagerMadeDisabledStaysSilentUntilEnabled) {
  PageViewManager manager(reporter_, false);
  EXPECT_FALSE(manager.isReportingEnabled());
  EXPECT_TRUE(manager_->isReportingEnabled());
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
  EXPECT_EQ(reader->seen,
            (std::vector<std::string>{"one while top is one", "two while top is two"}));
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

  for (const char* bad :
       {"", "home", "0F8FAD5B-D9CB-469F-A165-70867728950", "0F8FAD5B-D9CB-469F-A165-70867728950EE",
        "0F8FAD5BD-9CB-469F-A165-70867728950E", "0G8FAD5B-D9CB-469F-A165-70867728950E"}) {
    EXPECT_FALSE(PageID::fromString(bad)) << bad;
  }
}

// --- Fatal stop ----------------------------------------------------------------

using PageViewManagerDeathTest = PageViewManagerTest;

TEST_F(PageViewManagerDeathTest, ALaunchTimeInTheFutureStopsTheProgram) {
  testing::useThreadsafeDeathTests();
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
