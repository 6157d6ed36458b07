// Device and account state that the host keeps current and the library reads
// whenever it builds a beacon's common parameters.
//
// A plain value: the host hands the library a copy through its user-session
// delegate, so a beacon built on another thread never sees a half-updated
// record.
#pragma once

#include <korvel/export.h>

#include <optional>
#include <string>

namespace korvel {

class KORVEL_EXPORT KVRGlobalReportingData {
 public:
  bool isLibrarySyncActive() const { return librarySyncActive_; }
  void setLibrarySyncActive(bool value) { librarySyncActive_ = value; }

  bool isAppleMusicConnected() const { return appleMusicConnected_; }
  void setAppleMusicConnected(bool value) { appleMusicConnected_ = value; }

  bool areLiveActivitiesEnabled() const { return liveActivitiesEnabled_; }
  void setAreLiveActivitiesEnabled(bool value) { liveActivitiesEnabled_ = value; }

  const std::optional<std::string>& microphonePermissionStatus() const { return microphone_; }
  void setMicrophonePermissionStatus(std::optional<std::string> v) { microphone_ = std::move(v); }

  const std::optional<std::string>& locationPermissionStatus() const { return location_; }
  void setLocationPermissionStatus(std::optional<std::string> v) { location_ = std::move(v); }

  const std::optional<std::string>& cameraPermissionStatus() const { return camera_; }
  void setCameraPermissionStatus(std::optional<std::string> v) { camera_ = std::move(v); }

  const std::optional<std::string>& notificationPermissionStatus() const { return notification_; }
  void setNotificationPermissionStatus(std::optional<std::string> v) {
    notification_ = std::move(v);
  }

  const std::optional<std::string>& appleMusicPermissionStatus() const { return musicPermission_; }
  void setAppleMusicPermissionStatus(std::optional<std::string> v) {
    musicPermission_ = std::move(v);
  }

  const std::optional<std::string>& appleMusicMemberStatus() const { return memberStatus_; }
  void setAppleMusicMemberStatus(std::optional<std::string> v) { memberStatus_ = std::move(v); }

  const std::optional<std::string>& deviceLanguage() const { return deviceLanguage_; }
  void setDeviceLanguage(std::optional<std::string> v) { deviceLanguage_ = std::move(v); }

  const std::optional<std::string>& currentScreenName() const { return currentScreenName_; }
  void setCurrentScreenName(std::optional<std::string> v) { currentScreenName_ = std::move(v); }

 private:
  bool librarySyncActive_ = false;
  bool appleMusicConnected_ = false;
  bool liveActivitiesEnabled_ = false;
  std::optional<std::string> microphone_;
  std::optional<std::string> location_;
  std::optional<std::string> camera_;
  std::optional<std::string> notification_;
  std::optional<std::string> musicPermission_;
  std::optional<std::string> memberStatus_;
  std::optional<std::string> deviceLanguage_;
  std::optional<std::string> currentScreenName_;
};

}  // namespace korvel
