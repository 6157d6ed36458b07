#include <korvel/reporters/KVREventsReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {
namespace {

constexpr std::string_view kAppleMusicLive = "applemusic_live";
constexpr std::string_view kWatchNow = "watch_now";
constexpr std::string_view kWatchVideo = "watch_video";

// A section added by a newer app is counted with the photo rail rather than
// dropped: this mapping never leaves the origin out.
constexpr std::string_view kOriginFallback = "photorail";
constexpr std::string_view kOrigins[] = {
    kKVRFeaturedAlbum,                       // 0
    kKVRTopSongs,                            // 1
    kKVRSetlistArtworkAMfA,                  // 2
    kKVRSetlistArtworkEditorial,             // 3
    kKVRSetlistAMfA,                         // 4
    kKVRSetlistEditorial,                    // 5
    "photorail",                             // 6
    "photogallery",                          // 7
    "tourdownloads",                         // 8
    "upcomingconcerts",                      // 9
    kKVRFeaturedPlaylist,                    // 10
    "playlist",                              // 11
    kWatchVideo,                             // 12
    kKVRAMEventsLatestReleaseUpsell,         // 13
    kKVRAMEventsLatestReleaseUpsellSpatial,  // 14
};

// The two playlist sections (10 featured, 11 other) are Apple Music Live
// content: their impression is typed by the section and credited to the
// service. Every other section is credited to itself.
bool isPlaylistSection(KVREventPageOrigin section) { return (section & ~uint64_t{1}) == 10; }

void setEventAndArtist(KVRParameters& parameters, const std::optional<std::string>& eventID,
                       const std::optional<std::string>& artistID) {
  parameters.set(kKVREventID, eventID);
  parameters.set(kKVRArtistAdamID, artistID);
}

// {type, "providername": applemusic_live, event, artist}: the Apple Music
// Live buttons, as impression and as tap alike.
KVRParameters liveParameters(std::string_view type, const std::optional<std::string>& eventID,
                             const std::optional<std::string>& artistID) {
  auto parameters = reporters::internal::userEvent(type);
  parameters.set(kKVRProviderName, kAppleMusicLive);
  setEventAndArtist(parameters, eventID, artistID);
  return parameters;
}

void sendForEvent(std::string_view type, const std::optional<std::string>& eventID) {
  auto parameters = reporters::internal::userEvent(type);
  parameters.set(kKVREventID, eventID);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
}

void reportUpsellClosed(std::string_view upsell, const std::optional<std::string>& eventID,
                        const std::optional<std::string>& artistID) {
  auto parameters = reporters::internal::userEvent(kKVRCloseType);
  parameters.set(kKVRProviderName, upsell);
  setEventAndArtist(parameters, eventID, artistID);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
}

KVRParameters videoParameters(std::string_view type, const std::optional<std::string>& videoID,
                              const std::optional<std::string>& eventID,
                              const std::optional<std::string>& artistID) {
  auto parameters = reporters::internal::userEvent(type);
  setEventAndArtist(parameters, eventID, artistID);
  parameters.set(kKVRProviderName, kAppleMusicLive);
  parameters.set(kKVRCampaign, videoID);
  return parameters;
}

}  // namespace

void KVREventsReporter::reportWatchNowButtonImpressionForEventID(
    const std::optional<std::string>& eventID, const std::optional<std::string>& artistID) noexcept
    try {
  reporters::internal::send(KVRBeaconTypeImpression, liveParameters(kWatchNow, eventID, artistID));
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportWatchNowButtonImpressionForEventID");
}

void KVREventsReporter::reportImpressionForSection(
    KVREventPageOrigin section, const std::optional<std::string>& eventID,
    const std::optional<std::string>& artistID) noexcept try {
  const std::string sectionName = originStringForOrigin(section);
  KVRParameters parameters;
  if (isPlaylistSection(section)) {
    parameters.set(kKVRType, sectionName);
    parameters.set(kKVRProviderName, kAppleMusicLive);
  } else {
    parameters.set(kKVRProviderName, sectionName);
  }
  setEventAndArtist(parameters, eventID, artistID);
  reporters::internal::send(KVRBeaconTypeImpression, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportImpressionForSection");
}

void KVREventsReporter::reportDownloadedContentForEventID(
    const std::optional<std::string>& eventID) noexcept try {
  sendForEvent("addcontent", eventID);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportDownloadedContentForEventID");
}

void KVREventsReporter::reportAddToCalendarTappedForEventID(
    const std::optional<std::string>& eventID) noexcept try {
  sendForEvent(kKVRAddToCalendar, eventID);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportAddToCalendarTappedForEventID");
}

void KVREventsReporter::reportTicketsModalDismissedForEventID(
    const std::optional<std::string>& eventID) noexcept try {
  sendForEvent(kKVRCloseType, eventID);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportTicketsModalDismissedForEventID");
}

void KVREventsReporter::reportLatestReleaseUpsellClosedForEventID(
    const std::optional<std::string>& eventID, const std::optional<std::string>& artistID) noexcept
    try {
  reportUpsellClosed(kKVRAMEventsLatestReleaseUpsell, eventID, artistID);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportLatestReleaseUpsellClosedForEventID");
}

void KVREventsReporter::reportLatestReleaseSpatialUpsellClosedForEventID(
    const std::optional<std::string>& eventID, const std::optional<std::string>& artistID) noexcept
    try {
  reportUpsellClosed(kKVRAMEventsLatestReleaseUpsellSpatial, eventID, artistID);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVREventsReporter::reportLatestReleaseSpatialUpsellClosedForEventID");
}

void KVREventsReporter::reportTicketButtonTappedForEventID(
    const std::optional<std::string>& eventID) noexcept try {
  sendForEvent(kKVRGetTickets, eventID);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportTicketButtonTappedForEventID");
}

void KVREventsReporter::reportNavigationToArtistPage() noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVROrigin, kKVREvent);
  parameters.set(kKVRDestination, kKVRArtist);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportNavigationToArtistPage");
}

