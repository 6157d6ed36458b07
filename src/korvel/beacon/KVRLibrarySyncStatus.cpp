#include <korvel/beacon/KVRLibrarySyncStatus.h>
#include <korvel/beacon/internal/KVRLibrarySyncStatusJSON.h>

#include <array>
#include <limits>
#include <stdexcept>
#include <string_view>

#include <nlohmann/json.hpp>

namespace korvel {

namespace {

// Statuses from 1 up. Sync being on is the default: 0, negatives and any
// status added later all read "icloudon".
constexpr std::array<std::string_view, 6> kStatusWords = {
    "optout", "notdetermined", "noicloudaccess", "restricted", "icloudfull",
    "temporarilyunavailable",
};
constexpr std::string_view kStatusFallback = "icloudon";

}  // namespace

nlohmann::json beacon::internal::toJSON(KVRLibrarySyncStatusValue value) { return nlohmann::json(value.rawValue()); }

KVRLibrarySyncStatusValue beacon::internal::librarySyncStatusFromJSON(const nlohmann::json& json) {
  if (json.is_number_integer() && !json.is_number_unsigned()) {
    return KVRLibrarySyncStatusValue(json.get<int64_t>());
  }
  if (json.is_number_unsigned()) {
    const auto raw = json.get<uint64_t>();
    if (raw <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return KVRLibrarySyncStatusValue(static_cast<int64_t>(raw));
    }
    throw std::invalid_argument("KVRLibrarySyncStatusValue: " + json.dump() +
                                " does not fit a signed 64-bit raw value");
  }
  throw std::invalid_argument("KVRLibrarySyncStatusValue: expected one integer, got " +
                              std::string(json.type_name()) + " " + json.dump());
}

void to_json(nlohmann::json& json, const KVRLibrarySyncStatusValue& value) {
  json = beacon::internal::toJSON(value);
}

void from_json(const nlohmann::json& json, KVRLibrarySyncStatusValue& value) {
  value = beacon::internal::librarySyncStatusFromJSON(json);
}

std::string KVRLibrarySyncStatusWord(KVRLibrarySyncStatusValue status) {
  const int64_t first = KVRLibrarySyncStatusOptOut.rawValue();
  const int64_t raw = status.rawValue();
  if (raw < first || static_cast<uint64_t>(raw - first) >= kStatusWords.size()) {
    return std::string(kStatusFallback);
  }
  return std::string(kStatusWords[static_cast<size_t>(raw - first)]);
}

}  // namespace korvel
