#include <korvel/reporters/KVRPrivacyConsentReporter.h>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

void KVRPrivacyConsentReporter::reportChinaPIPLPrivacyConsentGrantedAtTimestamp(
    KVRDate timestamp, bool isNewUser) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent("consent");
  parameters.set(kKVRScreenName, "pipl");
  // Words, not digits: the consent record is read by people as well.
  parameters.set("newuser", isNewUser ? kKVRTrue : kKVRFalse);
  parameters.set("xbdt", "agree");
  parameters.set("xbdt_timestamp", timestamp.secondsSince1970);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRPrivacyConsentReporter::reportChinaPIPLPrivacyConsentGrantedAtTimestamp");
}

}  // namespace korvel
