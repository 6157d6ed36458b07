// Every exported name against the exact word it puts on the wire. The
// expected words are written out here by hand on purpose: a constant that
// drifts (a typo, a "fix" of a name that looks wrong) changes what the
// collector receives.
#include <korvel/beacon/KVRConstants.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace korvel {
namespace {

struct Constant {
  const char* name;
  std::string_view actual;
  const char* wire;
};

#define KVR_CONSTANT(name, wire) Constant{#name, name, wire}

const std::vector<Constant> kRecordAndNotificationNames = {
    KVR_CONSTANT(KVRBeaconCreationTimestampKey, "clientcreationtimestamp"),
    KVR_CONSTANT(KVRBeaconINIDKey, "inid"),
    KVR_CONSTANT(KVRBeaconParametersJSONKey, "parameters"),
    KVR_CONSTANT(KVRBeaconTypeJSONKey, "type"),
    KVR_CONSTANT(KVRBeaconUUIDKey, "clientbeaconuuid"),
    KVR_CONSTANT(KVRBeaconUsingExpiredINIDKey, "expiredinid"),
    KVR_CONSTANT(KVRDebugMessageClosedMatchResultNotification,
                 "KVRDebugMessageClosedMatchResultNotification"),
    KVR_CONSTANT(KVRDebugMessageDisplayingNoMatchNotification,
                 "KVRDebugMessageDisplayingNoMatchNotification"),
    KVR_CONSTANT(KVRDebugMessageDisplayingTagResultNotification,
                 "KVRDebugMessageDisplayingTagResultNotification"),
    KVR_CONSTANT(KVRDebugMessageLogInAppUpsellOptionsNotification,
                 "KVRDebugMessageLogInAppUpsellOptionsNotification"),
    KVR_CONSTANT(KVRDebugMessageLogOpenedURLNotification,
                 "KVRDebugMessageLogOpenedURLNotification"),
    KVR_CONSTANT(KVRReliableNetworkingTaskCreatedNotification,
                 "KVRReliableNetworkingTaskCreatedNotification"),
    KVR_CONSTANT(KVRReliableNetworkingTaskSubmittedNotification,
                 "KVRReliableNetworkingTaskSubmittedNotification"),
    KVR_CONSTANT(KVRShortcutTypeAutoTag, "continuous"),
    KVR_CONSTANT(KVRShortcutTypeFindEvents, "findEvents"),
    KVR_CONSTANT(KVRShortcutTypeSearch, "search"),
    KVR_CONSTANT(KVRShortcutTypeTag, "tag"),
    KVR_CONSTANT(KVRTrackPageKeyTrackCount, "trackcount"),
};

const std::vector<Constant> kParameterKeysAndValues = {
    KVR_CONSTANT(kKVRAMEventsLatestReleaseUpsell, "am_events_latest_release_upsell"),
    KVR_CONSTANT(kKVRAMEventsLatestReleaseUpsellSpatial,
                 "am_events_latest_release_upsell_spatial"),
    KVR_CONSTANT(kKVRAction, "action"),
    KVR_CONSTANT(kKVRAddToCalendar, "addtocalendar"),
    KVR_CONSTANT(kKVRAlbumId, "albumid"),
    KVR_CONSTANT(kKVRAppleMusicClassical, "apple_music_classical"),
    KVR_CONSTANT(kKVRArtist, "artist"),
    KVR_CONSTANT(kKVRArtistAdamID, "artist_adam_id"),
    KVR_CONSTANT(kKVRAuthenticated, "authenticated"),
    KVR_CONSTANT(kKVRAutoEndType, "autoend"),
    KVR_CONSTANT(kKVRAutoKorvels, "autokorvels"),
    KVR_CONSTANT(kKVRAutoSwitchType, "autoswitch"),
    KVR_CONSTANT(kKVRBackgroundSession, "background"),
    KVR_CONSTANT(kKVRCampaign, "campaign"),
    KVR_CONSTANT(kKVRCardPosition, "cardposition"),
    KVR_CONSTANT(kKVRCardType, "cardtype"),
    KVR_CONSTANT(kKVRCloseType, "close"),
    KVR_CONSTANT(kKVRCurrentOrientation, "currentorientation"),
    KVR_CONSTANT(kKVRDeeplinkReferer, "deeplinkreferer"),
    KVR_CONSTANT(kKVRDestination, "destination"),
    KVR_CONSTANT(kKVRDetails, "details"),
    KVR_CONSTANT(kKVRDuration, "duration"),
    KVR_CONSTANT(kKVREducationPill, "educationpill"),
    KVR_CONSTANT(kKVREndTime, "endtime"),
    KVR_CONSTANT(kKVRErrorCode, "code"),
    KVR_CONSTANT(kKVRErrorCodeChain, "errorcodechain"),
    KVR_CONSTANT(kKVRErrorDetailCode, "errorcode"),
    KVR_CONSTANT(kKVRErrorKey, "error"),
    KVR_CONSTANT(kKVREvent, "event"),
    KVR_CONSTANT(kKVREventID, "korvel_eventid"),
    KVR_CONSTANT(kKVREventList, "events_list"),
    KVR_CONSTANT(kKVREvents, "events"),
    KVR_CONSTANT(kKVRFalse, "false"),
    KVR_CONSTANT(kKVRFeaturedAlbum, "featured_album"),
    KVR_CONSTANT(kKVRFeaturedPlaylist, "featured_playlist"),
    KVR_CONSTANT(kKVRForensicID, "x-forensic-id"),
    KVR_CONSTANT(kKVRGetTickets, "gettickets"),
    KVR_CONSTANT(kKVRGotItTapped, "gotitclick"),
    KVR_CONSTANT(kKVRHeadphonesConnected, "headphones"),
    KVR_CONSTANT(kKVRHighlights, "highlights"),
    KVR_CONSTANT(kKVRHome, "home"),
    KVR_CONSTANT(kKVRHubMessage, "hub_msg"),
    KVR_CONSTANT(kKVRImpression, "impression"),
    KVR_CONSTANT(kKVRInitialOrientation, "initialorientation"),
    KVR_CONSTANT(kKVRInputPort, "inputport"),
    KVR_CONSTANT(kKVRLibraryICloudDisabledProviderName, "icloud_halfsheet"),
    KVR_CONSTANT(kKVRLyrics, "lyrics"),
    KVR_CONSTANT(kKVRMatchType, "matchcategory"),
    KVR_CONSTANT(kKVRMetadataArtistCard, "metadata_artist"),
    KVR_CONSTANT(kKVRMetadataHighlightsCard, "metadata_highlights"),
    KVR_CONSTANT(kKVRMetadataTrackCard, "metadata_track"),
    KVR_CONSTANT(kKVRMicrophone, "microphone"),
    KVR_CONSTANT(kKVRNavType, "nav"),
    KVR_CONSTANT(kKVROff, "off"),
    KVR_CONSTANT(kKVROfflineOverlay, "offlineoverlay"),
    KVR_CONSTANT(kKVROn, "on"),
    KVR_CONSTANT(kKVROnSkipTapped, "onskiptapped"),
    KVR_CONSTANT(kKVROpenType, "open"),
    KVR_CONSTANT(kKVROrigin, "origin"),
    KVR_CONSTANT(kKVROutcome, "outcome"),
    KVR_CONSTANT(kKVROutputPort, "outputport"),
    KVR_CONSTANT(kKVRPlayerPlay, "playerplay"),
    KVR_CONSTANT(kKVRPlaylists, "playlists"),
    KVR_CONSTANT(kKVRPolarPattern, "polarpattern"),
    KVR_CONSTANT(kKVRProviderAppleMusicValue, "applemusic"),
    KVR_CONSTANT(kKVRProviderName, "providername"),
    KVR_CONSTANT(kKVRProviderSpotifyValue, "spotify"),
    KVR_CONSTANT(kKVRReason, "reason"),
    KVR_CONSTANT(kKVRRecognitionType, "rectype"),
    KVR_CONSTANT(kKVRRedeemDeeplink, "redeemdeeplink"),
    KVR_CONSTANT(kKVRRelatedSongs, "relatedsongs"),
    KVR_CONSTANT(kKVRRerunOverlay, "rerunoverlay"),
    KVR_CONSTANT(kKVRScreenName, "screenname"),
    KVR_CONSTANT(kKVRSearch, "search"),
    KVR_CONSTANT(kKVRSection, "section"),
    KVR_CONSTANT(kKVRSetlistAMfA, "set_list_amfa"),
    KVR_CONSTANT(kKVRSetlistArtworkAMfA, "artwork_amfa"),
    KVR_CONSTANT(kKVRSetlistArtworkEditorial, "artwork_editorial"),
    KVR_CONSTANT(kKVRSetlistEditorial, "set_list_editorial"),
    KVR_CONSTANT(kKVRShare, "share"),
    KVR_CONSTANT(kKVRKorvel, "korvel"),
    KVR_CONSTANT(kKVRStartTime, "starttime"),
    KVR_CONSTANT(kKVRStatusCode, "statuscode"),
    KVR_CONSTANT(kKVRSuccess, "success"),
    KVR_CONSTANT(kKVRTagDuration, "time"),
    KVR_CONSTANT(kKVRTagID, "tagid"),
    KVR_CONSTANT(kKVRTagType, "tagtype"),
    KVR_CONSTANT(kKVRTagged, "tagged"),
    KVR_CONSTANT(kKVRTestTagged, "testtagged"),
    KVR_CONSTANT(kKVRTimeSpent, "timespent"),
    KVR_CONSTANT(kKVRTopSongs, "topsongs"),
    KVR_CONSTANT(kKVRTrackAdamID, "track_adam_id"),
    KVR_CONSTANT(kKVRTrackID, "trackkey"),
    KVR_CONSTANT(kKVRTrackIdKey, "trackid"),
    KVR_CONSTANT(kKVRTrue, "true"),
    KVR_CONSTANT(kKVRType, "type"),
    KVR_CONSTANT(kKVRUnsubmitted, "unsubmitted"),
    KVR_CONSTANT(kKVRValue, "value"),
};

#undef KVR_CONSTANT

TEST(KVRConstantsTest, RecordKeysAndNotificationNamesHaveTheirExactWireWords) {
  for (const auto& c : kRecordAndNotificationNames) {
    EXPECT_EQ(c.actual, c.wire) << c.name;
  }
}

TEST(KVRConstantsTest, ParameterKeysAndValuesHaveTheirExactWireWords) {
  for (const auto& c : kParameterKeysAndValues) {
    EXPECT_EQ(c.actual, c.wire) << c.name;
  }
}

}  // namespace
}  // namespace korvel
