#include <korvel/reporters/KVRArtistPageReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {
namespace {

constexpr std::string_view kAboutArtist = "aboutartist";

// Unlike the track page, every place has a word: unknown ones count as the
// hub, where the artist page is entered.
constexpr std::string_view kOriginFallback = "hub";
constexpr std::string_view kOrigins[] = {
    "hub",              // 0
    kAboutArtist,       // 1
    "inmymusic",        // 2
    kKVRTopSongs,       // 3
    kKVRFeaturedAlbum,  // 4
    "morealbums",       // 5
    kKVRPlaylists,      // 6
    "relatedartists",   // 7
};

void reportNavigation(const std::optional<std::string>& artistID, std::string_view origin,
                      std::string_view destination) {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRArtistAdamID, artistID);
  parameters.set(kKVROrigin, origin);
  parameters.set(kKVRDestination, destination);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
}

}  // namespace

void KVRArtistPageReporter::reportNavigationToAboutModalFromAboutArtistSectionForArtistID(
    const std::optional<std::string>& artistID) noexcept try {
  // The modal is named after the section it opens from.
  reportNavigation(artistID, kAboutArtist, kAboutArtist);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRArtistPageReporter::reportNavigationToAboutModalFromAboutArtistSectionForArtistID");
}

void KVRArtistPageReporter::reportNavigationToTrackPageFromOrigin(
    KVRArtistPageOrigin origin, const std::optional<std::string>& artistID) noexcept try {
  reportNavigation(artistID, originStringForOrigin(origin), kKVRDetails);
} catch (...) {
  KVRLogging::logReportFailure("KVRArtistPageReporter::reportNavigationToTrackPageFromOrigin");
}

void KVRArtistPageReporter::reportNavigationToArtistPageFromOrigin(
    KVRArtistPageOrigin origin, const std::optional<std::string>& artistID) noexcept try {
  reportNavigation(artistID, originStringForOrigin(origin), kKVRArtist);
} catch (...) {
  KVRLogging::logReportFailure("KVRArtistPageReporter::reportNavigationToArtistPageFromOrigin");
}

std::optional<std::string> KVRArtistPageReporter::reportOpenAppForStreamingServiceProvider(
    KVRStreamingServiceProvider provider, const std::optional<std::string>& artistID,
    KVRArtistPageOrigin origin) noexcept try {
  return reporters::internal::sendOpenItem(KVRStreamingServiceReporter::providerNameForProvider(provider),
                                 originStringForOrigin(origin), kKVRArtistAdamID, artistID);
} catch (...) {
  KVRLogging::logReportFailure("KVRArtistPageReporter::reportOpenAppForStreamingServiceProvider");
  return std::nullopt;
}

void KVRArtistPageReporter::reportPlaybackForArtistID(
    const std::optional<std::string>& artistID,
    const std::optional<std::string>& streamingServiceIdentifier,
    KVRArtistPageOrigin origin) noexcept try {
  KVRParameters beaconData;
  beaconData.set(kKVRArtistAdamID, artistID);
  beaconData.set(kKVROrigin, originStringForOrigin(origin));
  KVRStreamingServiceReporter::reportPlaybackPlayWithStreamingServiceIdentifier(
      streamingServiceIdentifier, beaconData);
} catch (...) {
  KVRLogging::logReportFailure("KVRArtistPageReporter::reportPlaybackForArtistID");
}

std::string KVRArtistPageReporter::originStringForOrigin(KVRArtistPageOrigin origin) {
  return reporters::internal::wordFor(kOrigins, origin, kOriginFallback);
}

}  // namespace korvel
