#include <korvel/reporters/KVRPromptReporter.h>

#include <array>
#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

// Both tables start at 1: 0 shares its word with every unknown value.
constexpr std::array<std::string_view, 4> kPromptTypeWords = {
    "location_permissions", "notif_permissions", "photo_write_permissions", "offline_notify",
};
constexpr std::string_view kPromptTypeFallback = "calendar_permissions";

constexpr std::array<std::string_view, 3> kActionWords = {"notify_me", "ok", "settings"};
constexpr std::string_view kActionFallback = "cancel";

// Both prompt beacons say "prompt" in "type", even the user event, whose
// "type" is otherwise one of the user event types.
KVRParameters promptParameters(KVRPromptType promptType) {
  return KVRParameters{
      {kKVRType, "prompt"},
      {kKVRProviderName, KVRPromptReporter::promptTypeStringForPromptType(promptType)}};
}

}  // namespace

void KVRPromptReporter::reportImpressionForPromptType(KVRPromptType promptType) noexcept try {
  reporters::internal::send(KVRBeaconTypeImpression, promptParameters(promptType));
} catch (...) {
  KVRLogging::logReportFailure("KVRPromptReporter::reportImpressionForPromptType");
}

void KVRPromptReporter::reportAction(KVRPromptAction action, KVRPromptType forPromptType) noexcept
    try {
  KVRParameters parameters = promptParameters(forPromptType);
  parameters.set(kKVRAction, actionStringForAction(action));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRPromptReporter::reportAction");
}

std::string KVRPromptReporter::promptTypeStringForPromptType(KVRPromptType promptType) {
  return reporters::internal::wordFor(kPromptTypeWords, promptType, kPromptTypeFallback,
                            KVRPromptTypeLocationPermissions);
}

std::string KVRPromptReporter::actionStringForAction(KVRPromptAction action) {
  return reporters::internal::wordFor(kActionWords, action, kActionFallback, KVRPromptActionNotifyMe);
}

}  // namespace korvel
