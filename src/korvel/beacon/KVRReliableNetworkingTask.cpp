#include <korvel/beacon/KVRReliableNetworkingTask.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRReportingUtilities.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/KVNRequestReload.h>
#include <korvel/foundation/KeyedArchive.h>
#include <korvel/platform/NotificationCenter.h>

namespace korvel {

namespace {
constexpr std::string_view kArchiveClassKey = "$class";
constexpr std::string_view kArchiveParametersKey = "parameters";
constexpr std::string_view kArchiveCreationTimestampKey = "creationTimestamp";
constexpr std::string_view kArchiveInidKey = "inid";
constexpr std::string_view kArchiveAppVersionKey = "appVersion";
}  // namespace

void KVRReliableNetworkingTask::initWithParameters(const KVRParameters& parameters,
                                                   const KVRUserSession* userSession) {
  KVRParameters common;
  if (userSession != nullptr) {
    common = userSession->commonBeaconParametersForBeaconWithParameters(parameters);
  }

  // The one dictionary of the record: the caller's entries, then the
  // session's moved in after them.
  parameters_.clear();
  parameters_.reserve(parameters.size() + common.size());
  parameters_.merge(parameters);
  const bool clash = std::any_of(common.begin(), common.end(), [&](const auto& entry) {
    return parameters.contains(entry.first);
  });
  if (clash) {
    // Common parameters win over the caller's on a clash, deliberately; the
    // caller's values then live only in the caller's own copy.
    callerEntries_.reset();
    nonCommonParameters_ = parameters;
    commonParameters_ = common;
    parameters_.merge(common);
  } else {
    callerEntries_ = parameters_.size();
    nonCommonParameters_.clear();
    commonParameters_.clear();
    parameters_.appendDisjoint(std::move(common));
  }

  inid_ = inidToBeacon();
  appVersion_ = KVNConfiguration::appShortVersion();

  // A caller may pin the identifier (re-sends); it never goes out twice.
  if (auto pinned = parameters_.find(KVRBeaconUUIDKey)) {
    uuid_ = pinned->description();
    separateViews();
    parameters_.remove(KVRBeaconUUIDKey);
  } else {
    uuid_ = platform::env().makeUUIDString();
  }
  creationTimestamp_ = KVRReportingUtilities::timeIntervalSinceReferenceDate();
}

void KVRReliableNetworkingTask::separateViews() {
  if (!callerEntries_) return;
  nonCommonParameters_ = parameters_.slice(0, *callerEntries_);
  commonParameters_ = parameters_.slice(*callerEntries_, parameters_.size());
  callerEntries_.reset();
}

KVRParameters KVRReliableNetworkingTask::nonCommonParameters() const {
  return callerEntries_ ? parameters_.slice(0, *callerEntries_) : nonCommonParameters_;
}

KVRParameters KVRReliableNetworkingTask::commonParameters() const {
  return callerEntries_ ? parameters_.slice(*callerEntries_, parameters_.size())
                        : commonParameters_;
}

void KVRReliableNetworkingTask::setParameters(KVRParameters parameters) {
  separateViews();
  parameters_ = std::move(parameters);
}

void KVRReliableNetworkingTask::setNonCommonParameters(KVRParameters p) {
  separateViews();
  nonCommonParameters_ = std::move(p);
}

void KVRReliableNetworkingTask::setCommonParameters(KVRParameters p) {
  separateViews();
  commonParameters_ = std::move(p);
}

void KVRReliableNetworkingTask::postCreationNotification() const {
  // A stored request read back to be sent was announced when it was made.
  if (KVNRequestReloading()) return;
  auto& center = platform::env().notificationCenter();
  // The representation is only built when someone listens.
  if (!center.hasObservers(KVRReliableNetworkingTaskCreatedNotification)) return;
  center.post(KVRReliableNetworkingTaskCreatedNotification, dictionaryRepresentation());
}

KVNConfiguration& KVRReliableNetworkingTask::configuration() const {
  return KVNConfiguration::sharedInstance();
}

std::string KVRReliableNetworkingTask::inidToBeacon() {
  return KVNConfiguration::sharedInstance().inid().value_or(KVNConfigurationUnconfiguredInid);
}

std::optional<std::string> KVRReliableNetworkingTask::inid() const {
  if (inid_ == KVNConfigurationUnconfiguredInid) return KVNConfiguration::sharedInstance().inid();
  return inid_;
}

std::string KVRReliableNetworkingTask::appVersion() const {
  return appVersion_ ? *appVersion_ : KVNConfiguration::appShortVersion();
}

bool KVRReliableNetworkingTask::hasINIDExpired() const {
  const auto mine = inid();
  const auto current = KVNConfiguration::sharedInstance().inid();
  return !mine || !current || *mine != *current;
}

std::string KVRReliableNetworkingTask::formattedCreationTimestampString() const {
  // Whole seconds as "%.0f" prints them (to the nearest, halves to even, in
  // the default rounding mode, as nearbyint rounds): below 2^53 every such
  // value is an exact integer, printed without the formatting machinery.
  constexpr double kExactIntegers = 9007199254740992.0;  // 2^53
  if (!std::signbit(creationTimestamp_) && creationTimestamp_ < kExactIntegers) {
    char digits[24];
    const auto printed = std::to_chars(digits, digits + sizeof digits,
                                       static_cast<int64_t>(std::nearbyint(creationTimestamp_)));
    return std::string(digits, printed.ptr);
  }
  char buf[64];
  const int length = std::snprintf(buf, sizeof buf, "%.0f", creationTimestamp_);
  if (length < static_cast<int>(sizeof buf)) return buf;
  // A decoded archive may hold any double; print again at full size.
  std::string text(static_cast<size_t>(length), '\0');
  std::snprintf(text.data(), text.size() + 1, "%.0f", creationTimestamp_);
  return text;
}

KVRParameters KVRReliableNetworkingTask::dictionaryRepresentation() const {
  KVRParameters wire;
  wire.reserve(parameters_.size() + 4);
  wire.merge(parameters_);
  wire.set(KVRBeaconCreationTimestampKey, formattedCreationTimestampString());
  wire.set(KVRBeaconUUIDKey, uuid_);
  wire.set(KVRBeaconINIDKey, KVNConfiguration::sharedInstance().inid());
  if (hasINIDExpired()) wire.set(KVRBeaconUsingExpiredINIDKey, true);

  KVRParameters representation;
  representation.set(KVRBeaconTypeJSONKey, event());
  representation.set(KVRBeaconParametersJSONKey, std::move(wire));
  return representation;
}

void KVRReliableNetworkingTask::copyInto(KVRReliableNetworkingTask& target) const {
  target.parameters_ = parameters_;
  target.setEvent(event());
  target.uuid_ = uuid_;
  target.creationTimestamp_ = creationTimestamp_;
  target.inid_ = inid();
}

KVRTaskPtr KVRReliableNetworkingTask::copy() const {
  auto target = std::make_shared<KVRReliableNetworkingTask>();
  copyInto(*target);
  return target;
}

void KVRReliableNetworkingTask::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeObject(kArchiveParametersKey, parameters_);
  coder.encodeDouble(kArchiveCreationTimestampKey, creationTimestamp_);
  coder.encodeObject(kArchiveUUIDKey, uuid_);
  // The resolved inid and app version, without copies when captured.
  if (inid_ && *inid_ != KVNConfigurationUnconfiguredInid) {
    coder.encodeObject(kArchiveInidKey, *inid_);
  } else if (auto resolved = inid()) {
    coder.encodeObject(kArchiveInidKey, *resolved);
  }
  if (appVersion_) {
    coder.encodeObject(kArchiveAppVersionKey, *appVersion_);
  } else {
    coder.encodeObject(kArchiveAppVersionKey, KVNConfiguration::appShortVersion());
  }
}

