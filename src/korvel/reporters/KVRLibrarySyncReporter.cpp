#include <korvel/reporters/KVRLibrarySyncReporter.h>

#include <array>
#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

// "optout" is also status 1's word; the analytics side wants it that way.
constexpr std::array<std::string_view, 1> kAuthorizationOriginWords = {"optout"};
constexpr std::string_view kAuthorizationOriginFallback = "authmigration_anon";

}  // namespace

void KVRLibrarySyncReporter::reportUserAuthorizedSyncWithOrigin(
    KVRLibrarySyncAuthorizationOrigin origin) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent("accountlogin");
  parameters.set(kKVRAction, "signin");
  // The origin words are never empty today; the page name stands in should
  // one ever be.
  const std::string originWord = stringFromAuthorizationOrigin(origin);
  parameters.set(kKVROrigin, originWord.empty() ? currentPageName() : originWord);
  parameters.set(kKVRProviderName, "icloud");
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRLibrarySyncReporter::reportUserAuthorizedSyncWithOrigin");
}

void KVRLibrarySyncReporter::reportSyncStatusPrivacyTappedWithOrigin(
    KVRLibrarySyncStatusValue status) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, "privacy");
  parameters.set(kKVROrigin, stringFromStatusValue(status));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRLibrarySyncReporter::reportSyncStatusPrivacyTappedWithOrigin");
}

std::string KVRLibrarySyncReporter::providerStringForSettingsLibrarySyncStatus(
    KVRLibrarySyncStatusValue status) {
  return stringFromStatusValue(status);
}

std::string KVRLibrarySyncReporter::stringFromAuthorizationOrigin(
    KVRLibrarySyncAuthorizationOrigin origin) {
  return reporters::internal::wordFor(kAuthorizationOriginWords, origin, kAuthorizationOriginFallback,
                            KVRLibrarySyncAuthorizationOriginOptOut);
}

std::string KVRLibrarySyncReporter::stringFromStatusValue(KVRLibrarySyncStatusValue status) {
  return KVRLibrarySyncStatusWord(status);
}

std::optional<std::string> KVRLibrarySyncReporter::currentPageName() {
  return KVRUserSession().currentScreenName();
}

}  // namespace korvel
