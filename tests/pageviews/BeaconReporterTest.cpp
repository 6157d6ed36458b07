#include <korvel/pageviews/BeaconReporter.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/pageviews/PageViewBeaconReporter.h>
#include <korvel/pageviews/PageViewManager.h>
#include "support/NotificationLog.h"
#include "support/TestEnv.h"
#include "support/WireText.h"
#include "support/DeathTests.h"

namespace korvel {
namespace {

using Items = std::vector<std::pair<std::string, std::string>>;
using testing::params;

class BeaconReporterTest : public testing::BeaconTest {};

TEST_F(BeaconReporterTest, EachCaseReachesTheWireAsItsDescription) {
  struct Row {
    ReportingValue value;
    const char* wire;
    KVRValue::Kind kind;
  };
  const std::vector<Row> rows = {
      {ReportingValue::boolean(true), "1", KVRValue::Kind::Bool},
      {ReportingValue::boolean(false), "0", KVRValue::Kind::Bool},
      {ReportingValue::double_(2.5), "2.5", KVRValue::Kind::Double},
      {ReportingValue::double_(44100), "44100", KVRValue::Kind::Double},
      {ReportingValue::double_(0.1), "0.1", KVRValue::Kind::Double},
      {ReportingValue::int_(2), "2", KVRValue::Kind::Int},
      {ReportingValue::int_(-7), "-7", KVRValue::Kind::Int},
      {ReportingValue::int_(std::numeric_limits<int64_t>::max()), "9223372036854775807",
       KVRValue::Kind::Int},
      {ReportingValue::string("rock & roll = 100% caf\xC3\xA9"), "rock & roll = 100% caf\xC3\xA9",
       KVRValue::Kind::String},
      {ReportingValue::string(""), "", KVRValue::Kind::String},
  };
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].wire);
    EXPECT_EQ(BeaconReporter::dictionaryValue(rows[i].value).kind(), rows[i].kind);
    BeaconReporter::report(KVRBeaconTypeUserEvent, {ReportingParameter("v", rows[i].value)}, {});
    const auto beacons = sent();
    ASSERT_EQ(beacons.size(), i + 1);
    EXPECT_EQ(beacons[i].parameters(), (Items{{"v", rows[i].wire}}));
  }
}

TEST_F(BeaconReporterTest, SendsOneBeaconOfTheCallersTypeAndReturnsItsUUID) {
  env_.queueUUIDs({"5A3C1E2B-0000-4000-8000-00000000CAFE"});
  const auto uuid = BeaconReporter::report(
      KVRBeaconTypePageView,
      {ReportingParameter(std::string(kKVRScreenName), ReportingValue::string("home")),
       ReportingParameter::headphonesConnected(1)},
      {});
  EXPECT_EQ(uuid, "5A3C1E2B-0000-4000-8000-00000000CAFE");

  const auto beacon = onlySent();
  EXPECT_EQ(std::tuple(beacon.event, beacon.value(std::string(KVRBeaconUUIDKey)),
                       beacon.value("screenname"), beacon.value("headphones")),
            std::tuple("pageview", uuid, "home", "1"));
  EXPECT_EQ(beacon.parameters().size(), 2u);
}

TEST_F(BeaconReporterTest, ServerProvidedParametersOverrideTypedOnes) {
  BeaconReporter::report(
      KVRBeaconTypePageView,
      {ReportingParameter(std::string(kKVRScreenName), ReportingValue::string("typed")),
       ReportingParameter::tagID("tag-1")},
      KVRParameters{{kKVRScreenName, "server"}, {"cohort", "b"}, {"rank", 3}});

  auto parameters = onlySent().parameters();
  std::sort(parameters.begin(), parameters.end());
  EXPECT_EQ(parameters,
            params("cohort=b&rank=3&screenname=server&tagid=tag-1"));
}

TEST_F(BeaconReporterTest, OneEntrySurvivesForAKeyHeldByTwoCases) {
  BeaconReporter::report(KVRBeaconTypeUserEvent,
                         {ReportingParameter("a", ReportingValue::int_(1)),
                          ReportingParameter("a", ReportingValue::string("x")),
                          ReportingParameter("a", ReportingValue::boolean(false))},
                         {});
  const auto parameters = onlySent().parameters();
  ASSERT_EQ(parameters.size(), 1u);
  EXPECT_EQ(parameters[0].first, "a");
  EXPECT_TRUE(parameters[0].second == "1" || parameters[0].second == "x" ||
              parameters[0].second == "0")
      << parameters[0].second;
}

TEST_F(BeaconReporterTest, NothingToSayStillSendsOneBeaconOfTheType) {
  const auto uuid = BeaconReporter::report(KVRBeaconTypePageView, {}, {});
  const auto beacon = onlySent();
  EXPECT_EQ(beacon.event, "pageview");
  EXPECT_TRUE(beacon.parameters().empty());
  EXPECT_EQ(beacon.value(std::string(KVRBeaconUUIDKey)), uuid);
}

