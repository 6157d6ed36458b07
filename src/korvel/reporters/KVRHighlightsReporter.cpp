#include <korvel/reporters/KVRHighlightsReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

void KVRHighlightsReporter::reportOpeningHighlightsFromHighlightsRail() noexcept try {
  reportOpeningHighlightsFromOrigin(std::string(kKVRHighlights), nullptr);
} catch (...) {
  KVRLogging::logReportFailure("KVRHighlightsReporter::reportOpeningHighlightsFromHighlightsRail");
}

void KVRHighlightsReporter::reportOpeningBackgroundHighlightForTrack(
    const KVRTagDetails* tagDetails) noexcept try {
  reportOpeningHighlightsFromOrigin("background", tagDetails);
} catch (...) {
  KVRLogging::logReportFailure("KVRHighlightsReporter::reportOpeningBackgroundHighlightForTrack");
}

void KVRHighlightsReporter::reportOpeningHighlightsFromOrigin(
    const std::optional<std::string>& origin, const KVRTagDetails* tagDetails) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, kKVRHighlights);
  parameters.set(kKVROrigin, origin);
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRHighlightsReporter::reportOpeningHighlightsFromOrigin");
}

void KVRHighlightsReporter::reportSkippedForward() noexcept try {
  reporters::internal::send(KVRBeaconTypeUserEvent, reporters::internal::userEvent(kKVROnSkipTapped));
} catch (...) {
  KVRLogging::logReportFailure("KVRHighlightsReporter::reportSkippedForward");
}

void KVRHighlightsReporter::reportSkippedBack() noexcept try {
  reporters::internal::send(KVRBeaconTypeUserEvent, reporters::internal::userEvent("onbacktapped"));
} catch (...) {
  KVRLogging::logReportFailure("KVRHighlightsReporter::reportSkippedBack");
}

std::optional<std::string> KVRHighlightsReporter::reportOpenAppleMusicTapped() noexcept try {
  return reporters::internal::send(KVRBeaconTypeUserEvent,
                         reporters::internal::openEvent(kKVRProviderAppleMusicValue, "highlightspill"));
} catch (...) {
  KVRLogging::logReportFailure("KVRHighlightsReporter::reportOpenAppleMusicTapped");
  return std::nullopt;
}

void KVRHighlightsReporter::reportHighlightsImpression() noexcept try {
  reporters::internal::sendProviderImpression(kKVRHighlights);
} catch (...) {
  KVRLogging::logReportFailure("KVRHighlightsReporter::reportHighlightsImpression");
}

void KVRHighlightsReporter::reportHighlightsLoading() noexcept try {
  reporters::internal::sendProviderImpression("highlightsloading");
} catch (...) {
  KVRLogging::logReportFailure("KVRHighlightsReporter::reportHighlightsLoading");
}

}  // namespace korvel
