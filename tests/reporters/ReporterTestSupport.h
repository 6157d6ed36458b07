// Table-driven checks of report operations at the wire: each case runs one
// operation and gives the exact, ordered parameters (and the event) of the
// one beacon it must send.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <korvel/foundation/KVRParameters.h>
#include <korvel/reporters/KVRTaggingReporter.h>
#include "support/TestEnv.h"

namespace korvel::testing {

using WireParameters = std::vector<std::pair<std::string, std::string>>;

// "type=nav&origin=hub" as parameters. Items split at their first "=", so a
// value may hold "=" but not "&"; "key=" is an empty value.
inline WireParameters params(std::string_view query) {
  WireParameters items;
  while (!query.empty()) {
    const std::string_view item = query.substr(0, query.find('&'));
    const size_t equals = std::min(item.find('='), item.size());
    items.emplace_back(item.substr(0, equals), item.substr(std::min(equals + 1, item.size())));
    query.remove_prefix(std::min(item.size() + 1, query.size()));
  }
  return items;
}

// "a b c" as {"a", "b", "c"}: the words of a table, in order.
inline std::vector<std::string> words(std::string_view text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = std::min(text.find(' ', start), text.size());
    if (end > start) out.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

inline WireParameters operator+(WireParameters head, const WireParameters& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

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
  WireParameters wire;
  for (const auto& [key, value] : KVRTaggingReporter::reportingParametersForTagDetails(tag)) {
    wire.emplace_back(key, value.description());
  }
  return wire;
}

// One operation and the beacon it must send (a user event unless said
// otherwise). An operation that returns something must return that
// beacon's uuid.
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

  void expectBeacons(const std::vector<ReportCase>& cases) {
    for (size_t i = 0; i < cases.size(); ++i) {
      const ReportCase& c = cases[i];
      SCOPED_TRACE("case " + std::to_string(i) + " (" + c.event + ")");
      std::optional<std::string> returned;
      const WireBeacon beacon = sendOne([&] { returned = c.report(); });
      EXPECT_EQ(beacon.event, c.event);
      EXPECT_EQ(beacon.parameters(), c.parameters);
      if (c.returnsUUID) {
        EXPECT_TRUE(returned.has_value());
        EXPECT_EQ(returned, beacon.value("clientbeaconuuid"));
      }
    }
  }
};

}  // namespace korvel::testing