TEST_F(BeaconReporterTest, WithoutAnEndpointTheBeaconIsMadeButNotSubmitted) {
  KVNConfiguration::sharedInstance().update(
      [](KVNConfiguration::Snapshot& s) { s.beacons.beaconEndpoint = ""; });

  testing::NotificationLog log(env_.notificationCenter());
  env_.queueUUIDs({"11111111-2222-4333-8444-555555555555"});
  const auto uuid = BeaconReporter::report(KVRBeaconTypePageView,
                                           {ReportingParameter::trackID("t")}, {});
  EXPECT_EQ(uuid, "11111111-2222-4333-8444-555555555555");
  const auto created = log.created();
  ASSERT_EQ(created.size(), 1u);
  EXPECT_EQ(created[0].find(KVRBeaconParametersJSONKey)->asDictionary()->stringForKey(
                KVRBeaconUUIDKey),
            uuid);
  EXPECT_EQ(executor_->count(), 0u);
  EXPECT_TRUE(submitted().empty());
}

// The page-view reporter hosts use: one "pageview" beacon per visible
// stretch, its duration in seconds like every other "duration" on the wire.
TEST_F(BeaconReporterTest, PageViewsGoOutWithTheirNameAndSecondsVisible) {
  auto reporter = std::make_shared<PageViewBeaconReporter>();
  PageViewManager pages(reporter, true);
  struct Row {
    const char* name;
    uint64_t visibleNanos;
    ReportingParameters parameters;
    Items wire;  // sorted
  };
  const std::vector<Row> rows = {
      {"home", 1'500'000'000, {ReportingParameter::headphonesConnected(1)},
       {{"duration", "1.5"}, {"headphones", "1"}, {"screenname", "home"}}},
      {"search", 2'000'000, {}, {{"duration", "0.002"}, {"screenname", "search"}}},
      {"track", 61'000'000'000, {}, {{"duration", "61"}, {"screenname", "track"}}},
      // The page's own name and duration replace parameters under those keys.
      {"artist", 250'000'000,
       {ReportingParameter(std::string(kKVRDuration), ReportingValue::int_(250)),
        ReportingParameter(std::string(kKVRScreenName), ReportingValue::string("stale")),
        ReportingParameter::tagID("t")},
       {{"duration", "0.25"}, {"screenname", "artist"}, {"tagid", "t"}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    executor_->clear();
    const auto page = PageID::make();
    pages.trackPageAppeared(page, PageName(row.name), row.parameters);
    env_.advanceMonotonic(row.visibleNanos);
    pages.trackPageClosed(page);
    const auto beacon = onlySent();
    EXPECT_EQ(beacon.event, "pageview");
    auto parameters = beacon.parameters();
    std::sort(parameters.begin(), parameters.end());
    EXPECT_EQ(parameters, row.wire);
  }
}

// While reporting is off (the user opted out, the library was shut down)
// the dispatcher makes no beacon. That is the host's ordinary state, not a
// programming error: report answers no uuid, and a page view going out
// through the manager neither stops the program nor sends anything.
TEST_F(BeaconReporterTest, WhileReportingIsOffThereIsNoUUIDAndTheProgramGoesOn) {
  auto pages = std::make_shared<PageViewManager>(std::make_shared<PageViewBeaconReporter>(), true);
  KVRBeacon::setReportingAllowed(false);
  const std::vector<KVRBeaconType> types = {KVRBeaconTypePageView, KVRBeaconTypeUserEvent,
                                            KVRBeaconTypeStartup, KVRBeaconTypePerformance};
  for (const auto type : types) {
    EXPECT_EQ(BeaconReporter::report(type, {ReportingParameter::trackID("t")}, {{"k", "v"}}), "")
        << type;
  }
  const auto page = PageID::make();
  pages->trackPageAppeared(page, PageName("home"), {});
  env_.advanceMonotonic(230'000'000);
  pages->trackPageClosed(page);
  KVRBeacon::setReportingAllowed(true);
  EXPECT_TRUE(submitted().empty());

  // Allowed again: the same calls send and answer the beacon's uuid.
  const auto uuid = BeaconReporter::report(KVRBeaconTypePageView, {}, {});
  EXPECT_EQ(onlySent().value(std::string(KVRBeaconUUIDKey)), uuid);
}

using BeaconReporterDeathTest = BeaconReporterTest;

TEST_F(BeaconReporterDeathTest, ATypeWithoutABeaconStopsTheProgram) {
  testing::useThreadsafeDeathTests();
  EXPECT_DEATH(BeaconReporter::report(static_cast<KVRBeaconType>(0), {}, {}),
               "made no beacon for type 0");
  EXPECT_DEATH(BeaconReporter::report(static_cast<KVRBeaconType>(21), {}, {}),
               "made no beacon for type 21");
}

}  // namespace
}  // namespace korvel
