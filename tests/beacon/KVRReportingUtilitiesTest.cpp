#include <korvel/beacon/KVRReportingUtilities.h>

#include <gtest/gtest.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <korvel/beacon/KVRLogging.h>
#include "support/TestEnv.h"
#include "support/DeathTests.h"

namespace korvel {
namespace {

using testing::TestEnv;

TEST(KVRReportingUtilitiesTest, BeaconTimeStringsAreWholeMilliseconds) {
  struct Case {
    double seconds;
    const char* text;
  };
  const std::vector<Case> cases = {
      // 1.2345 * 1000 rounds to exactly 1234.5 in binary64, and "%.0f"
      // rounds that tie to the even neighbour: 1234. The next tie, 1235.5,
      // goes up to 1236; 2000.5000000000002 is no tie and goes up.
      {1.2345, "1234"},
      {1.2355, "1236"},
      {2.0005, "2001"},
      {0, "0"},
      {2.5, "2500"},
      {0.0016, "2"},
      {-1.5, "-1500"},
      {-2.0004, "-2000"},
      {1700000000.123, "1700000000123"},
      {1e12, "1000000000000000"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(KVRReportingUtilities::beaconFormattedTimeStringForTimeInterval(c.seconds), c.text)
        << c.seconds;
  }
}

// However large, the text is the whole number, never cut short: compared
// with an independent fixed-notation formatter.
TEST(KVRReportingUtilitiesTest, HugeIntervalsKeepEveryDigit) {
  for (double seconds : {1e20, 1e70, -3.5e150, 1.7976931348623157e305}) {
    char expected[400];
    const double millis = seconds * 1000.0;
    const auto end =
        std::to_chars(expected, expected + sizeof expected, millis, std::chars_format::fixed, 0);
    ASSERT_EQ(end.ec, std::errc());
    EXPECT_EQ(KVRReportingUtilities::beaconFormattedTimeStringForTimeInterval(seconds),
              std::string(expected, end.ptr))
        << seconds;
  }
}

TEST(KVRReportingUtilitiesTest, DefaultParameterBuilders) {
  using U = KVRReportingUtilities;
  const auto userEvent = U::defaultUserEventBeaconParametersOfType("share");
  EXPECT_EQ(userEvent, (KVRParameters{{"type", "share"}}));
  EXPECT_EQ(userEvent.size(), 1u);
  EXPECT_TRUE(U::defaultUserEventBeaconParametersOfType(std::nullopt).empty());
  // An empty word from the caller is still written.
  EXPECT_EQ(U::defaultUserEventBeaconParametersOfType(""), (KVRParameters{{"type", ""}}));

  EXPECT_EQ(U::defaultErrorBeaconParametersWithErrorCode("E42"), (KVRParameters{{"code", "E42"}}));
  EXPECT_TRUE(U::defaultErrorBeaconParametersWithErrorCode(std::nullopt).empty());
  EXPECT_EQ(U::defaultErrorBeaconParametersWithErrorCode(""), (KVRParameters{{"code", ""}}));

  // Each call starts a fresh dictionary.
  auto first = U::defaultUserEventBeaconParametersOfType("a");
  first.set("extra", 1);
  EXPECT_EQ(U::defaultUserEventBeaconParametersOfType("a").size(), 1u);
}

TEST(KVRReportingUtilitiesTest, CurrentTimeIsSecondsSince1970FromTheEnv) {
  TestEnv env;
  platform::ScopedEnv scope(env);
  env.setNow(1234567890.25);
  EXPECT_EQ(KVRReportingUtilities::timeIntervalSinceReferenceDate(), 1234567890.25);
}

// The subsystem is fixed by the first read in a process, so each row runs in
// a process of its own (a death test that re-runs the program, not a fork
// that would inherit this process's value).
TEST(KVRLoggingTest, SubsystemIsComputedOnceFromTheBundleIdentifier) {
  testing::useThreadsafeDeathTests();
  struct Row {
    std::optional<std::string> bundle;
    const char* subsystem;
  };
  const std::vector<Row> rows = {{"com.korvel.host", "com.korvel.host"},
                                 {std::nullopt, "Unknown bundle"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.subsystem);
    EXPECT_EXIT(
        {
          TestEnv env;
          platform::ScopedEnv scope(env);
          env.setMainBundleIdentifier(row.bundle);
          const std::string first = KVRLogging::subsystem();
          // A later change of the bundle identifier changes neither the
          // subsystem nor the page-view logger, whichever is asked first.
          env.setMainBundleIdentifier("com.korvel.later");
          const auto& logger = KVRLogging::pageViewLogger();
          logger.log("page closed");
          const auto records = env.logs().records();
          const bool agree = first == row.subsystem && KVRLogging::subsystem() == first &&
                             logger.subsystem() == first && records.size() == 1 &&
                             records[0].subsystem == first;
          std::fprintf(stderr, "subsystem %s, later %s, logger %s\n", first.c_str(),
                       KVRLogging::subsystem().c_str(), logger.subsystem().c_str());
          std::exit(agree ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
  }
  EXPECT_EQ(KVRLogging::categoryPageView(), "PageView");
  EXPECT_EQ(KorvelReportingLogging::categoryPageView(), "PageView");
}

// What it writes, and at which level, the page view manager's tests read.
TEST(KVRLoggingTest, PageViewLoggerIsMadeOnce) {
  const auto& logger = KVRLogging::pageViewLogger();
  EXPECT_EQ(&logger, &KVRLogging::pageViewLogger());
  EXPECT_EQ(std::pair(logger.subsystem(), logger.category()),
            std::pair(KVRLogging::subsystem(), std::string("PageView")));
}

TEST(KVRLoggingTest, VersionNumberMatchesVersionString) {
  const std::string text = KorvelReportingVersionString;
  ASSERT_FALSE(text.empty());
  // The number is the string's leading "major.minor".
  EXPECT_DOUBLE_EQ(std::stod(text), KorvelReportingVersionNumber);
  EXPECT_GT(KorvelReportingVersionNumber, 0);
}

}  // namespace
}  // namespace korvel
