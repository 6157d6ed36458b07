#include <korvel/reporters/KVRStreamingServiceReporter.h>

#include <iterator>
#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/foundation/KVNError.h>
#include <korvel/foundation/internal/UTF8.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>
#include <korvel/reporters/KVRTaggingReporter.h>

namespace korvel {
namespace {

constexpr std::string_view kLoginOriginKey = "loginorigin";
constexpr std::string_view kErrorMessageKey = "errormessage";
constexpr std::string_view kErrorDescriptionKey = "errordescription";
constexpr std::string_view kPreviewKey = "preview";
constexpr std::string_view kPlayQueueKey = "playqueue";
constexpr std::string_view kPlayerSessionEndType = "playersessionend";
constexpr std::string_view kLoginFlowType = "streamingmusicflow";
constexpr std::string_view kAppleMusicUpsellType = "applemusicupsell";
constexpr std::string_view kAppleMusicPrivacy = "am_privacy";
constexpr std::string_view kClassicalHalfSheet = "classical_half_sheet";

// Long enough to recognise the error, short enough to keep the URL small.
constexpr size_t kReportableDescriptionUTF16Units = 50;

// Value 1 is left as a gap on purpose: it is the deep link, which is also
// what any place this build does not know reads as.
constexpr std::string_view kLoginOriginFallback = "deeplink";
constexpr std::string_view kLoginOrigins[] = {
    "settings",                              // 0
    {},                                      // 1
    "playallupsell",                         // 2
    "mykorvel",                              // 3
    "tagresult",                             // 4
    "hubpreview",                            // 5
    "addtoplaylist",                         // 6
    "hubopen",                               // 7
    "subscriptionchangedalert",              // 8
    kKVRLyrics,                              // 9
    "mykorveloverflow",                      // 10
    "huboverflowopen",                       // 11
    "featuredhubopen",                       // 12
    "featuredhubpreview",                    // 13
    "featuredhuboverflow",                   // 14
    "historyopen",                           // 15
    "historypreview",                        // 16
    "historyoverflow",                       // 17
    "listviewhubopen",                       // 18
    "listviewopen",                          // 19
    "listviewplayallupsell",                 // 20
    "listviewoverflow",                      // 21
    "trackoverflow",                         // 22
    "overflowconnect",                       // 23
    "playlistmetadata",                      // 24
    "playlistpill",                          // 25
    "listviewpreview",                       // 26
    "highlightspill",                        // 27
    "morecontent",                           // 28
    "mykorvelupsell",                        // 29
    "mykorvelmodalupsell",                   // 30
    "metadata",                              // 31
    kKVRTopSongs,                            // 32
    kKVRRelatedSongs,                        // 33
    kKVRRerunOverlay,                        // 34
    kKVROfflineOverlay,                      // 35
    kKVRHubMessage,                          // 36
    "chartsrail",                            // 37
    kKVRFeaturedAlbum,                       // 38
    kKVRRedeemDeeplink,                      // 39
    "ammodalupsell",                         // 40
    "hub",                                   // 41
    "inmymusic",                             // 42
    kKVRTopSongs,                            // 43: top songs reached from the artist page
    kKVRFeaturedAlbum,                       // 44: featured album reached from the artist page
    "morealbums",                            // 45
    kKVRPlaylists,                           // 46
    kKVRPlaylists,                           // 47: playlists reached from the artist page
    kKVRSetlistArtworkAMfA,                  // 48
    kKVRSetlistArtworkEditorial,             // 49
    kKVRSetlistAMfA,                         // 50
    kKVRSetlistEditorial,                    // 51
    kKVRAMEventsLatestReleaseUpsell,         // 52
    kKVRAMEventsLatestReleaseUpsellSpatial,  // 53
    kKVRFeaturedPlaylist,                    // 54
    "live_activity",                         // 55
};
static_assert(std::size(kLoginOrigins) == 56);

constexpr std::string_view kLoginActions[] = {
    "start",                                     // 0
    "subscribe_in",                              // 1
    "subscribe_out",                             // 2
    kKVRSuccess,                                 // 3
    "error",                                     // 4
    "subscribe_out_campaign",                    // 5
    "accepts_privacy",                           // 6
    "medialibrary_permissiondenied_subscriber",  // 7
};
// 0 is a gap: a plain sign-out and an unknown outcome both read as success.
constexpr std::string_view kLogoutActions[] = {{}, "error", "logout", "cancel"};
constexpr std::string_view kNativeSheetActions[] = {"signin", "privacy", "subscribe"};
constexpr std::string_view kProviderNames[] = {kKVRProviderAppleMusicValue};
constexpr std::string_view kSyncCardNames[] = {"streamsync_applemusic", "streamsync_spotify"};
constexpr std::string_view kLoginUpsellActions[] = {"cancel", "spotify"};
constexpr std::string_view kPreviewUpsellActions[] = {"continue", "cancel"};
constexpr std::string_view kPreviewUpsellPrivacyActions[] = {"continue_privacy", "cancel_privacy"};

// The longest prefix of text that is at most maxUnits UTF-16 code units
// long. A character outside the Basic Multilingual Plane (four UTF-8 bytes)
// is a surrogate pair, two units; when the limit falls between the two
// halves of a pair the cut moves before the whole character, so the result
// is one unit shorter rather than ending in half a character. Bytes that are
// not UTF-8 become U+FFFD, one unit each, so whatever the host hands in, the
// URL gets valid UTF-8.
std::string prefixOfUTF16Length(std::string_view text, size_t maxUnits) {
  static constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";
  std::string prefix;
  size_t units = 0;
  for (size_t i = 0; i < text.size();) {
    const auto character = foundation::internal::utf8CharacterAt(text, i);
    const size_t cost = character.codePoint > 0xFFFF ? 2 : 1;
    if (units + cost > maxUnits) break;
    if (character.wellFormed) {
      prefix.append(text.substr(i, character.length));
    } else {
      prefix += kReplacementCharacter;
    }
    i += character.length;
    units += cost;
  }
  return prefix;
}

// The "preview" flag: the app played a preview, not through a service.
void markPreviewIf(KVRParameters& parameters, bool isPreview) {
  if (isPreview) parameters.set(kPreviewKey, reporters::internal::flag(true));
}

void setCodeAndMessage(KVRParameters& parameters, const KVNError& error, std::string_view codeKey,
                       std::string_view messageKey) {
  parameters.set(codeKey, error.code());
  parameters.set(messageKey,
                 KVRStreamingServiceReporter::reportableStreamingErrorLocalisedDescription(&error));
}

// The membership and offer checks share one shape. An error handed in with
// a success is stale and is not reported.
void reportAccountCheck(std::string_view type, bool success, const KVNError* error,
                        double duration) {
  auto parameters = reporters::internal::userEvent(type);
  parameters.set(kKVRAction, success ? kKVRSuccess : kKVRErrorKey);
  parameters.set(kKVRDuration, duration);
  if (error != nullptr && !success) {
    parameters.set(kKVRErrorDetailCode, error->code());
    parameters.set("errordomain", error->domain());
    parameters.set(
        kErrorMessageKey,
        KVRStreamingServiceReporter::reportableStreamingErrorLocalisedDescription(error));
  }
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
}

// A user event whose only other parameter is the service.
void reportForService(std::string_view type,
                      const std::optional<std::string>& streamingServiceIdentifier) {
  auto parameters = reporters::internal::userEvent(type);
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
}

}  // namespace

std::optional<std::string> KVRStreamingServiceReporter::reportStreamingLoginWithAction(
    KVRStreamingLoginAction action, const std::optional<std::string>& streamingServiceIdentifier,
    KVRStreamingOrigin loginOrigin, const KVRTagDetails* tagDetails, const KVNError* error,
    const std::optional<KVRParameters>& additionalBeaconData) noexcept try {
  auto parameters = reporters::internal::userEvent(kLoginFlowType);
  parameters.set(kKVRAction, streamingLoginActionStringForAction(action));
  parameters.set(kLoginOriginKey, streamingOriginStringFromOrigin(loginOrigin));
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  if (error != nullptr) {
    setCodeAndMessage(parameters, *error, kKVRErrorDetailCode, kErrorMessageKey);
    // Only a real error counts: the key may hold anything the host put there.
    if (const KVNError* underlying = error->underlyingError()) {
      setCodeAndMessage(parameters, *underlying, "underlyingerrorcode", "underlyingerrormessage");
    }
  }
  parameters.merge(additionalBeaconData);
  return reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRStreamingServiceReporter::reportStreamingLoginWithAction");
  return std::nullopt;
}

void KVRStreamingServiceReporter::reportStreamingLogoutWithAction(
    KVRStreamingLogoutAction action,
    const std::optional<std::string>& streamingServiceIdentifier) noexcept try {
  auto parameters = reporters::internal::userEvent("streamingmusiclogout");
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  parameters.set(kKVRAction, streamingLogoutActionStringForAction(action));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRStreamingServiceReporter::reportStreamingLogoutWithAction");
}

void KVRStreamingServiceReporter::reportAppleMusicGDPRFlowPreviewUpsellImpressionShowingPrivacy(
    bool showingPrivacy, KVRStreamingOrigin loginOrigin) noexcept try {
  KVRParameters parameters;
  parameters.set(kKVRProviderName,
                 showingPrivacy ? "am_previewupsell_privacy" : "am_previewupsell");
  parameters.set(kLoginOriginKey, streamingOriginStringFromOrigin(loginOrigin));
  reporters::internal::send(KVRBeaconTypeImpression, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicGDPRFlowPreviewUpsellImpressionShowingPrivacy");
}

void KVRStreamingServiceReporter::reportAppleMusicGDPRFlowPreviewUpsellUserEventAction(
    KVRAppleMusicPreviewUpsellAction action, bool showingPrivacy,
    KVRStreamingOrigin loginOrigin) noexcept try {
  auto parameters = reporters::internal::userEvent(kAppleMusicUpsellType);
  parameters.set(kKVRAction, reporters::internal::wordFor(showingPrivacy ? kPreviewUpsellPrivacyActions
                                                               : kPreviewUpsellActions,
                                                action));
  // Written a second time on purpose; the value and its position stay.
  parameters.set(kKVRType, kAppleMusicUpsellType);
  parameters.set(kLoginOriginKey, streamingOriginStringFromOrigin(loginOrigin));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicGDPRFlowPreviewUpsellUserEventAction");
}

void KVRStreamingServiceReporter::reportAppleMusicGDPRFlowPrivacyCardUpsellImpression() noexcept
    try {
  reporters::internal::sendProviderImpression(kAppleMusicPrivacy);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicGDPRFlowPrivacyCardUpsellImpression");
}

void KVRStreamingServiceReporter::reportAppleMusicGDPRFlowPrivacyRejectedFromLoginOrigin(
    KVRStreamingOrigin loginOrigin) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  // Rejecting the consent returns the user to the screen they came from.
  parameters.set(kKVRDestination, KVRUserSession().currentScreenName());
  parameters.set(kKVROrigin, kAppleMusicPrivacy);
  parameters.set(kLoginOriginKey, streamingOriginStringFromOrigin(loginOrigin));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicGDPRFlowPrivacyRejectedFromLoginOrigin");
}

void KVRStreamingServiceReporter::reportStreamingLoginUpsellUserEventAction(
    KVRStreamingLoginUpsellAction action) noexcept try {
  auto parameters = reporters::internal::userEvent("streamingloginupsell");
  parameters.set(kKVRAction, reporters::internal::wordFor(kLoginUpsellActions, action));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportStreamingLoginUpsellUserEventAction");
}

void KVRStreamingServiceReporter::reportPlaybackPlayWithStreamingServiceIdentifier(
    const std::optional<std::string>& streamingServiceIdentifier,
    const std::optional<KVRParameters>& beaconData) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRPlayerPlay);
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  markPreviewIf(parameters, !streamingServiceIdentifier || streamingServiceIdentifier->empty());
  parameters.merge(beaconData);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportPlaybackPlayWithStreamingServiceIdentifier");
}

