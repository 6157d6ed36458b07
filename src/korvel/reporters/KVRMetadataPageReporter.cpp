#include <korvel/reporters/KVRMetadataPageReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {
namespace {

void reportNavigation(std::string_view card, std::string_view destination) {
  auto parameters = reporting::userEvent(kKVRNavType);
  parameters.set(kKVROrigin, card);
  parameters.set(kKVRDestination, destination);
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

}  // namespace

void KVRMetadataPageReporter::reportHighlightsNavigationFromHighlightsCard() {
  reportNavigation(kKVRMetadataHighlightsCard, kKVRHighlights);
}

void KVRMetadataPageReporter::reportArtistBioNavigationFromArtistCard() {
  reportNavigation(kKVRMetadataArtistCard, "artist_bio");
}

void KVRMetadataPageReporter::reportArtistPageNavigationFromArtistCard() {
  reportNavigation(kKVRMetadataArtistCard, kKVRArtist);
}

void KVRMetadataPageReporter::reportTrackImageNavigationFromTrackCard() {
  reportNavigation(kKVRMetadataTrackCard, "track_image");
}

void KVRMetadataPageReporter::reportArtistImageNavigationFromArtistCard() {
  reportNavigation(kKVRMetadataArtistCard, "artist_image");
}

void KVRMetadataPageReporter::reportImpressionForHighlightsCard() {
  reporting::sendProviderImpression(kKVRMetadataHighlightsCard);
}

void KVRMetadataPageReporter::reportImpressionForTrackCard() {
  reporting::sendProviderImpression(kKVRMetadataTrackCard);
}

void KVRMetadataPageReporter::reportImpressionForArtistCard() {
  reporting::sendProviderImpression(kKVRMetadataArtistCard);
}

}  // namespace korvel