void KVRReliableNetworkingTask::initWithCoder(const KeyedUnarchiver& coder) {
  auto parameters = coder.decodeDictionary(kArchiveParametersKey);
  if (KVNRequestReloading()) {
    // Read back to be sent: nobody sees the fresh record (it is not
    // announced again), so only what the archive lacks is made afresh. The
    // record ends as below: the archived dictionary as the caller's, its
    // pinned uuid (if any) kept apart.
    parameters_ = parameters ? std::move(*parameters) : KVRParameters{};
    nonCommonParameters_.clear();
    commonParameters_.clear();
    callerEntries_ = parameters_.size();
    const KVRValue* pinned = parameters_.find(KVRBeaconUUIDKey);
    if (pinned != nullptr) {
      callerEntries_.reset();
      nonCommonParameters_ = parameters_;
    }
    auto timestamp = coder.decodeDouble(kArchiveCreationTimestampKey);
    creationTimestamp_ =
        timestamp ? *timestamp : KVRReportingUtilities::timeIntervalSinceReferenceDate();
    if (auto uuid = coder.decodeString(kArchiveUUIDKey)) {
      uuid_ = std::move(*uuid);
    } else {
      uuid_ = pinned != nullptr ? pinned->description() : platform::env().makeUUIDString();
    }
    auto inid = coder.decodeString(kArchiveInidKey);
    inid_ = inid ? std::move(*inid) : inidToBeacon();
    auto version = coder.decodeString(kArchiveAppVersionKey);
    appVersion_ = version ? std::move(*version) : KVNConfiguration::appShortVersion();
    return;
  }

  // A decoded record is made afresh first (new uuid and time, and the
  // creation notification once more), then takes the archived values; what
  // the archive lacks keeps the fresh value.
  initWithParameters(parameters ? *parameters : KVRParameters{}, nullptr);
  postCreationNotification();
  if (parameters) parameters_ = std::move(*parameters);
  if (auto timestamp = coder.decodeDouble(kArchiveCreationTimestampKey)) {
    creationTimestamp_ = *timestamp;
  }
  if (auto uuid = coder.decodeString(kArchiveUUIDKey)) uuid_ = std::move(*uuid);
  if (auto inid = coder.decodeString(kArchiveInidKey)) inid_ = std::move(*inid);
  if (auto version = coder.decodeString(kArchiveAppVersionKey)) appVersion_ = std::move(*version);
}

std::string KVRReliableNetworkingTask::archivedData() const {
  std::string data;
  KeyedArchiver coder(data);
  coder.encodeObject(kArchiveClassKey, className());
  encodeWithCoder(coder);
  return data;
}

KVRTaskPtr KVRReliableNetworkingTask::unarchive(std::string_view data) {
  auto coder = KeyedUnarchiver::open(data);
  return coder ? unarchive(*coder) : nullptr;
}

KVRTaskPtr KVRReliableNetworkingTask::unarchive(const KeyedUnarchiver& coder) {
  auto className = coder.decodeString(kArchiveClassKey);
  if (!className) return nullptr;
  auto task = KVRBeaconFactory::emptyRecordOfClass(*className);
  if (!task) return nullptr;
  task->initWithCoder(coder);
  return task;
}

}  // namespace korvel
