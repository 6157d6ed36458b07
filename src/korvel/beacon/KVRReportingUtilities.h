// Small shared helpers every reporter uses to start its parameters and to
// format values.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KORVEL_EXPORT KVRReportingUtilities {
 public:
  KVRReportingUtilities() = delete;

  // {"type": type}; an empty dictionary when no type is given.
  static KVRParameters defaultUserEventBeaconParametersOfType(
      std::optional<std::string_view> type);
  // {"code": code}; an empty dictionary when no code is given.
  static KVRParameters defaultErrorBeaconParametersWithErrorCode(
      std::optional<std::string_view> code);

  // 0 "match", 1 "nomatch", 2 "error", 3 "canceled", anything else "unknown".
  static std::string taggingOutcomeStringForTaggingOutcome(uint64_t outcome);

  // The interval in whole milliseconds, rounded, as text ("%.0f" of t × 1000).
  static std::string beaconFormattedTimeStringForTimeInterval(double seconds);

  // The current time in seconds since 1970 (the name is historical).
  static double timeIntervalSinceReferenceDate();
};

}  // namespace korvel