void KVREventsReporter::reportNavigationToTrackPageFromOrigin(
    KVREventPageOrigin origin, const std::optional<std::string>& eventID,
    const std::optional<std::string>& artistID) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  setEventAndArtist(parameters, eventID, artistID);
  parameters.set(kKVROrigin, originStringForOrigin(origin));
  parameters.set(kKVRDestination, kKVRDetails);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportNavigationToTrackPageFromOrigin");
}

void KVREventsReporter::reportAnotherEventTappedFromEventWithID(
    const std::optional<std::string>& eventID) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVREventID, eventID);
  parameters.set(kKVRDestination, kKVREvent);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportAnotherEventTappedFromEventWithID");
}

void KVREventsReporter::reportOpenedEventID(const std::optional<std::string>& eventID,
                                            const std::optional<std::string>& artistID) noexcept
    try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  setEventAndArtist(parameters, eventID, artistID);
  parameters.set(kKVROrigin, kKVREvents);
  parameters.set(kKVRDestination, kKVREvent);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportOpenedEventID");
}

void KVREventsReporter::reportEventListOpenedForArtistID(
    const std::optional<std::string>& artistID) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRArtistAdamID, artistID);
  parameters.set(kKVROrigin, kKVREvents);
  parameters.set(kKVRDestination, kKVREventList);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportEventListOpenedForArtistID");
}

void KVREventsReporter::reportOpenedPhotoForEventID(const std::optional<std::string>& eventID,
                                                    KVREventPageOrigin origin) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVREventID, eventID);
  parameters.set(kKVROrigin, originStringForOrigin(origin));
  parameters.set(kKVRDestination, "photo");
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportOpenedPhotoForEventID");
}

void KVREventsReporter::reportOpenedVideoForVideoID(
    const std::optional<std::string>& videoID, const std::optional<std::string>& eventID,
    const std::optional<std::string>& artistID) noexcept try {
  reporters::internal::send(KVRBeaconTypeUserEvent, videoParameters(kWatchVideo, videoID, eventID, artistID));
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportOpenedVideoForVideoID");
}

void KVREventsReporter::reportLoadedVideoForVideoID(const std::optional<std::string>& videoID,
                                                    const std::optional<std::string>& eventID,
                                                    const std::optional<std::string>& artistID,
                                                    double loadingTime) noexcept try {
  auto parameters = videoParameters("watch_video_load", videoID, eventID, artistID);
  parameters.set("latency", loadingTime);
  parameters.set(kKVROrigin, kWatchVideo);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportLoadedVideoForVideoID");
}

std::optional<std::string> KVREventsReporter::reportWatchNowButtonTappedForEventID(
    const std::optional<std::string>& eventID, const std::optional<std::string>& artistID) noexcept
    try {
  return reporters::internal::send(KVRBeaconTypeUserEvent, liveParameters(kWatchNow, eventID, artistID));
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportWatchNowButtonTappedForEventID");
  return std::nullopt;
}

std::optional<std::string> KVREventsReporter::reportPlaylistFooterButtonTappedForEventID(
    const std::optional<std::string>& eventID, const std::optional<std::string>& artistID,
    bool isFeaturedPlaylist) noexcept try {
  auto parameters = liveParameters("playlist", eventID, artistID);
  if (isFeaturedPlaylist) parameters.set(kKVROrigin, kKVRFeaturedPlaylist);
  return reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportPlaylistFooterButtonTappedForEventID");
  return std::nullopt;
}

void KVREventsReporter::reportOpenMapTappedForEventID(
    const std::optional<std::string>& eventID) noexcept try {
  reportOpenTicketProviderWithName("map", eventID);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportOpenMapTappedForEventID");
}

std::optional<std::string> KVREventsReporter::reportOpenAppForStreamingServiceProvider(
    KVRStreamingServiceProvider provider, const std::optional<std::string>& eventID,
    KVREventPageOrigin origin) noexcept try {
  return reporters::internal::sendOpenItem(KVRStreamingServiceReporter::providerNameForProvider(provider),
                                 originStringForOrigin(origin), kKVREventID, eventID);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportOpenAppForStreamingServiceProvider");
  return std::nullopt;
}

void KVREventsReporter::reportOpenTicketProviderWithName(
    const std::optional<std::string>& name, const std::optional<std::string>& eventID) noexcept
    try {
  auto parameters = reporters::internal::userEvent(kKVROpenType);
  parameters.set(kKVREventID, eventID);
  parameters.set(kKVRProviderName, name);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportOpenTicketProviderWithName");
}

void KVREventsReporter::reportPlaybackForEventID(
    const std::optional<std::string>& eventID, const std::optional<std::string>& artistID,
    const std::optional<std::string>& streamingServiceIdentifier,
    KVREventPageOrigin origin) noexcept try {
  KVRParameters beaconData;
  setEventAndArtist(beaconData, eventID, artistID);
  beaconData.set(kKVROrigin, originStringForOrigin(origin));
  KVRStreamingServiceReporter::reportPlaybackPlayWithStreamingServiceIdentifier(
      streamingServiceIdentifier, beaconData);
} catch (...) {
  KVRLogging::logReportFailure("KVREventsReporter::reportPlaybackForEventID");
}

std::string KVREventsReporter::originStringForOrigin(KVREventPageOrigin origin) {
  // Values beyond int64_t's range turn negative here and fall back as well.
  return reporters::internal::wordFor(kOrigins, static_cast<int64_t>(origin), kOriginFallback);
}

}  // namespace korvel
