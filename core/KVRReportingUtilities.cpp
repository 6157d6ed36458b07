#include "core/KVRReportingUtilities.h"

#include <array>
#include <cstdio>

#include "core/KVRConstants.h"
#include "platform/Env.h"

namespace korvel {

KVRParameters KVRReportingUtilities::defaultUserEventBeaconParametersOfType(
    std::optional<std::string_view> type) {
  KVRParameters parameters;
  parameters.set(kKVRType, type);
  return parameters;
}

KVRParameters KVRReportingUtilities::defaultErrorBeaconParametersWithErrorCode(
    std::optional<std::string_view> code) {
  KVRParameters parameters;
  parameters.set(kKVRErrorCode, code);
  return parameters;
}

std::string KVRReportingUtilities::taggingOutcomeStringForTaggingOutcome(uint64_t outcome) {
  // "background" follows "canceled" in the table, but the bound below keeps
  // it out of reach: outcome 4 reports "unknown".
  static constexpr std::array<std::string_view, 5> kWords = {"match", "nomatch", "error",
                                                             "canceled", "background"};
  if (outcome > 3) return "unknown";
  return std::string(kWords[outcome]);
}

std::string KVRReportingUtilities::beaconFormattedTimeStringForTimeInterval(double seconds) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.0f", seconds * 1000.0);
  return buf;
}

double KVRReportingUtilities::timeIntervalSinceReferenceDate() { return platform::env().now(); }

}  // namespace korvel
