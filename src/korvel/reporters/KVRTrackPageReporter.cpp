#include <korvel/reporters/KVRTrackPageReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {
namespace {

// 6 is a gap on purpose: that place is reported without an origin, like an
// unknown one.
constexpr std::string_view kOrigins[] = {
    "overflow",         // 0
    "track_overflow",   // 1
    "track",            // 2
    kKVRTopSongs,       // 3
    kKVRFeaturedAlbum,  // 4
    kKVRRelatedSongs,   // 5
    {},                 // 6
    kKVRDetails,        // 7
};

KVRParameters openedTrackParameters() {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, kKVRDetails);
  return parameters;
}

}  // namespace

void KVRTrackPageReporter::reportNavigationToArtistPageFromOrigin(
    KVRTrackPageOrigin origin) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVROrigin, originStringForOrigin(origin));
  parameters.set(kKVRDestination, kKVRArtist);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTrackPageReporter::reportNavigationToArtistPageFromOrigin");
}

void KVRTrackPageReporter::reportOpenedTrackWithTrackAdamID(
    const std::optional<std::string>& trackAdamID, KVRTrackPageOrigin origin) noexcept try {
  auto parameters = openedTrackParameters();
  parameters.set(kKVRTrackAdamID, trackAdamID);
  parameters.set(kKVROrigin, originStringForOrigin(origin));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTrackPageReporter::reportOpenedTrackWithTrackAdamID");
}

void KVRTrackPageReporter::reportOpenedTrack(const KVRTagDetails* tagDetails,
                                             KVRTrackPageOrigin origin) noexcept try {
  auto parameters = openedTrackParameters();
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  // After the merge: the place on this page is what the beacon is about.
  parameters.set(kKVROrigin, originStringForOrigin(origin));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTrackPageReporter::reportOpenedTrack");
}

std::optional<std::string> KVRTrackPageReporter::reportOpenAppForStreamingServiceProvider(
    KVRStreamingServiceProvider provider, const std::optional<std::string>& trackAdamID,
    KVRTrackPageOrigin origin) noexcept try {
  return reporters::internal::sendOpenItem(KVRStreamingServiceReporter::providerNameForProvider(provider),
                                 originStringForOrigin(origin), kKVRTrackAdamID, trackAdamID);
} catch (...) {
  KVRLogging::logReportFailure("KVRTrackPageReporter::reportOpenAppForStreamingServiceProvider");
  return std::nullopt;
}

void KVRTrackPageReporter::reportPlaybackForTagDetails(
    const KVRTagDetails* tagDetails, const std::optional<std::string>& streamingServiceIdentifier,
    KVRTrackPageOrigin origin) noexcept try {
  KVRParameters beaconData;
  beaconData.set(kKVROrigin, originStringForOrigin(origin));
  // After the origin: a tag that knows where it was played from wins.
  reporters::internal::mergeTagParameters(beaconData, tagDetails);
  KVRStreamingServiceReporter::reportPlaybackPlayWithStreamingServiceIdentifier(
      streamingServiceIdentifier, beaconData);
} catch (...) {
  KVRLogging::logReportFailure("KVRTrackPageReporter::reportPlaybackForTagDetails");
}

void KVRTrackPageReporter::reportPlaybackForTrackID(
    const std::optional<std::string>& trackID,
    const std::optional<std::string>& streamingServiceIdentifier,
    KVRTrackPageOrigin origin) noexcept try {
  KVRParameters beaconData;
  beaconData.set(kKVRTrackAdamID, trackID);
  beaconData.set(kKVROrigin, originStringForOrigin(origin));
  KVRStreamingServiceReporter::reportPlaybackPlayWithStreamingServiceIdentifier(
      streamingServiceIdentifier, beaconData);
} catch (...) {
  KVRLogging::logReportFailure("KVRTrackPageReporter::reportPlaybackForTrackID");
}

std::optional<std::string> KVRTrackPageReporter::originStringForOrigin(KVRTrackPageOrigin origin) {
  return reporters::internal::wordFor(kOrigins, origin);
}

}  // namespace korvel
