// The user's actions that belong to no single screen: sharing, shortcuts,
// support requests, the about-page easter egg, the hub and overflow buttons,
// scrolling, the welcome screen, the privacy link, the auto-recognition
// switch, opening an item in a music or video service, the rerun and offline
// overlays, the featured-in button, wrong-song feedback and app updates.
// Every one is a user-event beacon.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

struct KVRTagDetails;

// 0 asks for help; every other value is a diagnostic report.
using KVRSupportRequestType = uint64_t;
inline constexpr KVRSupportRequestType KVRSupportRequestTypeGetHelp = 0;
inline constexpr KVRSupportRequestType KVRSupportRequestTypeDiagnosticReport = 1;

class KORVEL_EXPORT KVRUserEventReporter {
 public:
  KVRUserEventReporter() = delete;

  // Sharing. additionalBeaconData is merged last, so the host can override
  // anything, "type" included.
  static std::optional<std::string> reportShareActionWithAdditionalBeaconData(
      const std::optional<KVRParameters>& additionalBeaconData) noexcept;
  // A missing or empty provider means the sheet was dismissed.
  static void reportShareSheetSelectedForProvider(
      const std::optional<std::string>& provider, bool shareCompleted,
      const std::optional<KVRParameters>& additionalBeaconData) noexcept;

  static void reportShortcutUsed(const std::optional<std::string>& shortcut) noexcept;
  static void reportSupportRequestedOfType(KVRSupportRequestType type) noexcept;
  static void reportAboutIconEasterEggSuccess(bool success) noexcept;

  // Carries no type of its own; the host supplies one in
  // additionalBeaconData if it wants one.
  static std::optional<std::string> reportHubButtonTappedForTagDetails(
      const KVRTagDetails* tagDetails,
      const std::optional<KVRParameters>& additionalBeaconData) noexcept;
  static void reportOverflowArtistTappedWithTagDetails(
      const KVRTagDetails* tagDetails,
      const std::optional<KVRParameters>& additionalBeaconData) noexcept;

  static void reportUserScrolled() noexcept;
  static void reportWelcomeGotItTapped() noexcept;
  static void reportPrivacyLearnMoreTapped() noexcept;
  static void reportAutoKorvelSwitchEnabled(bool enabled) noexcept;
  static void reportNewConfigReceived() noexcept;
  static void reportUpdateAppButtonTapped() noexcept;

  // Opening an item in another app.
  static void reportOpenActionWithProviderName(const std::optional<std::string>& providerName,
                                               const std::optional<std::string>& origin) noexcept;
  static void reportOpenYouTube() noexcept;
  static std::optional<std::string> reportOpenAppleMusicWithTrackID(
      const std::optional<std::string>& trackID) noexcept;
  static void reportTrackPageMetadataActionButtonTapped() noexcept;
  static void reportPlayerMetadataOpen() noexcept;
  static void reportPlayerFooterOpen() noexcept;
  // The tag's parameters go even without a tag (the device's orientation),
  // and its "trackkey" is repeated under "trackid".
  static std::optional<std::string> reportFeaturedInItemActionButtonTappedWithTagDetails(
      const KVRTagDetails* tagDetails, const std::optional<std::string>& providerName,
      const std::optional<std::string>& albumId) noexcept;

  // The rerun and offline overlays.
  static void reportUserLeftRerunOverlay() noexcept;
  static void reportUserLeftOfflineOverlay() noexcept;
  static void reportOpenedTrackFromRerunOverlay(const KVRTagDetails* tagDetails) noexcept;
  static void reportOpenedTrackFromOfflineOverlay(const KVRTagDetails* tagDetails) noexcept;

  // Sends the track id under both "trackid" and "trackkey".
  static void reportWrongTrackSubmittedWithTrackId(
      const std::optional<std::string>& trackId, const std::optional<std::string>& tagID) noexcept;

  // "gethelp" for 0, "diagnosticreport" for anything else.
  static std::string stringForSupportRequestTypeType(KVRSupportRequestType type);
};

}  // namespace korvel
