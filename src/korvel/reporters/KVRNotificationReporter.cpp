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
    const KVRParameters& beaconData) {
  KVRParameters parameters{{kKVRType, kNotificationType}};
  parameters.merge(beaconData);
  reporting::send(KVRBeaconTypeDeepLink, parameters);
}

void KVRNotificationReporter::reportAutoMatchNotificationSent() {
  KVRParameters parameters = reporting::userEvent("actionablenotificationsent");
  parameters.set(kKVRScreenName, "automatched");
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRNotificationReporter::reportBackgroundMatchLocalNotificationSent(
    const std::optional<std::string>& trackID) {
  KVRParameters parameters = notificationFrom("background_tag");
  parameters.set(kKVRTrackIdKey, trackID);
  reporting::send(KVRBeaconTypeImpression, parameters);
}

// Posting and tapping the no-match notification carry the same keys; only
// the beacon type tells them apart.
void KVRNotificationReporter::reportBackgroundNoMatchLocalNotificationSent() {
  reporting::send(KVRBeaconTypeImpression, notificationFrom("background_nomatch"));
}

void KVRNotificationReporter::reportBackgroundNoMatchLocalNotificationTapped() {
  reporting::send(KVRBeaconTypeDeepLink, notificationFrom("background_nomatch"));
}

}  // namespace korvel
