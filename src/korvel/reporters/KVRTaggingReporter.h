// The life of one recognition attempt (a tagging session) and its result as
// beacons, and the description of a tag that every other reporter reuses.
//
// The tagging reporter is the only reporter with state: the process-wide
// table of open tagging sessions, so that the "ended" beacon can carry the
// start time, duration and origin of the matching "started" call. The host
// serialises its session calls (one thread at a time).
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/foundation/KVRParameters.h>
#include <korvel/pageviews/ReportingValue.h>
#include <korvel/platform/Application.h>
#include <korvel/foundation/KVNError.h>
#include <korvel/foundation/KVNNetwork.h>

namespace korvel {

// Raised for misuse of the tagging session calls, and only while the
// configuration's korvelFrameworksRaiseExceptions is on. what() is
// "KORVEL ASSERTION: " followed by the message.
class KORVEL_EXPORT KVRAssertionException : public std::logic_error {
 public:
  explicit KVRAssertionException(const std::string& message);
};

// Where a recognition was started (signed; unknown values have no word).
using KVRTagInitiationOrigin = int64_t;
// Where a recognition was cancelled; only 6 has a word.
using KVRCancelTaggingOrigin = int64_t;
// 0 match, 1 nomatch, 2 error, 3 canceled.
using KVRTaggingOutcome = int64_t;
// The host's kind of tagging; 2-5 pick special beacon types.
using KVRTaggingType = int64_t;
// 0 success, 1 error, 2 timeout, 3 empty.
using KVRFeatureExtractionOutcome = int64_t;

// What the host knows about one tag.
struct KORVEL_EXPORT KVRTagDetails {
  std::optional<std::string> thirdPartyOrigin;
  int64_t tagOrigin = 0;
  std::optional<std::string> tagTypeString;   // "tagtype"
  std::optional<std::string> trackID;         // "trackkey"
  std::optional<std::string> adamID;          // "track_adam_id"
  std::optional<std::string> artistAdamID;    // "artist_adam_id"
  std::optional<std::string> type;            // "matchcategory"
  std::optional<std::string> forensicID;      // "x-forensic-id"
  std::optional<std::string> tagID;           // "tagid"
  std::optional<std::string> recognitionType; // "rectype", successful tags only
  bool favourite = false;
  double recordDuration = 0;                  // seconds; "recordtime"
  double sampleLength = 0;                    // seconds; "samplelength"
  std::optional<double> sampleRate;           // "samplerate"
  int64_t taggingType = 0;
  std::optional<std::string> microphone;      // "microphone"
  std::optional<std::string> polarPattern;    // "polarpattern"
  std::optional<int64_t> headphonesConnected; // "headphones"
  std::optional<std::string> outputPort;      // "outputport"
  std::optional<std::string> inputPort;       // "inputport"
  double tagDuration = 0;                     // seconds; "time"
  bool unsubmitted = false;                   // "unsubmitted"

  bool isFavourite() const { return favourite; }
  bool isUnsubmitted() const { return unsubmitted; }
};

struct KORVEL_EXPORT KVRFeatureExtractionDetails {
  double duration = 0;  // seconds the extraction took
  // Length of the extracted sample in milliseconds, when known.
  std::optional<KVRValue> sampleLengthMillis;
};

// One open tagging session.
struct KORVEL_EXPORT KVRTaggingSession {
  std::optional<std::string> origin;
  double startTime = 0;  // seconds since 1970
};

// What readers of a tag result ask of it.
class KORVEL_EXPORT KVRTagResultInfo {
 public:
  virtual ~KVRTagResultInfo() = default;
  virtual std::optional<std::string> tagID() const = 0;
  virtual std::optional<std::string> trackIDOrUnknown() const = 0;
  virtual std::optional<KVRDate> date() const = 0;
  virtual std::optional<std::string> trackName() const = 0;
  virtual std::optional<std::string> artist() const = 0;
  virtual std::optional<KVNEndpoint> albumArtEndpoint() const = 0;
  virtual std::optional<std::string> syncProviderID() const = 0;
  virtual std::optional<std::string> syncProviderName() const = 0;
};

// A recognition that found nothing: only its tag id and date are set.
class KORVEL_EXPORT KVRNoMatchTagInfo : public KVRTagResultInfo {
 public:
  // Ends now.
  KVRNoMatchTagInfo();
  explicit KVRNoMatchTagInfo(std::optional<KVRDate> endDate);

