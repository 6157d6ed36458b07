#include <korvel/reporters/KVRLibraryReporter.h>

#include <array>
#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>
#include <korvel/reporters/KVRStreamingServiceReporter.h>

namespace korvel {

namespace {

constexpr std::array<std::string_view, 7> kCardTypeWords = {
    "history",        "amupsell",        "ammodalupsell", kKVRSearch,
    "trending",       "playlistsforyou", kKVRLibraryICloudDisabledProviderName,
};
constexpr std::string_view kCardTypeFallback = "history";

void reportNavigation(std::string_view destination) {
  KVRParameters parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, destination);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
}

}  // namespace

void KVRLibraryReporter::reportLibraryImpressionOfType(KVRLibraryCardType type,
                                                       const KVRTagDetails* tagDetails) noexcept
    try {
  KVRParameters parameters;
  parameters.set(kKVRProviderName, reportingStringForType(type));
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  reporters::internal::send(KVRBeaconTypeImpression, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRLibraryReporter::reportLibraryImpressionOfType");
}

void KVRLibraryReporter::reportOpenedTrack(const KVRTagDetails* tagDetails,
                                           const std::optional<KVRValue>& cardPosition,
                                           KVRLibraryCardType cardType) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, kKVRDetails);
  parameters.set(kKVRCardPosition, cardPosition);
  parameters.set(kKVRCardType, reportingStringForType(cardType));
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRLibraryReporter::reportOpenedTrack");
}

void KVRLibraryReporter::reportPlayTrack(
    const KVRTagDetails* tagDetails,
    const std::optional<std::string>& withStreamingServiceIdentifier,
    const std::optional<KVRValue>& cardPosition) noexcept try {
  KVRParameters parameters;
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  // After the merge: the card the user tapped wins over any position the tag
  // remembers.
  parameters.set(kKVRCardPosition, cardPosition);
  KVRStreamingServiceReporter::reportPlaybackPlayWithStreamingServiceIdentifier(
      withStreamingServiceIdentifier, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRLibraryReporter::reportPlayTrack");
}

void KVRLibraryReporter::reportTappedSeeAllForType(
    KVRLibraryCardType type, const std::optional<std::string>& origin) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, reportingStringForType(type));
  parameters.set(kKVROrigin, origin);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRLibraryReporter::reportTappedSeeAllForType");
}

void KVRLibraryReporter::reportOpenedUpsellCard() noexcept try {
  reportNavigation("amupsell");
} catch (...) {
  KVRLogging::logReportFailure("KVRLibraryReporter::reportOpenedUpsellCard");
}

void KVRLibraryReporter::reportSearchTapped() noexcept try {
  reportNavigation(kKVRSearch);
} catch (...) {
  KVRLogging::logReportFailure("KVRLibraryReporter::reportSearchTapped");
}

void KVRLibraryReporter::reportKorvelButtonTapped() noexcept try {
  reportNavigation(kKVRHome);
} catch (...) {
  KVRLogging::logReportFailure("KVRLibraryReporter::reportKorvelButtonTapped");
}

std::string KVRLibraryReporter::reportingStringForType(KVRLibraryCardType type) {
  return reporters::internal::wordFor(kCardTypeWords, type, kCardTypeFallback);
}

}  // namespace korvel
