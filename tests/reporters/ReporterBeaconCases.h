// Shapes shared by the reporter tests: a report operation next to the beacon
// it must put on the wire, word-table checks, and a session delegate that
// names the screen showing.
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
#include <utility>
#include <vector>

#include <korvel/beacon/KVRGlobalReportingData.h>
#include <korvel/foundation/KVRParameters.h>
#include <korvel/beacon/KVRUserSession.h>
#include "support/TestEnv.h"

namespace korvel::testing {

using WireParameters = std::vector<std::pair<std::string, std::string>>;

inline constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
inline constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();

// One report operation and the only beacon it may send.
struct BeaconCase {
  std::string name;
  std::function<void()> report;
  std::string event;
  WireParameters parameters;
};

inline void PrintTo(const BeaconCase& c, std::ostream* os) { *os << c.name; }

inline std::string beaconCaseName(const ::testing::TestParamInfo<BeaconCase>& info) {
  return info.param.name;
}

// A dictionary as the wire shows it: every value as its text, in order.
inline WireParameters wire(const KVRParameters& parameters) {
  WireParameters out;
  for (const auto& [key, value] : parameters) out.emplace_back(key, value.description());
  return out;
}

inline WireParameters operator+(WireParameters head, const WireParameters& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

// Stands, in a case's expected parameters, for the parameters of the tag the
// case reports; they depend on the test's environment, so they are filled in
// when the case runs.
inline const std::pair<std::string, std::string> kTagParameters = {"(tag parameters)", ""};

// Runs a case under a BeaconTest fixture and checks event and parameters.
inline void expectSends(const BeaconCase& c, const std::function<WireBeacon()>& onlySent,
                        const WireParameters& tagParameters = {}) {
  WireParameters expected;
  for (const auto& item : c.parameters) {
    if (item == kTagParameters) {
      expected.insert(expected.end(), tagParameters.begin(), tagParameters.end());
    } else {
      expected.push_back(item);
    }
  }
  c.report();
  const WireBeacon beacon = onlySent();
  EXPECT_EQ(beacon.event, c.event);
  EXPECT_EQ(beacon.parameters(), expected);
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