void KVRStreamingServiceReporter::reportPlaybackSessionEndedWithStreamingServiceIdentifier(
    const std::optional<std::string>& streamingServiceIdentifier,
    const std::optional<KVRValue>& playbackDurationMilliseconds,
    const std::optional<KVRValue>& playbackTrackCount, const std::optional<std::string>& playlistID,
    uint64_t applicationState, const std::optional<KVRParameters>& beaconData) noexcept try {
  auto parameters = reporters::internal::userEvent(kPlayerSessionEndType);
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  parameters.set(kPlayQueueKey, playlistID);
  parameters.set("playbackduration", playbackDurationMilliseconds);
  parameters.set(KVRTrackPageKeyTrackCount, playbackTrackCount);
  parameters.set(kKVRBackgroundSession, reporters::internal::flag(applicationState == 0));
  markPreviewIf(parameters, !streamingServiceIdentifier);
  parameters.merge(beaconData);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportPlaybackSessionEndedWithStreamingServiceIdentifier");
}

void KVRStreamingServiceReporter::reportPlayAllUserEventWithStreamingServiceIdentifier(
    const std::optional<std::string>& streamingServiceIdentifier,
    const std::optional<std::string>& playlistID, const std::optional<std::string>& origin) noexcept
    try {
  auto parameters = reporters::internal::userEvent(kKVRPlayerPlay);
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  markPreviewIf(parameters, !streamingServiceIdentifier);
  parameters.set(kPlayQueueKey, playlistID);
  parameters.set(kKVROrigin, origin);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportPlayAllUserEventWithStreamingServiceIdentifier");
}

