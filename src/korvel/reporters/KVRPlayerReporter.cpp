#include <korvel/reporters/KVRPlayerReporter.h>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>
#include <korvel/reporters/KVRUserEventReporter.h>

namespace korvel {

void KVRPlayerReporter::reportNavigationToArtistPage() noexcept try {
  KVRParameters parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVROrigin, "player");
  parameters.set(kKVRDestination, kKVRArtist);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRPlayerReporter::reportNavigationToArtistPage");
}

void KVRPlayerReporter::reportUserTappedOnTrackInPlayerTracklistWithTagDetails(
    const KVRTagDetails* tagDetails,
    const std::optional<std::string>& streamingServiceProviderName) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent(kKVRPlayerPlay);
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  // After the merge, so that the service actually playing is the one named.
  parameters.set(kKVRProviderName, streamingServiceProviderName);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRPlayerReporter::reportUserTappedOnTrackInPlayerTracklistWithTagDetails");
}

void KVRPlayerReporter::reportUserTappedSavePlaylistWithStreamingServiceProviderName(
    const std::optional<std::string>& providerName) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent("saveplaylist");
  parameters.set(kKVRProviderName, providerName);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRPlayerReporter::reportUserTappedSavePlaylistWithStreamingServiceProviderName");
}

void KVRPlayerReporter::reportUserScrolledToBottomOfTracklist() noexcept try {
  KVRUserEventReporter::reportUserScrolled();
} catch (...) {
  KVRLogging::logReportFailure("KVRPlayerReporter::reportUserScrolledToBottomOfTracklist");
}

std::string KVRPlayerReporter::playerContentTypeStringFromPlayerContentType(
    KVRPlayerContentType /*type*/) {
  return "playlist";
}

}  // namespace korvel
