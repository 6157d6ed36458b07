// Notifications: opened by the user, and the local notifications the app
// posts after a recognition in the background.
#pragma once

#include <korvel/export.h>

#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KORVEL_EXPORT KVRNotificationReporter {
 public:
  KVRNotificationReporter() = delete;

  // The notification's own beacon data is sent along and may name its own
  // "type".
  static void reportNotificationOpenedWithBeaconData(const KVRParameters& beaconData) noexcept;
  static void reportAutoMatchNotificationSent() noexcept;
  static void reportBackgroundMatchLocalNotificationSent(
      const std::optional<std::string>& trackID) noexcept;
  static void reportBackgroundNoMatchLocalNotificationSent() noexcept;
  static void reportBackgroundNoMatchLocalNotificationTapped() noexcept;
};

}  // namespace korvel
