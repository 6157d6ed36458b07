#include <korvel/reporters/KVRAuthenticationReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

constexpr std::string_view kKorvelTokenType = "korveltokengen";
constexpr std::string_view kAMSTokenType = "amstokengen";

constexpr int64_t kFirstSuccessReason = 1;
constexpr int64_t kLastSuccessReason = 3;
constexpr int64_t kNoReason = 0;
constexpr int64_t kFailureReason = 1;

KVRParameters tokenGeneration(std::string_view layer, std::string_view outcome) {
  return KVRParameters{{kKVRType, layer}, {kKVROutcome, outcome}};
}

}  // namespace

void KVRAuthenticationReporter::
    reportKorvelLayerAuthenticationTokenGenerationSuccessWithSuccessType(
        KVRAuthenticationSuccessType successType) noexcept try {
  KVRParameters parameters = tokenGeneration(kKorvelTokenType, kKVRSuccess);
  parameters.set(kKVRReason, reasonCodeFromSuccessType(successType));
  reporters::internal::send(KVRBeaconTypeAuthentication, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRAuthenticationReporter::"
      "reportKorvelLayerAuthenticationTokenGenerationSuccessWithSuccessType");
}

void KVRAuthenticationReporter::
    reportKorvelLayerAuthenticationTokenGenerationFailureWithFailureType(
        KVRAuthenticationFailureType failureType) noexcept try {
  KVRParameters parameters = tokenGeneration(kKorvelTokenType, kKVRErrorKey);
  parameters.set(kKVRReason, reasonCodeFromFailureType(failureType));
  reporters::internal::send(KVRBeaconTypeAuthentication, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRAuthenticationReporter::"
      "reportKorvelLayerAuthenticationTokenGenerationFailureWithFailureType");
}

void KVRAuthenticationReporter::reportAMSLayerAuthenticationTokenGenerationSuccessWithDuration(
    double duration) noexcept try {
  KVRParameters parameters = tokenGeneration(kAMSTokenType, kKVRSuccess);
  parameters.set(kKVRDuration, duration);
  reporters::internal::send(KVRBeaconTypeAuthentication, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRAuthenticationReporter::reportAMSLayerAuthenticationTokenGenerationSuccessWithDuration");
}

void KVRAuthenticationReporter::reportAMSLayerAuthenticationTokenGenerationFailedWithErrorCodeChain(
    const std::optional<std::string>& errorCodeChain, double duration) noexcept try {
  KVRParameters parameters = tokenGeneration(kAMSTokenType, kKVRErrorKey);
  parameters.set(kKVRDuration, duration);
  parameters.set(kKVRErrorCodeChain, errorCodeChain);
  reporters::internal::send(KVRBeaconTypeAuthentication, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRAuthenticationReporter::"
      "reportAMSLayerAuthenticationTokenGenerationFailedWithErrorCodeChain");
}

int64_t KVRAuthenticationReporter::reasonCodeFromSuccessType(
    KVRAuthenticationSuccessType successType) {
  const bool hasOwnCode = successType >= kFirstSuccessReason && successType <= kLastSuccessReason;
  return hasOwnCode ? successType : kNoReason;
}

int64_t KVRAuthenticationReporter::reasonCodeFromFailureType(
    KVRAuthenticationFailureType failureType) {
  return failureType == 0 ? kNoReason : kFailureReason;
}

}  // namespace korvel
