// Screenshots, the screenshot education of My Korvel, and links to social
// networks.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <string>

namespace korvel {

using KVRSocialNetworkType = int64_t;
inline constexpr KVRSocialNetworkType KVRSocialNetworkTypeTwitter = 0;
inline constexpr KVRSocialNetworkType KVRSocialNetworkTypeInstagram = 1;
inline constexpr KVRSocialNetworkType KVRSocialNetworkTypeFacebook = 2;

class KORVEL_EXPORT KVRSocialReporter {
 public:
  KVRSocialReporter() = delete;

  static void reportTookScreenshot() noexcept;
  static void reportMyKorvelScreenshotEducationSeen() noexcept;
  static void reportMyKorvelScreenshotEducationActionTapped() noexcept;
  static void reportTappedSocialMediaLink(KVRSocialNetworkType network) noexcept;

  // 1 "instagram", 2 "facebook", anything else "twitter".
  static std::string stringForSocialNetworkType(KVRSocialNetworkType network);
};

}  // namespace korvel
