// Everything the application does with the streaming services it connects
// to: signing in and out, the Apple Music upsell and privacy-consent flow,
// playback, play-all, playlists, media-library permission, the sync cards,
// the membership and offer checks and the Apple Music Classical card.
//
// It also owns the words for the streaming enumerations, the provider name
// other reporters put under "providername", and the playback beacon that the
// page, events and library reporters all end in.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KVNError;
struct KVRTagDetails;

// Signed; 0 is Apple Music and every other value counts as Spotify.
using KVRStreamingServiceProvider = int64_t;
inline constexpr KVRStreamingServiceProvider KVRStreamingServiceProviderAppleMusic = 0;
inline constexpr KVRStreamingServiceProvider KVRStreamingServiceProviderSpotify = 1;

// Step of the sign-in flow; unknown values read as "success".
using KVRStreamingLoginAction = uint64_t;
// Outcome of signing out; 0 and unknown values read as "success".
using KVRStreamingLogoutAction = uint64_t;
// Choice on the system's streaming sheet; unknown values read as "cancel".
using KVRStreamingNativeSheetAction = uint64_t;
// The screen a sign-in started from (56 known places); unknown values read
// as "deeplink".
using KVRStreamingOrigin = uint64_t;
// The user's answer to the Apple Music preview upsell: 0 continue, 1 cancel;
// other values carry no action.
using KVRAppleMusicPreviewUpsellAction = int64_t;
// The user's answer to the streaming sign-in upsell: 0 cancel, 1 Spotify;
// other values carry no action.
using KVRStreamingLoginUpsellAction = int64_t;

class KORVEL_EXPORT KVRStreamingServiceReporter {
 public:
  KVRStreamingServiceReporter() = delete;

  // Sign-in, sign-out and the Apple Music consent flow.
  static std::optional<std::string> reportStreamingLoginWithAction(
      KVRStreamingLoginAction action, const std::optional<std::string>& streamingServiceIdentifier,
      KVRStreamingOrigin loginOrigin, const KVRTagDetails* tagDetails, const KVNError* error,
      const std::optional<KVRParameters>& additionalBeaconData) noexcept;
  static void reportStreamingLogoutWithAction(
      KVRStreamingLogoutAction action,
      const std::optional<std::string>& streamingServiceIdentifier) noexcept;
  static void reportAppleMusicGDPRFlowPreviewUpsellImpressionShowingPrivacy(
      bool showingPrivacy, KVRStreamingOrigin loginOrigin) noexcept;
  static void reportAppleMusicGDPRFlowPreviewUpsellUserEventAction(
      KVRAppleMusicPreviewUpsellAction action, bool showingPrivacy,
      KVRStreamingOrigin loginOrigin) noexcept;
  static void reportAppleMusicGDPRFlowPrivacyCardUpsellImpression() noexcept;
  static void reportAppleMusicGDPRFlowPrivacyRejectedFromLoginOrigin(
      KVRStreamingOrigin loginOrigin) noexcept;
  static void reportStreamingLoginUpsellUserEventAction(
      KVRStreamingLoginUpsellAction action) noexcept;

  // Playback. An identifier that is missing (or, for a single play, empty)
  // means the app played a preview rather than through a service.
  static void reportPlaybackPlayWithStreamingServiceIdentifier(
      const std::optional<std::string>& streamingServiceIdentifier,
      const std::optional<KVRParameters>& beaconData) noexcept;
  // applicationState is the platform's value; 0 (active) marks a session
  // that ended in the foreground.
  static void reportPlaybackSessionEndedWithStreamingServiceIdentifier(
      const std::optional<std::string>& streamingServiceIdentifier,
      const std::optional<KVRValue>& playbackDurationMilliseconds,
      const std::optional<KVRValue>& playbackTrackCount,
      const std::optional<std::string>& playlistID, uint64_t applicationState,
      const std::optional<KVRParameters>& beaconData) noexcept;
  static void reportPlayAllUserEventWithStreamingServiceIdentifier(
      const std::optional<std::string>& streamingServiceIdentifier,
      const std::optional<std::string>& playlistID,
      const std::optional<std::string>& origin) noexcept;
  // As the featured-in button: tag parameters even without a tag, and the
  // track key repeated under "trackid".
  static void reportTrackPageFeaturedAlbumWithTagDetails(
      const KVRTagDetails* tagDetails, const std::optional<std::string>& albumId) noexcept;

  // Playlists.
  static void reportPlaylistUpdatedWithStreamingServiceIdentifier(
      const std::optional<std::string>& streamingServiceIdentifier) noexcept;
  static void reportPlaylistSelectionWithStreamingServiceIdentifier(
      const std::optional<std::string>& streamingServiceIdentifier) noexcept;
  static void reportPlaylistUpdateError(
      const KVNError* error, const std::optional<std::string>& streamingServiceIdentifier) noexcept;
  static void reportMyKorvelPlaylistCreatedWithStreamingServiceIdentifier(
      const std::optional<std::string>& streamingServiceIdentifier,
      const std::optional<KVRValue>& numberOfTracks) noexcept;
  static void reportPlaylistSavedWithStreamingServiceIdentifier(
      const std::optional<std::string>& streamingServiceIdentifier) noexcept;
  static void reportPlaylistSaveFailedWithError(
      const KVNError* error, const std::optional<std::string>& streamingServiceIdentifier) noexcept;

  // Library permission, sync cards and automatic adding.
  static void reportAppleMusicMediaLibraryPermissionGranted(bool granted) noexcept;
  static void reportStreamingServiceSyncCardImpressionWithProvider(
      KVRStreamingServiceProvider provider) noexcept;
  static void reportStreamingServiceSyncCardAcceptTappedWithProvider(
      KVRStreamingServiceProvider provider) noexcept;
  static void reportStreamingServiceAutoSyncEnabled(bool enabled,
                                                    KVRStreamingServiceProvider provider) noexcept;

  // Apple Music account checks; duration in the caller's unit, sent as is.
  static void reportAppleMusicMemberStatusFetchingFinishedWithSuccess(bool success,
                                                                      const KVNError* error,
                                                                      double duration) noexcept;
  static void reportAppleMusicSubscriptionOfferFetchingFinishedWithSuccess(
      bool success, const KVNError* error, double duration) noexcept;

  // The Apple Music Classical download card.
  static void reportAppleMusicClassicalDismissedForProviderName(
      const std::optional<std::string>& providerName) noexcept;
  static void reportAppleMusicClassicalDownloadCardImpression() noexcept;
  static void reportAppleMusicClassicalDownloadCardOpen() noexcept;
  static void reportAppleMusicClassicalDownloadCardDismissed() noexcept;

  // Words for the enumerations; each has a fallback and never fails.
  static std::string streamingOriginStringFromOrigin(KVRStreamingOrigin origin);
  static std::string streamingLoginActionStringForAction(KVRStreamingLoginAction action);
  static std::string streamingLogoutActionStringForAction(KVRStreamingLogoutAction action);
  static std::string streamingNativeSheetActionStringForAction(
      KVRStreamingNativeSheetAction action);
  static std::string providerNameForProvider(KVRStreamingServiceProvider provider);

  // The error's localised description cut to 50 UTF-16 code units (never
  // inside a character), always valid UTF-8; nothing without an error or a
  // localised description.
  static std::optional<std::string> reportableStreamingErrorLocalisedDescription(
      const KVNError* error);
};

}  // namespace korvel
