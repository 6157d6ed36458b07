// Library sync with iCloud: the user allowing it, and the sync status the
// settings screen shows. The user session also reads the status words to
// describe its library sync state in the session beacon.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace korvel {

// Why the user was asked to allow library sync.
using KVRLibrarySyncAuthorizationOrigin = int64_t;
inline constexpr KVRLibrarySyncAuthorizationOrigin KVRLibrarySyncAuthorizationOriginAuthMigrationAnon = 0;
inline constexpr KVRLibrarySyncAuthorizationOrigin KVRLibrarySyncAuthorizationOriginOptOut = 1;

// The state of library sync as settings shows it. Wraps any raw value: the
// app may hand over states this library does not know yet, and those read as
// sync being on.
class KVRLibrarySyncStatusValue {
 public:
  constexpr KVRLibrarySyncStatusValue() = default;
  constexpr explicit KVRLibrarySyncStatusValue(int64_t rawValue) : rawValue_(rawValue) {}

  constexpr int64_t rawValue() const { return rawValue_; }

  // The encoded form is the raw value alone, as one JSON integer.
  nlohmann::json toJSON() const;
  // Accepts one JSON integer that fits a signed 64-bit value; anything else
  // throws std::invalid_argument naming what it got.
  static KVRLibrarySyncStatusValue fromJSON(const nlohmann::json& json);

  friend constexpr bool operator==(KVRLibrarySyncStatusValue, KVRLibrarySyncStatusValue) = default;

 private:
  int64_t rawValue_ = 0;
};

// The statuses with a word of their own; everything else is "icloudon".
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusICloudOn{0};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusOptOut{1};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusNotDetermined{2};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusNoICloudAccess{3};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusRestricted{4};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusICloudFull{5};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusTemporarilyUnavailable{6};

// For nlohmann::json's own conversions (json j = status; j.get<...>()).
void to_json(nlohmann::json& json, const KVRLibrarySyncStatusValue& value);
void from_json(const nlohmann::json& json, KVRLibrarySyncStatusValue& value);

class KVRLibrarySyncReporter {
 public:
  KVRLibrarySyncReporter() = delete;

  static void reportUserAuthorizedSyncWithOrigin(KVRLibrarySyncAuthorizationOrigin origin);
  static void reportSyncStatusPrivacyTappedWithOrigin(KVRLibrarySyncStatusValue status);

  // The status word, for the app to use as a provider name.
  static std::string providerStringForSettingsLibrarySyncStatus(KVRLibrarySyncStatusValue status);
  // 1 "optout", anything else "authmigration_anon".
  static std::string stringFromAuthorizationOrigin(KVRLibrarySyncAuthorizationOrigin origin);
  // 1 "optout" ... 6 "temporarilyunavailable"; 0 and anything unknown "icloudon".
  static std::string stringFromStatusValue(KVRLibrarySyncStatusValue status);
  // The screen the app says is showing now.
  static std::optional<std::string> currentPageName();
};

}  // namespace korvel
