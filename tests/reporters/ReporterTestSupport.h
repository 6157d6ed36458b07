// Table-driven checks of report operations at the wire: each case runs one
// operation and gives the exact, ordered parameters (and the event) of the
// one beacon it must send; word-table checks; a session delegate that names
// the screen showing.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <korvel/beacon/KVRGlobalReportingData.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/foundation/KVRParameters.h>
#include <korvel/reporters/KVRTaggingReporter.h>
#include "support/TestEnv.h"
#include "support/WireText.h"

namespace korvel::testing {

inline constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
inline constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();

// A dictionary as the wire shows it: every value as its text, in order.
inline WireParameters wire(const KVRParameters& parameters) {
  WireParameters out;
  for (const auto& [key, value] : parameters) out.emplace_back(key, value.description());
  return out;
}

// Stands, in a case's expected parameters, for the parameters of the tag the
// case reports ("{tag}" in a query); they depend on the test's environment,
// so they are filled in when the case runs.
inline const std::pair<std::string, std::string> kTagParameters = {"{tag}", ""};

// A tag with a track, so that merges and the track key copy show.
inline KVRTagDetails sampleTag() {
  KVRTagDetails tag;
  tag.tagID = "TAG-1";
  tag.trackID = "TRACKKEY-1";
  tag.adamID = "ADAM-1";
  return tag;
}

// The tag's parameters as the wire shows them now (without a tag, only the
// device's orientation).
inline WireParameters tagWire(const KVRTagDetails* tag) {
  return wire(KVRTaggingReporter::reportingParametersForTagDetails(tag));
}

// One operation and the beacon it must send (a user event unless said
// otherwise). An operation that returns something must return that
// beacon's uuid. A named case serves as a test parameter.
struct ReportCase {
  template <class F>
  ReportCase(F operation, WireParameters expected, std::string event = "userevent")
      : event(std::move(event)), parameters(std::move(expected)) {
    if constexpr (std::is_void_v<std::invoke_result_t<F>>) {
      report = [operation] {
        operation();
        return std::optional<std::string>();
      };
    } else {
      report = operation;
      returnsUUID = true;
    }
  }
  template <class F>
  ReportCase(F operation, std::string_view query, std::string event = "userevent")
      : ReportCase(operation, params(query), std::move(event)) {}
  template <class F>
  ReportCase(std::string name, F operation, std::string event, WireParameters expected)
      : ReportCase(operation, std::move(expected), std::move(event)) {
    this->name = std::move(name);
  }
  template <class F>
  ReportCase(std::string name, F operation, std::string event, std::string_view query)
      : ReportCase(std::move(name), operation, std::move(event), params(query)) {}

  std::string name;
  std::string event;
  WireParameters parameters;
  std::function<std::optional<std::string>()> report;
  bool returnsUUID = false;
};

class ReporterTest : public BeaconTest {
 protected:
  // The one beacon the operation sends.
  WireBeacon sendOne(const std::function<void()>& operation) {
    executor_->clear();
    operation();
    const auto all = sent();
    EXPECT_EQ(all.size(), 1u) << "expected exactly one beacon";
    return all.empty() ? WireBeacon{} : all.front();
  }

  // kTagParameters in the expected parameters stands for tagParameters.
  void expectBeacon(const ReportCase& c, const WireParameters& tagParameters = {}) {
    WireParameters expected;
    for (const auto& item : c.parameters) {
      if (item == kTagParameters) {
        expected.insert(expected.end(), tagParameters.begin(), tagParameters.end());
      } else {
        expected.push_back(item);
      }
    }
    std::optional<std::string> returned;
    const WireBeacon beacon = sendOne([&] { returned = c.report(); });
    EXPECT_EQ(beacon.event, c.event);
    EXPECT_EQ(beacon.parameters(), expected);
    if (c.returnsUUID) {
      EXPECT_TRUE(returned.has_value());
      EXPECT_EQ(returned, beacon.value("clientbeaconuuid"));
    }
  }

  void expectBeacons(const std::vector<ReportCase>& cases,
                     const WireParameters& tagParameters = {}) {
    for (size_t i = 0; i < cases.size(); ++i) {
      SCOPED_TRACE("case " + std::to_string(i) + " (" + cases[i].event + ")");
      expectBeacon(cases[i], tagParameters);
    }
  }
};

// A parameterised suite of named cases: TEST_P(Suite, ...) calls
// expectBeacon(GetParam(), ...); INSTANTIATE_TEST_SUITE_P(..., reportCaseName).
class ReportCaseTest : public ReporterTest, public ::testing::WithParamInterface<ReportCase> {};

inline void PrintTo(const ReportCase& c, std::ostream* os) { *os << c.name; }

inline std::string reportCaseName(const ::testing::TestParamInfo<ReportCase>& info) {
  return info.param.name;
}

// A word table: map(first + i) is the i-th word of table, and every value
// outside the table (next to both ends, -1, 0 and the int64 extremes) gives
// outside.
template <class Map, class Outside>
void expectWordTable(Map map, int64_t first, std::string_view table, const Outside& outside) {
  const auto expected = words(table);
  const auto last = first + static_cast<int64_t>(expected.size()) - 1;
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(map(first + static_cast<int64_t>(i)), expected[i]) << "for value " << first + i;
  }
  for (const int64_t value : {kInt64Min, int64_t{-1}, int64_t{0}, first - 1, last + 1, kInt64Max}) {
    if (value < first || value > last) {
      EXPECT_EQ(map(value), outside) << "for value " << value;
    }
  }
}

// Checks a mapping operation against (value, expected result) rows.
template <class Map, class Result>
void expectMapping(Map map, std::initializer_list<std::pair<int64_t, Result>> rows) {
  for (const auto& [value, expected] : rows) {
    EXPECT_EQ(map(value), expected) << "for value " << value;
  }
}


// A host delegate whose global reporting data names the current screen and
// whose session data carries a library sync state.
class ScreenNameDelegate : public KVRUserSessionDelegate {
 public:
  explicit ScreenNameDelegate(std::optional<std::string> screenName,
                              uint64_t librarySyncSessionState = 0) {
    auto global = std::make_shared<KVRGlobalReportingData>();
    global->setCurrentScreenName(std::move(screenName));
    global_ = std::move(global);
    auto session = std::make_shared<KVRUserSessionData>();
    session->setLibrarySyncSessionState(librarySyncSessionState);
    session_ = std::move(session);
  }

  std::shared_ptr<const KVRGlobalReportingData> globalReportingData() override { return global_; }
  std::shared_ptr<const KVRUserSessionData> userSessionData() override { return session_; }
  bool shouldSendUserSessionBeacon() override { return true; }

 private:
  std::shared_ptr<const KVRGlobalReportingData> global_;
  std::shared_ptr<const KVRUserSessionData> session_;
};

// A beacon's parameters without the ones a delegate adds to every beacon.
inline WireParameters withoutDelegateParameters(const WireBeacon& beacon) {
  static const std::vector<std::string> kCommon = {"aa", "amc", "live_activities", "screenname"};
  WireParameters out;
  for (const auto& item : beacon.parameters()) {
    if (std::find(kCommon.begin(), kCommon.end(), item.first) == kCommon.end()) {
      out.push_back(item);
    }
  }
  return out;
}

}  // namespace korvel::testing