void KVRStreamingServiceReporter::reportTrackPageFeaturedAlbumWithTagDetails(
    const KVRTagDetails* tagDetails, const std::optional<std::string>& albumId) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRPlayerPlay);
  parameters.set(kKVROrigin, kKVRFeaturedAlbum);
  parameters.set(kKVRAlbumId, albumId);
  parameters.set(kKVRProviderName, kKVRProviderAppleMusicValue);
  reporters::internal::mergeFeaturedTagParameters(parameters, tagDetails);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportTrackPageFeaturedAlbumWithTagDetails");
}

void KVRStreamingServiceReporter::reportPlaylistUpdatedWithStreamingServiceIdentifier(
    const std::optional<std::string>& streamingServiceIdentifier) noexcept try {
  reportForService("playlistupdated", streamingServiceIdentifier);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportPlaylistUpdatedWithStreamingServiceIdentifier");
}

void KVRStreamingServiceReporter::reportPlaylistSelectionWithStreamingServiceIdentifier(
    const std::optional<std::string>& streamingServiceIdentifier) noexcept try {
  auto parameters = reporters::internal::userEvent("streamingmusicplaylistaction");
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  parameters.set("playlistwasselected", "1");  // text, not a number
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportPlaylistSelectionWithStreamingServiceIdentifier");
}

