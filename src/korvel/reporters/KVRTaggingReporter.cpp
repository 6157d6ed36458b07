#include <korvel/reporters/KVRTaggingReporter.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRReportingUtilities.h>
#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

// Where a recognition was started, from 0 up; anything else has no word and
// the beacon carries no origin.
constexpr std::array<std::string_view, 22> kInitiationOriginWords = {
    "primary",
    "nomatch",
    "magictap",
    "deeplink",
    "watch",
    "camera",
    "statuslabel",
    "shortcut",
    "welcome",
    "imessage",
    "tagonstart",
    "interstitial",
    "webbridge",
    "menubar",
    "library",
    "nomatch_background_notif",
    "lockscreen_widget_small",
    "lockscreen_widget_medium",
    "home_widget_small",
    "home_widget_medium",
    "home_widget_large",
    "live_activity_retry",
};

// Only a cancel from the live activity (6) is named. Its word is not the
// start table's "live_activity_retry": the two are different events and
// keep different words.
constexpr KVRCancelTaggingOrigin kFirstNamedCancelOrigin = 6;
constexpr std::array<std::string_view, 1> kCancelOriginWords = {"live_activity"};

// Device orientations from 1 (portrait) up; 0 and anything unknown is
// "unknown".
constexpr std::array<std::string_view, 6> kOrientationWords = {
    "portrait", "portraitupsidedown", "landscapeleft", "landscaperight", "faceup", "facedown",
};
constexpr std::string_view kUnknownOrientation = "unknown";

// Tagging types from 2 up pick their own beacon type; everything else is a
// plain tagged beacon.
constexpr KVRTaggingType kFirstSpecialTaggingType = 2;
constexpr std::array<KVRBeaconType, 4> kSpecialTaggingBeaconTypes = {
    KVRBeaconTypeAutoTag,        // 2
    KVRBeaconTypeWatchTagged,    // 3
    KVRBeaconTypeTaggedVariant,  // 4
    KVRBeaconTypeTestTagged,     // 5
};
constexpr KVRBeaconType kDefaultTaggingBeaconType = KVRBeaconTypeTagged;

// Hardware failure reasons: 0 is the microphone, anything else the polar
// pattern.
constexpr std::array<std::string_view, 1> kHardwareFailureReasonWords = {"microphone"};
constexpr std::string_view kOtherHardwareFailureReason = "polarpattern";

// Feature extraction outcomes from 0 up, with the key their duration goes
// under. A timeout's duration is the limit it ran into, not a measured
// extraction time, so it gets a key of its own. Unknown outcomes write
// neither.
struct FeatureExtractionOutcomeWords {
  std::string_view outcome;
  std::string_view durationKey;
};
constexpr std::array<FeatureExtractionOutcomeWords, 4> kFeatureExtractionOutcomes = {{
    {"success", kKVRTagDuration},
    {"error", kKVRTagDuration},
    {"timeout", "timeout_limit"},
    {"empty", kKVRTagDuration},
}};
constexpr KVRFeatureExtractionOutcome kFeatureExtractionSuccess = 0;
constexpr KVRFeatureExtractionOutcome kFeatureExtractionError = 1;

constexpr std::string_view kAssertionPrefix = "KORVEL ASSERTION: ";
constexpr std::string_view kNoMatch = "NO_MATCH";
// What stands in for the date in the file name when there is none.
constexpr std::string_view kMissingObjectText = "(null)";

// Misuse of the session calls is a programming error in the host. It stops a
// development build; a shipped app must never crash over analytics, so there
// the call just does nothing.
void assertionFailure(std::string_view message) {
  if (KVNConfiguration::sharedInstance().korvelFrameworksRaiseExceptions()) {
    throw KVRAssertionException(std::string(message));
  }
}

// Seconds as whole milliseconds, truncated toward zero. Negative, NaN and
// values beyond the range of the type are clamped instead of being left to
// an undefined conversion.
uint64_t truncatedMilliseconds(double seconds) {
  const double millis = seconds * 1000.0;
  if (!(millis > 0)) return 0;
  // 2^64 as a double; everything at or above it saturates.
  constexpr double kLimit = 18446744073709551616.0;
  if (millis >= kLimit) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(millis);
}

