// Permission and opt-in prompts: shown, and what the user chose.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <string>

namespace korvel {

using KVRPromptType = int64_t;
inline constexpr KVRPromptType KVRPromptTypeCalendarPermissions = 0;
inline constexpr KVRPromptType KVRPromptTypeLocationPermissions = 1;
inline constexpr KVRPromptType KVRPromptTypeNotificationPermissions = 2;
inline constexpr KVRPromptType KVRPromptTypePhotoWritePermissions = 3;
inline constexpr KVRPromptType KVRPromptTypeOfflineNotify = 4;

using KVRPromptAction = int64_t;
inline constexpr KVRPromptAction KVRPromptActionCancel = 0;
inline constexpr KVRPromptAction KVRPromptActionNotifyMe = 1;
inline constexpr KVRPromptAction KVRPromptActionOK = 2;
inline constexpr KVRPromptAction KVRPromptActionSettings = 3;

class KORVEL_EXPORT KVRPromptReporter {
 public:
  KVRPromptReporter() = delete;

  static void reportImpressionForPromptType(KVRPromptType promptType) noexcept;
  static void reportAction(KVRPromptAction action, KVRPromptType forPromptType) noexcept;

  // 1 to 4 have words; 0 and anything else is "calendar_permissions".
  static std::string promptTypeStringForPromptType(KVRPromptType promptType);
  // 1 to 3 have words; 0 and anything else is "cancel".
  static std::string actionStringForAction(KVRPromptAction action);
};

}  // namespace korvel
