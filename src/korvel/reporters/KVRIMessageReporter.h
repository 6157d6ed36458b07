// The messages extension: opened, a track expanded, sent, played.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

namespace korvel {

// Where in the extension a track came from.
using KVRIMessageOrigin = int64_t;
inline constexpr KVRIMessageOrigin KVRIMessageOriginManual = 0;
inline constexpr KVRIMessageOrigin KVRIMessageOriginMyKorvel = 1;
inline constexpr KVRIMessageOrigin KVRIMessageOriginTag = 2;

class KORVEL_EXPORT KVRIMessageReporter {
 public:
  KVRIMessageReporter() = delete;

  static void reportIMessageOpened() noexcept;
  static void reportIMessageExpandedForTrackID(const std::optional<std::string>& trackID) noexcept;
  static void reportIMessageWillSendMessageForTrackID(
      const std::optional<std::string>& trackID) noexcept;
  static void reportIMessageWillSendMessageFromOrigin(
      KVRIMessageOrigin origin, const std::optional<std::string>& forTrackID) noexcept;
  // Playing always starts from a tag in a message.
  static void reportIMessageTapPlayWithTrackID(const std::optional<std::string>& trackID) noexcept;
  // The beacon's uuid.
  static std::optional<std::string> reportIMessageOpenAppleMusicTappedFromOrigin(
      KVRIMessageOrigin origin, const std::optional<std::string>& forTrackID) noexcept;

  // 1 "imessage_mykorvel", 2 "imessagetag", anything else "manual".
  static std::string imessageOriginStringForIMessageOrigin(KVRIMessageOrigin origin);
};

}  // namespace korvel
