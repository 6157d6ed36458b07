// Consent to the processing of personal information where the law asks for
// it (PIPL).
#pragma once

#include <korvel/export.h>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KORVEL_EXPORT KVRPrivacyConsentReporter {
 public:
  KVRPrivacyConsentReporter() = delete;

  // The time of consent goes out in seconds since 1970, fraction kept.
  static void reportChinaPIPLPrivacyConsentGrantedAtTimestamp(KVRDate timestamp,
                                                              bool isNewUser) noexcept;
};

}  // namespace korvel
