// Migration of the user's account to a streaming service.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <string>

namespace korvel {

class KVNError;

using KVRAccountsProvider = int64_t;
inline constexpr KVRAccountsProvider KVRAccountsProviderAppleMusic = 0;
inline constexpr KVRAccountsProvider KVRAccountsProviderSpotify = 1;

class KORVEL_EXPORT KVRAccountsReporter {
 public:
  KVRAccountsReporter() = delete;

  static void reportSuccessfulAccountMigrationImpressionForAccount(
      KVRAccountsProvider account) noexcept;
  // The error's description goes along when there is one.
  static void reportFailedAccountMigrationImpressionForAccount(KVRAccountsProvider account,
                                                               const KVNError* withError) noexcept;

  // 1 "spotify", anything else "applemusic".
  static std::string accountsProviderStringFromAccountsProvider(KVRAccountsProvider provider);
};

}  // namespace korvel
