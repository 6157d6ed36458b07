#include <korvel/reporters/KVRSocialReporter.h>

#include <array>
#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

constexpr std::array<std::string_view, 3> kNetworkWords = {"twitter", "instagram", "facebook"};
constexpr std::string_view kNetworkFallback = "twitter";

void reportUserEvent(std::string_view type) {
  reporters::internal::send(KVRBeaconTypeUserEvent, reporters::internal::userEvent(type));
}

}  // namespace

void KVRSocialReporter::reportTookScreenshot() noexcept try {
  reportUserEvent("tookscreenshot");
} catch (...) {
  KVRLogging::logReportFailure("KVRSocialReporter::reportTookScreenshot");
}

void KVRSocialReporter::reportMyKorvelScreenshotEducationSeen() noexcept try {
  reportUserEvent("mykorveleducationseen");
} catch (...) {
  KVRLogging::logReportFailure("KVRSocialReporter::reportMyKorvelScreenshotEducationSeen");
}

void KVRSocialReporter::reportMyKorvelScreenshotEducationActionTapped() noexcept try {
  reportUserEvent("mykorveleducationactiontapped");
} catch (...) {
  KVRLogging::logReportFailure("KVRSocialReporter::reportMyKorvelScreenshotEducationActionTapped");
}

void KVRSocialReporter::reportTappedSocialMediaLink(KVRSocialNetworkType network) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent("opensocialnetwork");
  parameters.set(kKVRProviderName, stringForSocialNetworkType(network));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRSocialReporter::reportTappedSocialMediaLink");
}

std::string KVRSocialReporter::stringForSocialNetworkType(KVRSocialNetworkType network) {
  return reporters::internal::wordFor(kNetworkWords, network, kNetworkFallback);
}

}  // namespace korvel
