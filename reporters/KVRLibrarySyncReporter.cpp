#include "reporters/KVRLibrarySyncReporter.h"

#include <array>
#include <limits>
#include <stdexcept>
#include <string_view>

#include <nlohmann/json.hpp>

#include "core/KVRConstants.h"
#include "core/KVRUserSession.h"
#include "reporters/KVRReporterSupport.h"

namespace korvel {

namespace {

// Statuses from 1 up. Sync being on is the default: 0, negatives and any
// status added later all read "icloudon".
constexpr std::array<std::string_view, 6> kStatusWords = {
    "optout", "notdetermined", "noicloudaccess", "restricted", "icloudfull",
    "temporarilyunavailable",
};
constexpr std::string_view kStatusFallback = "icloudon";

// "optout" is also status 1's word; the analytics side wants it that way.
constexpr std::array<std::string_view, 1> kAuthorizationOriginWords = {"optout"};
constexpr std::string_view kAuthorizationOriginFallback = "authmigration_anon";

}  // namespace

nlohmann::json KVRLibrarySyncStatusValue::toJSON() const { return nlohmann::json(rawValue_); }

KVRLibrarySyncStatusValue KVRLibrarySyncStatusValue::fromJSON(const nlohmann::json& json) {
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
  json = value.toJSON();
}

void from_json(const nlohmann::json& json, KVRLibrarySyncStatusValue& value) {
  value = KVRLibrarySyncStatusValue::fromJSON(json);
}

void KVRLibrarySyncReporter::reportUserAuthorizedSyncWithOrigin(
    KVRLibrarySyncAuthorizationOrigin origin) {
  KVRParameters parameters = reporting::userEvent("accountlogin");
  parameters.set(kKVRAction, "signin");
  // The origin words are never empty today; the page name stands in should
  // one ever be.
  const std::string originWord = stringFromAuthorizationOrigin(origin);
  parameters.set(kKVROrigin, originWord.empty() ? currentPageName() : originWord);
  parameters.set(kKVRProviderName, "icloud");
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRLibrarySyncReporter::reportSyncStatusPrivacyTappedWithOrigin(
    KVRLibrarySyncStatusValue status) {
  KVRParameters parameters = reporting::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, "privacy");
  parameters.set(kKVROrigin, stringFromStatusValue(status));
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

std::string KVRLibrarySyncReporter::providerStringForSettingsLibrarySyncStatus(
    KVRLibrarySyncStatusValue status) {
  return stringFromStatusValue(status);
}

std::string KVRLibrarySyncReporter::stringFromAuthorizationOrigin(
    KVRLibrarySyncAuthorizationOrigin origin) {
  return reporting::wordFor(kAuthorizationOriginWords, origin, kAuthorizationOriginFallback,
                            KVRLibrarySyncAuthorizationOriginOptOut);
}

std::string KVRLibrarySyncReporter::stringFromStatusValue(KVRLibrarySyncStatusValue status) {
  return reporting::wordFor(kStatusWords, status.rawValue(), kStatusFallback,
                            KVRLibrarySyncStatusOptOut.rawValue());
}

std::optional<std::string> KVRLibrarySyncReporter::currentPageName() {
  return KVRUserSession().currentScreenName();
}

}  // namespace korvel
