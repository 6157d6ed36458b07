#include <korvel/beacon/KVRReportingUtilities.h>

#include <array>
#include <cstdio>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/platform/Env.h>

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
  const double millis = seconds * 1000.0;
  char buf[64];
  const int length = std::snprintf(buf, sizeof buf, "%.0f", millis);
  if (length < static_cast<int>(sizeof buf)) return buf;
  // A double can need over 300 digits; print again at full size.
  std::string text(static_cast<size_t>(length), '\0');
  std::snprintf(text.data(), text.size() + 1, "%.0f", millis);
  return text;
}

double KVRReportingUtilities::timeIntervalSinceReferenceDate() { return platform::env().now(); }

}  // namespace korvel