  // "NO_MATCH-" followed by the date as "yyyy-MM-dd-HHmmss" in local time;
  // "NO_MATCH-(null)" without a date.
  static std::string noMatchFileNameWithDate(std::optional<KVRDate> date);

  std::optional<std::string> tagID() const override { return tagID_; }
  std::optional<std::string> trackIDOrUnknown() const override { return "NO_MATCH"; }
  std::optional<KVRDate> date() const override { return date_; }
  std::optional<std::string> trackName() const override { return std::nullopt; }
  std::optional<std::string> artist() const override { return std::nullopt; }
  std::optional<KVNEndpoint> albumArtEndpoint() const override { return std::nullopt; }
  std::optional<std::string> syncProviderID() const override { return std::nullopt; }
  std::optional<std::string> syncProviderName() const override { return std::nullopt; }

 private:
  std::optional<KVRDate> date_;
  std::string tagID_;
};

class KORVEL_EXPORT KVRTaggingReporter {
 public:
  KVRTaggingReporter() = delete;

  // Session ids are the host's; a missing id (or ending a session that is
  // not open) is misuse, raised as KVRAssertionException while the
  // configuration asks for it. These two are the only report operations that
  // may throw, and only that; every other failure is logged and swallowed.
  static void reportTaggingSessionStarted(const std::optional<std::string>& sessionID,
                                          KVRTagInitiationOrigin fromOrigin,
                                          const std::optional<std::string>& thirdPartyOrigin,
                                          bool isInBackground);
  static void reportTaggingSessionEnded(const std::optional<std::string>& sessionID,
                                        const KVRTagDetails* tagDetails,
                                        KVRTaggingOutcome outcome, bool isInBackground,
                                        const KVNError* error);
  static void reportTag(const KVRTagDetails* tagDetails, KVRTaggingType ofType) noexcept;
  static KVRParameters reportingParametersForSuccessfulTagWithTagDetails(
      const KVRTagDetails* tagDetails);
  static void reportTaggingCancelledFromOrigin(KVRCancelTaggingOrigin origin,
                                               bool isInBackground) noexcept;
  static void reportTaggingErrorWithTagID(const std::optional<std::string>& tagID,
                                          const std::optional<int64_t>& code) noexcept;
  static void reportDeletedTagWithTrackID(const std::optional<std::string>& trackID,
                                          const std::optional<std::string>& tagOrigin) noexcept;
  static void reportMagicTap() noexcept;
  static void reportFeatureExtractionEndedWithOutcome(KVRFeatureExtractionOutcome outcome,
                                                      const KVRFeatureExtractionDetails* details,
                                                      const std::optional<std::string>& tagID,
                                                      const KVNError* error) noexcept;
  static void reportHardwareConfigurationFailure(
      int64_t reason, const std::optional<std::string>& errorCode,
      const std::optional<std::string>& currentMicrophone,
      const std::optional<std::string>& currentPolarPattern,
      const std::optional<std::string>& targetMicrophone,
      const std::optional<std::string>& targetPolarPattern,
      const std::optional<std::string>& stereoOrientation) noexcept;

  // The tag's parameters as a plain dictionary (the typed set below, entry
  // for entry); with no tag details, only the orientation entries.
  static KVRParameters reportingParametersForTagDetails(const KVRTagDetails* tagDetails);
  // The same parameters as a typed set.
  static ReportingParameters reportingParameters(const KVRTagDetails* tagDetails);
  // The same dictionary, as the page-view side names it.
  static KVRParameters legacyReportingParameters(const KVRTagDetails* tagDetails);

  // The open sessions by session id. Not locked: the host serialises the
  // session calls.
  static std::unordered_map<std::string, KVRTaggingSession>& activeSessions();

  static KVRBeaconType beaconTypeFromTaggingType(KVRTaggingType taggingType);
  static std::optional<std::string> tagInitiationOriginStringForTagInitiationOrigin(
      KVRTagInitiationOrigin origin);
  static std::optional<std::string> cancelTaggingOriginStringForCancelTaggingOrigin(
      KVRCancelTaggingOrigin origin);
};

// The orientation the device had at launch; set once by the host.
class KORVEL_EXPORT KVRInitialOrientation {
 public:
  static std::optional<platform::DeviceOrientation> initialOrientation();
  static void setInitialOrientation(std::optional<platform::DeviceOrientation> orientation);
};

// "portrait", "portraitupsidedown", "landscapeleft", "landscaperight",
// "faceup", "facedown"; anything else "unknown".
KORVEL_EXPORT std::string orientationString(platform::DeviceOrientation orientation);

}  // namespace korvel
