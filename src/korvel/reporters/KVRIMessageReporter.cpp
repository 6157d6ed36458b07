#include <korvel/reporters/KVRIMessageReporter.h>

#include <array>
#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

constexpr std::array<std::string_view, 3> kOriginWords = {"manual", "imessage_mykorvel",
                                                          "imessagetag"};
constexpr std::string_view kOriginFallback = "manual";

KVRParameters trackEvent(std::string_view type, const std::optional<std::string>& trackID) {
  KVRParameters parameters = reporters::internal::userEvent(type);
  parameters.set(kKVRTrackID, trackID);
  return parameters;
}

}  // namespace

void KVRIMessageReporter::reportIMessageOpened() noexcept try {
  reporters::internal::send(KVRBeaconTypeUserEvent, reporters::internal::userEvent("imessageopen"));
} catch (...) {
  KVRLogging::logReportFailure("KVRIMessageReporter::reportIMessageOpened");
}

void KVRIMessageReporter::reportIMessageExpandedForTrackID(
    const std::optional<std::string>& trackID) noexcept try {
  reporters::internal::send(KVRBeaconTypeUserEvent, trackEvent("imessagetagopen", trackID));
} catch (...) {
  KVRLogging::logReportFailure("KVRIMessageReporter::reportIMessageExpandedForTrackID");
}

void KVRIMessageReporter::reportIMessageWillSendMessageForTrackID(
    const std::optional<std::string>& trackID) noexcept try {
  reporters::internal::send(KVRBeaconTypeUserEvent, trackEvent("imessagesent", trackID));
} catch (...) {
  KVRLogging::logReportFailure("KVRIMessageReporter::reportIMessageWillSendMessageForTrackID");
}

void KVRIMessageReporter::reportIMessageWillSendMessageFromOrigin(
    KVRIMessageOrigin origin, const std::optional<std::string>& forTrackID) noexcept try {
  KVRParameters parameters = trackEvent("imessagesent", forTrackID);
  parameters.set(kKVROrigin, imessageOriginStringForIMessageOrigin(origin));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRIMessageReporter::reportIMessageWillSendMessageFromOrigin");
}

void KVRIMessageReporter::reportIMessageTapPlayWithTrackID(
    const std::optional<std::string>& trackID) noexcept try {
  KVRParameters parameters = trackEvent(kKVRNavType, trackID);
  parameters.set(kKVRDestination, kKVRKorvel);
  parameters.set(kKVROrigin, imessageOriginStringForIMessageOrigin(KVRIMessageOriginTag));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRIMessageReporter::reportIMessageTapPlayWithTrackID");
}

std::optional<std::string> KVRIMessageReporter::reportIMessageOpenAppleMusicTappedFromOrigin(
    KVRIMessageOrigin origin, const std::optional<std::string>& forTrackID) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent(kKVROpenType);
  parameters.set(kKVRProviderName, kKVRProviderAppleMusicValue);
  parameters.set(kKVRTrackID, forTrackID);
  parameters.set(kKVROrigin, imessageOriginStringForIMessageOrigin(origin));
  return reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRIMessageReporter::reportIMessageOpenAppleMusicTappedFromOrigin");
  return std::nullopt;
}

std::string KVRIMessageReporter::imessageOriginStringForIMessageOrigin(KVRIMessageOrigin origin) {
  return reporters::internal::wordFor(kOriginWords, origin, kOriginFallback);
}

}  // namespace korvel
