// Generation of the tokens the app authenticates with, on its own token
// layer and on the AMS layer.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

namespace korvel {

// How a token was obtained; 1 to 3 are reason codes of their own.
using KVRAuthenticationSuccessType = int64_t;
// Why token generation failed; any failure is reason code 1.
using KVRAuthenticationFailureType = int64_t;

class KORVEL_EXPORT KVRAuthenticationReporter {
 public:
  KVRAuthenticationReporter() = delete;

  // The own token layer reports a reason code and no duration; the AMS layer
  // a duration (in the caller's unit, passed on unscaled) and no reason.
  static void reportKorvelLayerAuthenticationTokenGenerationSuccessWithSuccessType(
      KVRAuthenticationSuccessType successType) noexcept;
  static void reportKorvelLayerAuthenticationTokenGenerationFailureWithFailureType(
      KVRAuthenticationFailureType failureType) noexcept;
  static void reportAMSLayerAuthenticationTokenGenerationSuccessWithDuration(
      double duration) noexcept;
  static void reportAMSLayerAuthenticationTokenGenerationFailedWithErrorCodeChain(
      const std::optional<std::string>& errorCodeChain, double duration) noexcept;

  // 1, 2 and 3 as they are; anything else 0.
  static int64_t reasonCodeFromSuccessType(KVRAuthenticationSuccessType successType);
  // 0 for 0, 1 for anything else.
  static int64_t reasonCodeFromFailureType(KVRAuthenticationFailureType failureType);
};

}  // namespace korvel
