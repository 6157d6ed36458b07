// Library sync with iCloud: the user allowing it, and the sync status the
// settings screen shows. The user session also reads the status words to
// describe its library sync state in the session beacon.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

#include <korvel/beacon/KVRLibrarySyncStatus.h>

namespace korvel {

// Why the user was asked to allow library sync.
using KVRLibrarySyncAuthorizationOrigin = int64_t;
inline constexpr KVRLibrarySyncAuthorizationOrigin KVRLibrarySyncAuthorizationOriginAuthMigrationAnon = 0;
inline constexpr KVRLibrarySyncAuthorizationOrigin KVRLibrarySyncAuthorizationOriginOptOut = 1;

class KORVEL_EXPORT KVRLibrarySyncReporter {
 public:
  KVRLibrarySyncReporter() = delete;

  static void reportUserAuthorizedSyncWithOrigin(KVRLibrarySyncAuthorizationOrigin origin) noexcept;
  static void reportSyncStatusPrivacyTappedWithOrigin(KVRLibrarySyncStatusValue status) noexcept;

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