KVRValue plainValue(const ReportingValue& value) {
  switch (value.valueCase()) {
    case ReportingValue::Case::Bool:
      return KVRValue(*value.boolValue());
    case ReportingValue::Case::Double:
      return KVRValue(*value.doubleValue());
    case ReportingValue::Case::Int:
      return KVRValue(*value.intValue());
    case ReportingValue::Case::String:
      return KVRValue(*value.stringValue());
  }
  return KVRValue();
}

// The tag's parameters in a fixed order. Both the typed set and the plain
// dictionary are made from this one list, so they cannot drift apart, and
// the dictionary (which ends up on the wire) gets a stable key order instead
// of the set's hash order.
std::vector<ReportingParameter> tagParameterList(const KVRTagDetails* details) {
  std::vector<ReportingParameter> list;
  list.reserve(15);
  auto addText = [&list](const std::optional<std::string>& source,
                         ReportingParameter (*make)(std::string)) {
    if (source) list.push_back(make(*source));
  };
  if (details != nullptr) {
    addText(details->artistAdamID, &ReportingParameter::artistID);
    addText(details->forensicID, &ReportingParameter::forensicID);
    addText(details->inputPort, &ReportingParameter::inputPort);
    addText(details->type, &ReportingParameter::matchType);
    addText(details->microphone, &ReportingParameter::microphone);
    addText(details->outputPort, &ReportingParameter::outputPort);
    addText(details->polarPattern, &ReportingParameter::polarPattern);
    if (details->sampleRate) list.push_back(ReportingParameter::sampleRate(*details->sampleRate));
    addText(details->tagID, &ReportingParameter::tagID);
    addText(details->tagTypeString, &ReportingParameter::tagType);
    addText(details->adamID, &ReportingParameter::trackAdamID);
    addText(details->trackID, &ReportingParameter::trackID);
  }
  list.push_back(
      ReportingParameter::currentOrientation(orientationString(platform::env().deviceOrientation())));
  if (const auto initial = KVRInitialOrientation::initialOrientation()) {
    list.push_back(ReportingParameter::initialOrientation(orientationString(*initial)));
  }
  if (details != nullptr && details->headphonesConnected) {
    list.push_back(ReportingParameter::headphonesConnected(*details->headphonesConnected));
  }
  return list;
}

// The local calendar date and time as "yyyy-MM-dd-HHmmss", or nothing for an
// instant no calendar can show.
std::optional<std::string> formattedLocalDate(double secondsSince1970) {
  // About 30 million years either way: far beyond any real date, well inside
  // what time_t and the calendar conversion handle.
  constexpr double kLimit = 1e15;
  if (!std::isfinite(secondsSince1970) || std::fabs(secondsSince1970) > kLimit) {
    return std::nullopt;
  }
  // A date shows the second it falls in, also before 1970.
  const std::tm tm = platform::env().localTime(std::floor(secondsSince1970));
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d-%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return std::string(buf);
}

// Written and read from any thread by the host; a lock-free atomic keeps the
// tag-parameter path free of locks.
std::atomic<std::optional<platform::DeviceOrientation>> gInitialOrientation{std::nullopt};

}  // namespace

KVRAssertionException::KVRAssertionException(const std::string& message)
    : std::logic_error(std::string(kAssertionPrefix) + message) {}

// MARK: - Sessions

std::unordered_map<std::string, KVRTaggingSession>& KVRTaggingReporter::activeSessions() {
  // Created once on first use (thread-safe static initialisation) and never
  // destroyed, so a session call from a thread still running at exit finds
  // it intact.
  static auto* sessions = new std::unordered_map<std::string, KVRTaggingSession>();
  return *sessions;
}

