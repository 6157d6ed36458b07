#include <korvel/reporters/KVRMetadataPageReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {
namespace {

void reportNavigation(std::string_view card, std::string_view destination) {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVROrigin, card);
  parameters.set(kKVRDestination, destination);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
}

}  // namespace

void KVRMetadataPageReporter::reportHighlightsNavigationFromHighlightsCard() noexcept try {
  reportNavigation(kKVRMetadataHighlightsCard, kKVRHighlights);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRMetadataPageReporter::reportHighlightsNavigationFromHighlightsCard");
}

void KVRMetadataPageReporter::reportArtistBioNavigationFromArtistCard() noexcept try {
  reportNavigation(kKVRMetadataArtistCard, "artist_bio");
} catch (...) {
  KVRLogging::logReportFailure("KVRMetadataPageReporter::reportArtistBioNavigationFromArtistCard");
}

void KVRMetadataPageReporter::reportArtistPageNavigationFromArtistCard() noexcept try {
  reportNavigation(kKVRMetadataArtistCard, kKVRArtist);
} catch (...) {
  KVRLogging::logReportFailure("KVRMetadataPageReporter::reportArtistPageNavigationFromArtistCard");
}

void KVRMetadataPageReporter::reportTrackImageNavigationFromTrackCard() noexcept try {
  reportNavigation(kKVRMetadataTrackCard, "track_image");
} catch (...) {
  KVRLogging::logReportFailure("KVRMetadataPageReporter::reportTrackImageNavigationFromTrackCard");
}

void KVRMetadataPageReporter::reportArtistImageNavigationFromArtistCard() noexcept try {
  reportNavigation(kKVRMetadataArtistCard, "artist_image");
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRMetadataPageReporter::reportArtistImageNavigationFromArtistCard");
}

void KVRMetadataPageReporter::reportImpressionForHighlightsCard() noexcept try {
  reporters::internal::sendProviderImpression(kKVRMetadataHighlightsCard);
} catch (...) {
  KVRLogging::logReportFailure("KVRMetadataPageReporter::reportImpressionForHighlightsCard");
}

void KVRMetadataPageReporter::reportImpressionForTrackCard() noexcept try {
  reporters::internal::sendProviderImpression(kKVRMetadataTrackCard);
} catch (...) {
  KVRLogging::logReportFailure("KVRMetadataPageReporter::reportImpressionForTrackCard");
}

void KVRMetadataPageReporter::reportImpressionForArtistCard() noexcept try {
  reporters::internal::sendProviderImpression(kKVRMetadataArtistCard);
} catch (...) {
  KVRLogging::logReportFailure("KVRMetadataPageReporter::reportImpressionForArtistCard");
}

}  // namespace korvel
