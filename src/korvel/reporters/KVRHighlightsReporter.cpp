#include <korvel/reporters/KVRHighlightsReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

void KVRHighlightsReporter::reportOpeningHighlightsFromHighlightsRail() {
  reportOpeningHighlightsFromOrigin(std::string(kKVRHighlights), nullptr);
}

void KVRHighlightsReporter::reportOpeningBackgroundHighlightForTrack(
    const KVRTagDetails* tagDetails) {
  reportOpeningHighlightsFromOrigin("background", tagDetails);
}

void KVRHighlightsReporter::reportOpeningHighlightsFromOrigin(
    const std::optional<std::string>& origin, const KVRTagDetails* tagDetails) {
  auto parameters = reporting::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, kKVRHighlights);
  parameters.set(kKVROrigin, origin);
  reporting::mergeTagParameters(parameters, tagDetails);
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRHighlightsReporter::reportSkippedForward() {
  reporting::send(KVRBeaconTypeUserEvent, reporting::userEvent(kKVROnSkipTapped));
}

void KVRHighlightsReporter::reportSkippedBack() {
  reporting::send(KVRBeaconTypeUserEvent, reporting::userEvent("onbacktapped"));
}

std::optional<std::string> KVRHighlightsReporter::reportOpenAppleMusicTapped() {
  return reporting::send(KVRBeaconTypeUserEvent,
                         reporting::openEvent(kKVRProviderAppleMusicValue, "highlightspill"));
}

void KVRHighlightsReporter::reportHighlightsImpression() {
  reporting::sendProviderImpression(kKVRHighlights);
}

void KVRHighlightsReporter::reportHighlightsLoading() {
  reporting::sendProviderImpression("highlightsloading");
}

}  // namespace korvel