void KVRStreamingServiceReporter::reportPlaylistUpdateError(
    const KVNError* error, const std::optional<std::string>& streamingServiceIdentifier) noexcept
    try {
  // An error beacon that still carries a user-event type, as the dashboards
  // expect; the code is written even when the host has no error to give.
  auto parameters = reporters::internal::userEvent("playlistupdateerror");
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  parameters.set(kKVRErrorDetailCode, error != nullptr ? error->code() : int64_t{0});
  if (error != nullptr) parameters.set(kErrorDescriptionKey, error->description());
  reporters::internal::send(KVRBeaconTypeError, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRStreamingServiceReporter::reportPlaylistUpdateError");
}

void KVRStreamingServiceReporter::reportMyKorvelPlaylistCreatedWithStreamingServiceIdentifier(
    const std::optional<std::string>& streamingServiceIdentifier,
    const std::optional<KVRValue>& numberOfTracks) noexcept try {
  auto parameters = reporters::internal::userEvent("mykorvelsplaylistcreated");
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  parameters.set("mykorvelscount", numberOfTracks);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportMyKorvelPlaylistCreatedWithStreamingServiceIdentifier");
}

void KVRStreamingServiceReporter::reportPlaylistSavedWithStreamingServiceIdentifier(
    const std::optional<std::string>& streamingServiceIdentifier) noexcept try {
  reportForService("playlistsaved", streamingServiceIdentifier);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportPlaylistSavedWithStreamingServiceIdentifier");
}

void KVRStreamingServiceReporter::reportPlaylistSaveFailedWithError(
    const KVNError* error, const std::optional<std::string>& streamingServiceIdentifier) noexcept
    try {
  auto parameters = reporters::internal::userEvent("playlistsavefailed");
  parameters.set(kKVRProviderName, streamingServiceIdentifier);
  if (error != nullptr) {
    parameters.set(kKVRErrorDetailCode, error->code());
    parameters.set(kErrorDescriptionKey, error->description());
  }
  reporters::internal::send(KVRBeaconTypeError, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRStreamingServiceReporter::reportPlaylistSaveFailedWithError");
}

void KVRStreamingServiceReporter::reportAppleMusicMediaLibraryPermissionGranted(
    bool granted) noexcept try {
  auto parameters = reporters::internal::userEvent("applemusicpermission");
  parameters.set("am", reporters::internal::flag(granted));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicMediaLibraryPermissionGranted");
}

void KVRStreamingServiceReporter::reportStreamingServiceSyncCardImpressionWithProvider(
    KVRStreamingServiceProvider provider) noexcept try {
  KVRParameters parameters;
  parameters.set(kKVRProviderName, reporters::internal::wordFor(kSyncCardNames, provider));
  reporters::internal::send(KVRBeaconTypeImpression, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportStreamingServiceSyncCardImpressionWithProvider");
}

void KVRStreamingServiceReporter::reportStreamingServiceSyncCardAcceptTappedWithProvider(
    KVRStreamingServiceProvider provider) noexcept try {
  auto parameters = reporters::internal::userEvent("streamsync");
  parameters.set(kKVRProviderName, providerNameForProvider(provider));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportStreamingServiceSyncCardAcceptTappedWithProvider");
}

void KVRStreamingServiceReporter::reportStreamingServiceAutoSyncEnabled(
    bool enabled, KVRStreamingServiceProvider provider) noexcept try {
  auto parameters = reporters::internal::userEvent("pk_autoadd_korvels");
  parameters.set(kKVRProviderName, providerNameForProvider(provider));
  parameters.set(kKVRValue, enabled ? kKVROn : kKVROff);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportStreamingServiceAutoSyncEnabled");
}

void KVRStreamingServiceReporter::reportAppleMusicMemberStatusFetchingFinishedWithSuccess(
    bool success, const KVNError* error, double duration) noexcept try {
  reportAccountCheck("ammember_check", success, error, duration);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicMemberStatusFetchingFinishedWithSuccess");
}

void KVRStreamingServiceReporter::reportAppleMusicSubscriptionOfferFetchingFinishedWithSuccess(
    bool success, const KVNError* error, double duration) noexcept try {
  reportAccountCheck("amoffer_check", success, error, duration);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicSubscriptionOfferFetchingFinishedWithSuccess");
}

void KVRStreamingServiceReporter::reportAppleMusicClassicalDismissedForProviderName(
    const std::optional<std::string>& providerName) noexcept try {
  reportForService(kKVRCloseType, providerName);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicClassicalDismissedForProviderName");
}

void KVRStreamingServiceReporter::reportAppleMusicClassicalDownloadCardImpression() noexcept try {
  reporters::internal::sendProviderImpression(kClassicalHalfSheet);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicClassicalDownloadCardImpression");
}

void KVRStreamingServiceReporter::reportAppleMusicClassicalDownloadCardOpen() noexcept try {
  reporters::internal::send(KVRBeaconTypeUserEvent,
                  reporters::internal::openEvent(kKVRAppleMusicClassical, kClassicalHalfSheet));
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicClassicalDownloadCardOpen");
}

void KVRStreamingServiceReporter::reportAppleMusicClassicalDownloadCardDismissed() noexcept try {
  reportAppleMusicClassicalDismissedForProviderName(std::string(kClassicalHalfSheet));
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRStreamingServiceReporter::reportAppleMusicClassicalDownloadCardDismissed");
}

std::string KVRStreamingServiceReporter::streamingOriginStringFromOrigin(
    KVRStreamingOrigin origin) {
  // Values beyond int64_t's range turn negative here and fall back as well.
  return reporters::internal::wordFor(kLoginOrigins, static_cast<int64_t>(origin), kLoginOriginFallback);
}

std::string KVRStreamingServiceReporter::streamingLoginActionStringForAction(
    KVRStreamingLoginAction action) {
  return reporters::internal::wordFor(kLoginActions, static_cast<int64_t>(action), kKVRSuccess);
}

std::string KVRStreamingServiceReporter::streamingLogoutActionStringForAction(
    KVRStreamingLogoutAction action) {
  return reporters::internal::wordFor(kLogoutActions, static_cast<int64_t>(action), kKVRSuccess);
}

std::string KVRStreamingServiceReporter::streamingNativeSheetActionStringForAction(
    KVRStreamingNativeSheetAction action) {
  return reporters::internal::wordFor(kNativeSheetActions, static_cast<int64_t>(action), "cancel");
}

std::string KVRStreamingServiceReporter::providerNameForProvider(
    KVRStreamingServiceProvider provider) {
  return reporters::internal::wordFor(kProviderNames, provider, kKVRProviderSpotifyValue);
}

std::optional<std::string>
KVRStreamingServiceReporter::reportableStreamingErrorLocalisedDescription(const KVNError* error) {
  if (error == nullptr || !error->localizedDescription()) return std::nullopt;
  return prefixOfUTF16Length(*error->localizedDescription(), kReportableDescriptionUTF16Units);
}

}  // namespace korvel
