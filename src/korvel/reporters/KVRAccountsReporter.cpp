#include <korvel/reporters/KVRAccountsReporter.h>

#include <array>
#include <optional>
#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/foundation/KVNError.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

constexpr std::array<std::string_view, 1> kProviderWords = {kKVRProviderSpotifyValue};
constexpr std::string_view kProviderFallback = kKVRProviderAppleMusicValue;

constexpr std::string_view kStreamingServiceKey = "streamingservice";

// The outcome travels as the "providername" of a "migration" impression.
void reportMigration(std::string_view outcome, KVRAccountsProvider account,
                     const KVNError* error) {
  KVRParameters parameters{{kKVRType, "migration"}, {kKVRProviderName, outcome}};
  if (error != nullptr) parameters.set(kKVRErrorKey, error->description());
  parameters.set(kStreamingServiceKey,
                 KVRAccountsReporter::accountsProviderStringFromAccountsProvider(account));
  reporters::internal::send(KVRBeaconTypeImpression, parameters);
}

}  // namespace

void KVRAccountsReporter::reportSuccessfulAccountMigrationImpressionForAccount(
    KVRAccountsProvider account) noexcept try {
  reportMigration(kKVRSuccess, account, nullptr);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRAccountsReporter::reportSuccessfulAccountMigrationImpressionForAccount");
}

void KVRAccountsReporter::reportFailedAccountMigrationImpressionForAccount(
    KVRAccountsProvider account, const KVNError* withError) noexcept try {
  reportMigration("failure", account, withError);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRAccountsReporter::reportFailedAccountMigrationImpressionForAccount");
}

std::string KVRAccountsReporter::accountsProviderStringFromAccountsProvider(
    KVRAccountsProvider provider) {
  return reporters::internal::wordFor(kProviderWords, provider, kProviderFallback, KVRAccountsProviderSpotify);
}

}  // namespace korvel
