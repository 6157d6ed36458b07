// Exported names and wire words: parameter keys and values, notification
// names, shortcut identifiers. Values are what goes on the wire and are kept
// exactly, including the few whose name says something else (kKVRTrackID is
// "trackkey", kKVRErrorCode is "code", kKVRTagDuration is "time", ...).
#pragma once

#include <string_view>

namespace korvel {

// Beacon record keys and notification names.
inline constexpr std::string_view KVRBeaconCreationTimestampKey = "clientcreationtimestamp";
inline constexpr std::string_view KVRBeaconINIDKey = "inid";
inline constexpr std::string_view KVRBeaconParametersJSONKey = "parameters";
inline constexpr std::string_view KVRBeaconTypeJSONKey = "type";
inline constexpr std::string_view KVRBeaconUsingExpiredINIDKey = "expiredinid";
inline constexpr std::string_view KVRBeaconUUIDKey = "clientbeaconuuid";
inline constexpr std::string_view KVRDebugMessageClosedMatchResultNotification = "KVRDebugMessageClosedMatchResultNotification";
inline constexpr std::string_view KVRDebugMessageDisplayingNoMatchNotification = "KVRDebugMessageDisplayingNoMatchNotification";
inline constexpr std::string_view KVRDebugMessageDisplayingTagResultNotification = "KVRDebugMessageDisplayingTagResultNotification";
inline constexpr std::string_view KVRDebugMessageLogInAppUpsellOptionsNotification = "KVRDebugMessageLogInAppUpsellOptionsNotification";
inline constexpr std::string_view KVRDebugMessageLogOpenedURLNotification = "KVRDebugMessageLogOpenedURLNotification";
inline constexpr std::string_view KVRReliableNetworkingTaskCreatedNotification = "KVRReliableNetworkingTaskCreatedNotification";
inline constexpr std::string_view KVRReliableNetworkingTaskSubmittedNotification = "KVRReliableNetworkingTaskSubmittedNotification";
inline constexpr std::string_view KVRShortcutTypeAutoTag = "continuous";
inline constexpr std::string_view KVRShortcutTypeFindEvents = "findEvents";
inline constexpr std::string_view KVRShortcutTypeSearch = "search";
inline constexpr std::string_view KVRShortcutTypeTag = "tag";
inline constexpr std::string_view KVRTrackPageKeyTrackCount = "trackcount";

// Parameter keys and values.
inline constexpr std::string_view kKVRAction = "action";
inline constexpr std::string_view kKVRAddToCalendar = "addtocalendar";
inline constexpr std::string_view kKVRAlbumId = "albumid";
inline constexpr std::string_view kKVRAMEventsLatestReleaseUpsell = "am_events_latest_release_upsell";
inline constexpr std::string_view kKVRAMEventsLatestReleaseUpsellSpatial = "am_events_latest_release_upsell_spatial";
inline constexpr std::string_view kKVRAppleMusicClassical = "apple_music_classical";
inline constexpr std::string_view kKVRArtist = "artist";
inline constexpr std::string_view kKVRArtistAdamID = "artist_adam_id";
inline constexpr std::string_view kKVRAuthenticated = "authenticated";
inline constexpr std::string_view kKVRAutoEndType = "autoend";
inline constexpr std::string_view kKVRAutoKorvels = "autokorvels";
inline constexpr std::string_view kKVRAutoSwitchType = "autoswitch";
inline constexpr std::string_view kKVRBackgroundSession = "background";
inline constexpr std::string_view kKVRCampaign = "campaign";
inline constexpr std::string_view kKVRCardPosition = "cardposition";
inline constexpr std::string_view kKVRCardType = "cardtype";
inline constexpr std::string_view kKVRCloseType = "close";
inline constexpr std::string_view kKVRCurrentOrientation = "currentorientation";
inline constexpr std::string_view kKVRDeeplinkReferer = "deeplinkreferer";
inline constexpr std::string_view kKVRDestination = "destination";
inline constexpr std::string_view kKVRDetails = "details";
inline constexpr std::string_view kKVRDuration = "duration";
inline constexpr std::string_view kKVREducationPill = "educationpill";
inline constexpr std::string_view kKVREndTime = "endtime";
inline constexpr std::string_view kKVRErrorCode = "code";
inline constexpr std::string_view kKVRErrorCodeChain = "errorcodechain";
inline constexpr std::string_view kKVRErrorDetailCode = "errorcode";
inline constexpr std::string_view kKVRErrorKey = "error";
inline constexpr std::string_view kKVREvent = "event";
inline constexpr std::string_view kKVREventID = "korvel_eventid";
inline constexpr std::string_view kKVREventList = "events_list";
inline constexpr std::string_view kKVREvents = "events";
inline constexpr std::string_view kKVRFalse = "false";
inline constexpr std::string_view kKVRFeaturedAlbum = "featured_album";
inline constexpr std::string_view kKVRFeaturedPlaylist = "featured_playlist";
inline constexpr std::string_view kKVRForensicID = "x-forensic-id";
inline constexpr std::string_view kKVRGetTickets = "gettickets";
inline constexpr std::string_view kKVRGotItTapped = "gotitclick";
inline constexpr std::string_view kKVRHeadphonesConnected = "headphones";
inline constexpr std::string_view kKVRHighlights = "highlights";
inline constexpr std::string_view kKVRHome = "home";
inline constexpr std::string_view kKVRHubMessage = "hub_msg";
inline constexpr std::string_view kKVRImpression = "impression";
inline constexpr std::string_view kKVRInitialOrientation = "initialorientation";
inline constexpr std::string_view kKVRInputPort = "inputport";
inline constexpr std::string_view kKVRKorvel = "korvel";
inline constexpr std::string_view kKVRLibraryICloudDisabledProviderName = "icloud_halfsheet";
inline constexpr std::string_view kKVRLyrics = "lyrics";
inline constexpr std::string_view kKVRMatchType = "matchcategory";
inline constexpr std::string_view kKVRMetadataArtistCard = "metadata_artist";
inline constexpr std::string_view kKVRMetadataHighlightsCard = "metadata_highlights";
inline constexpr std::string_view kKVRMetadataTrackCard = "metadata_track";
inline constexpr std::string_view kKVRMicrophone = "microphone";
inline constexpr std::string_view kKVRNavType = "nav";
inline constexpr std::string_view kKVROff = "off";
inline constexpr std::string_view kKVROfflineOverlay = "offlineoverlay";
inline constexpr std::string_view kKVROn = "on";
inline constexpr std::string_view kKVROnSkipTapped = "onskiptapped";
inline constexpr std::string_view kKVROpenType = "open";
inline constexpr std::string_view kKVROrigin = "origin";
inline constexpr std::string_view kKVROutcome = "outcome";
inline constexpr std::string_view kKVROutputPort = "outputport";
inline constexpr std::string_view kKVRPlayerPlay = "playerplay";
inline constexpr std::string_view kKVRPlaylists = "playlists";
inline constexpr std::string_view kKVRPolarPattern = "polarpattern";
inline constexpr std::string_view kKVRProviderAppleMusicValue = "applemusic";
inline constexpr std::string_view kKVRProviderName = "providername";
inline constexpr std::string_view kKVRProviderSpotifyValue = "spotify";
inline constexpr std::string_view kKVRReason = "reason";
inline constexpr std::string_view kKVRRecognitionType = "rectype";
inline constexpr std::string_view kKVRRedeemDeeplink = "redeemdeeplink";
inline constexpr std::string_view kKVRRelatedSongs = "relatedsongs";
inline constexpr std::string_view kKVRRerunOverlay = "rerunoverlay";
inline constexpr std::string_view kKVRScreenName = "screenname";
inline constexpr std::string_view kKVRSearch = "search";
inline constexpr std::string_view kKVRSection = "section";
inline constexpr std::string_view kKVRSetlistAMfA = "set_list_amfa";
inline constexpr std::string_view kKVRSetlistArtworkAMfA = "artwork_amfa";
inline constexpr std::string_view kKVRSetlistArtworkEditorial = "artwork_editorial";
inline constexpr std::string_view kKVRSetlistEditorial = "set_list_editorial";
inline constexpr std::string_view kKVRShare = "share";
inline constexpr std::string_view kKVRStartTime = "starttime";
inline constexpr std::string_view kKVRStatusCode = "statuscode";
inline constexpr std::string_view kKVRSuccess = "success";
inline constexpr std::string_view kKVRTagDuration = "time";
inline constexpr std::string_view kKVRTagged = "tagged";
inline constexpr std::string_view kKVRTagID = "tagid";
inline constexpr std::string_view kKVRTagType = "tagtype";
inline constexpr std::string_view kKVRTestTagged = "testtagged";
inline constexpr std::string_view kKVRTimeSpent = "timespent";
inline constexpr std::string_view kKVRTopSongs = "topsongs";
inline constexpr std::string_view kKVRTrackAdamID = "track_adam_id";
inline constexpr std::string_view kKVRTrackID = "trackkey";
inline constexpr std::string_view kKVRTrackIdKey = "trackid";
inline constexpr std::string_view kKVRTrue = "true";
inline constexpr std::string_view kKVRType = "type";
inline constexpr std::string_view kKVRUnsubmitted = "unsubmitted";
inline constexpr std::string_view kKVRValue = "value";

}  // namespace korvel
