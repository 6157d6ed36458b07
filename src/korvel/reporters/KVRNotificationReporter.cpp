#include <korvel/reporters/KVRNotificationReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

constexpr std::string_view kNotificationType = "notification";

KVRParameters notificationFrom(std::string_view referer) {
  return KVRParameters{{kKVRType, kNotificationType}, {kKVRDeeplinkReferer, referer}};
}

}  // namespace

void KVRNotificationReporter::reportNotificationOpenedWithBeaconData(
    const KVRParameters& beaconData) noexcept try {
  KVRParameters parameters{{kKVRType, kNotificationType}};
  parameters.merge(beaconData);
  reporters::internal::send(KVRBeaconTypeDeepLink, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRNotificationReporter::reportNotificationOpenedWithBeaconData");
}

void KVRNotificationReporter::reportAutoMatchNotificationSent() noexcept try {
  KVRParameters parameters = reporters::internal::userEvent("actionablenotificationsent");
  parameters.set(kKVRScreenName, "automatched");
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRNotificationReporter::reportAutoMatchNotificationSent");
}

void KVRNotificationReporter::reportBackgroundMatchLocalNotificationSent(
    const std::optional<std::string>& trackID) noexcept try {
  KVRParameters parameters = notificationFrom("background_tag");
  parameters.set(kKVRTrackIdKey, trackID);
  reporters::internal::send(KVRBeaconTypeImpression, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRNotificationReporter::reportBackgroundMatchLocalNotificationSent");
}

// Posting and tapping the no-match notification carry the same keys; only
// the beacon type tells them apart.
void KVRNotificationReporter::reportBackgroundNoMatchLocalNotificationSent() noexcept try {
  reporters::internal::send(KVRBeaconTypeImpression, notificationFrom("background_nomatch"));
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRNotificationReporter::reportBackgroundNoMatchLocalNotificationSent");
}

void KVRNotificationReporter::reportBackgroundNoMatchLocalNotificationTapped() noexcept try {
  reporters::internal::send(KVRBeaconTypeDeepLink, notificationFrom("background_nomatch"));
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRNotificationReporter::reportBackgroundNoMatchLocalNotificationTapped");
}

}  // namespace korvel