void KVRTaggingReporter::reportTaggingSessionStarted(
    const std::optional<std::string>& sessionID, KVRTagInitiationOrigin fromOrigin,
    const std::optional<std::string>& thirdPartyOrigin, bool isInBackground) try {
  if (!sessionID) {
    assertionFailure("Trying to start a tagging session with a nil session id");
    return;
  }

  KVRTaggingSession session;
  session.startTime = KVRReportingUtilities::timeIntervalSinceReferenceDate();
  // An app that started us names itself; that beats our own idea of where
  // the tag came from.
  if (thirdPartyOrigin && !thirdPartyOrigin->empty()) {
    session.origin = thirdPartyOrigin;
  } else {
    session.origin = tagInitiationOriginStringForTagInitiationOrigin(fromOrigin);
  }

  KVRParameters parameters = reporters::internal::userEvent("taggingstarted");
  parameters.set(kKVROrigin, session.origin);

  activeSessions().insert_or_assign(*sessionID, std::move(session));

  parameters.set(kKVRBackgroundSession, reporters::internal::flag(isInBackground));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (const KVRAssertionException&) {
  throw;
} catch (...) {
  KVRLogging::logReportFailure("KVRTaggingReporter::reportTaggingSessionStarted");
}

void KVRTaggingReporter::reportTaggingSessionEnded(const std::optional<std::string>& sessionID,
                                                   const KVRTagDetails* tagDetails,
                                                   KVRTaggingOutcome outcome, bool isInBackground,
                                                   const KVNError* error) try {
  if (!sessionID) {
    assertionFailure("Trying to end a tagging session with a nil session id");
    return;
  }

  auto& sessions = activeSessions();
  const auto found = sessions.find(*sessionID);
  if (found == sessions.end()) {
    assertionFailure("Trying to end a tagging session when no session is active");
    return;
  }
  const KVRTaggingSession session = std::move(found->second);
  sessions.erase(found);

  KVRParameters parameters = reporters::internal::userEvent("taggingended");
  parameters.merge(reportingParametersForTagDetails(tagDetails));
  if (error != nullptr) parameters.set(kKVRErrorDetailCode, error->code());
  parameters.set(kKVROrigin, session.origin);
  parameters.set(kKVROutcome, KVRReportingUtilities::taggingOutcomeStringForTaggingOutcome(
                                  static_cast<uint64_t>(outcome)));
  parameters.set(kKVRStartTime,
                 KVRReportingUtilities::beaconFormattedTimeStringForTimeInterval(session.startTime));
  parameters.set(kKVRBackgroundSession, reporters::internal::flag(isInBackground));
  // One reading of the clock for both, so that the time spent is exactly the
  // end time minus the start time.
  const double now = KVRReportingUtilities::timeIntervalSinceReferenceDate();
  parameters.set(kKVREndTime, KVRReportingUtilities::beaconFormattedTimeStringForTimeInterval(now));
  parameters.set(kKVRTimeSpent, KVRReportingUtilities::beaconFormattedTimeStringForTimeInterval(
                                    now - session.startTime));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (const KVRAssertionException&) {
  throw;
} catch (...) {
  KVRLogging::logReportFailure("KVRTaggingReporter::reportTaggingSessionEnded");
}

// MARK: - Tags

void KVRTaggingReporter::reportTag(const KVRTagDetails* tagDetails, KVRTaggingType ofType) noexcept
    try {
  KVRParameters parameters;
  parameters.merge(reportingParametersForTagDetails(tagDetails));
  parameters.merge(reportingParametersForSuccessfulTagWithTagDetails(tagDetails));
  reporters::internal::send(beaconTypeFromTaggingType(ofType), parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTaggingReporter::reportTag");
}

KVRParameters KVRTaggingReporter::reportingParametersForSuccessfulTagWithTagDetails(
    const KVRTagDetails* tagDetails) {
  KVRParameters parameters;
  if (tagDetails == nullptr) return parameters;
  // Three renderings on purpose: the tag time keeps its fraction, the
  // recording figures are whole truncated milliseconds.
  parameters.set(kKVRTagDuration, tagDetails->tagDuration * 1000.0);
  if (tagDetails->recordDuration > 0) {
    parameters.set("recordtime", truncatedMilliseconds(tagDetails->recordDuration));
    parameters.set("samplelength", truncatedMilliseconds(tagDetails->sampleLength));
  }
  parameters.set(kKVRUnsubmitted, tagDetails->isUnsubmitted() ? kKVRTrue : kKVRFalse);
  parameters.set(kKVRRecognitionType, tagDetails->recognitionType);
  return parameters;
}

void KVRTaggingReporter::reportTaggingCancelledFromOrigin(KVRCancelTaggingOrigin origin,
                                                          bool isInBackground) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent("taggingcancel");
  parameters.set(kKVROrigin, cancelTaggingOriginStringForCancelTaggingOrigin(origin));
  parameters.set(kKVRBackgroundSession, reporters::internal::flag(isInBackground));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTaggingReporter::reportTaggingCancelledFromOrigin");
}

void KVRTaggingReporter::reportTaggingErrorWithTagID(const std::optional<std::string>& tagID,
                                                     const std::optional<int64_t>& code) noexcept
    try {
  std::optional<std::string> codeText;
  if (code) codeText = std::to_string(*code);
  // The code goes out twice on purpose: as text under the error beacon's
  // usual key, and as a number under its own key.
  KVRParameters parameters = KVRReportingUtilities::defaultErrorBeaconParametersWithErrorCode(
      codeText ? std::optional<std::string_view>(*codeText) : std::nullopt);
  parameters.set("taggingerrorcode", code);
  parameters.set(kKVRTagID, tagID);
  reporters::internal::send(KVRBeaconTypeError, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTaggingReporter::reportTaggingErrorWithTagID");
}

void KVRTaggingReporter::reportDeletedTagWithTrackID(
    const std::optional<std::string>& trackID, const std::optional<std::string>& tagOrigin) noexcept
    try {
  KVRParameters parameters = reporters::internal::userEvent("deletetagtapped");
  parameters.set(kKVRTrackID, trackID);
  // The origin has always travelled under "tagtype" for this event.
  parameters.set(kKVRTagType, tagOrigin);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTaggingReporter::reportDeletedTagWithTrackID");
}

void KVRTaggingReporter::reportMagicTap() noexcept try {
  reporters::internal::send(KVRBeaconTypeUserEvent, reporters::internal::userEvent("magictap"));
} catch (...) {
  KVRLogging::logReportFailure("KVRTaggingReporter::reportMagicTap");
}

void KVRTaggingReporter::reportFeatureExtractionEndedWithOutcome(
    KVRFeatureExtractionOutcome outcome, const KVRFeatureExtractionDetails* details,
    const std::optional<std::string>& tagID, const KVNError* error) noexcept try {
  KVRParameters parameters;
  parameters.set(kKVRType, "feature_extraction");

  if (outcome >= 0 && static_cast<uint64_t>(outcome) < kFeatureExtractionOutcomes.size()) {
    const auto& words = kFeatureExtractionOutcomes[static_cast<size_t>(outcome)];
    parameters.set(kKVROutcome, words.outcome);
    if (details != nullptr) {
      parameters.set(words.durationKey,
                     KVRReportingUtilities::beaconFormattedTimeStringForTimeInterval(
                         details->duration));
    }
    if (outcome == kFeatureExtractionSuccess && details != nullptr) {
      parameters.set("samplelength", details->sampleLengthMillis);
    } else if (outcome == kFeatureExtractionError) {
      parameters.set(kKVRErrorDetailCode, error != nullptr ? error->code() : int64_t{0});
    }
  }

  parameters.set(kKVRTagID, tagID);
  reporters::internal::send(KVRBeaconTypePerformance, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTaggingReporter::reportFeatureExtractionEndedWithOutcome");
}

void KVRTaggingReporter::reportHardwareConfigurationFailure(
    int64_t reason, const std::optional<std::string>& errorCode,
    const std::optional<std::string>& currentMicrophone,
    const std::optional<std::string>& currentPolarPattern,
    const std::optional<std::string>& targetMicrophone,
    const std::optional<std::string>& targetPolarPattern,
    const std::optional<std::string>& stereoOrientation) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent("hardwarefailure");
  parameters.set(kKVRReason,
                 reporters::internal::wordFor(kHardwareFailureReasonWords, reason, kOtherHardwareFailureReason));
  parameters.set(kKVRErrorCode, errorCode);
  parameters.set("currentmicrophone", currentMicrophone);
  parameters.set("currentpolarpattern", currentPolarPattern);
  parameters.set("targetmicrophone", targetMicrophone);
  parameters.set("targetpolarpattern", targetPolarPattern);
  parameters.set("stereoorientation", stereoOrientation);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTaggingReporter::reportHardwareConfigurationFailure");
}

// MARK: - Tag parameters

KVRParameters KVRTaggingReporter::reportingParametersForTagDetails(
    const KVRTagDetails* tagDetails) {
  return legacyReportingParameters(tagDetails);
}

ReportingParameters KVRTaggingReporter::reportingParameters(const KVRTagDetails* tagDetails) {
  auto list = tagParameterList(tagDetails);
  return ReportingParameters(std::make_move_iterator(list.begin()),
                             std::make_move_iterator(list.end()));
}

KVRParameters KVRTaggingReporter::legacyReportingParameters(const KVRTagDetails* tagDetails) {
  const auto list = tagParameterList(tagDetails);
  KVRParameters parameters;
  parameters.reserve(list.size());
  for (const auto& parameter : list) parameters.set(parameter.key, plainValue(parameter.value));
  return parameters;
}

// MARK: - Mapping tables

KVRBeaconType KVRTaggingReporter::beaconTypeFromTaggingType(KVRTaggingType taggingType) {
  if (taggingType < kFirstSpecialTaggingType) return kDefaultTaggingBeaconType;
  const uint64_t index =
      static_cast<uint64_t>(taggingType) - static_cast<uint64_t>(kFirstSpecialTaggingType);
  if (index >= kSpecialTaggingBeaconTypes.size()) return kDefaultTaggingBeaconType;
  return kSpecialTaggingBeaconTypes[index];
}

std::optional<std::string> KVRTaggingReporter::tagInitiationOriginStringForTagInitiationOrigin(
    KVRTagInitiationOrigin origin) {
  return reporters::internal::wordFor(kInitiationOriginWords, origin);
}

std::optional<std::string> KVRTaggingReporter::cancelTaggingOriginStringForCancelTaggingOrigin(
    KVRCancelTaggingOrigin origin) {
  return reporters::internal::wordFor(kCancelOriginWords, origin, kFirstNamedCancelOrigin);
}

std::string orientationString(platform::DeviceOrientation orientation) {
  return reporters::internal::wordFor(kOrientationWords, static_cast<int64_t>(orientation),
                            kUnknownOrientation, 1);
}

std::optional<platform::DeviceOrientation> KVRInitialOrientation::initialOrientation() {
  return gInitialOrientation.load(std::memory_order_acquire);
}

void KVRInitialOrientation::setInitialOrientation(
    std::optional<platform::DeviceOrientation> orientation) {
  gInitialOrientation.store(orientation, std::memory_order_release);
}

// MARK: - No-match record

KVRNoMatchTagInfo::KVRNoMatchTagInfo()
    : KVRNoMatchTagInfo(KVRDate{KVRReportingUtilities::timeIntervalSinceReferenceDate()}) {}

KVRNoMatchTagInfo::KVRNoMatchTagInfo(std::optional<KVRDate> endDate)
    : date_(endDate), tagID_(noMatchFileNameWithDate(endDate)) {}

std::string KVRNoMatchTagInfo::noMatchFileNameWithDate(std::optional<KVRDate> date) {
  std::optional<std::string> formatted;
  if (date) formatted = formattedLocalDate(date->secondsSince1970);
  std::string name(kNoMatch);
  name += '-';
  name += formatted ? std::string_view(*formatted) : kMissingObjectText;
  return name;
}

}  // namespace korvel
