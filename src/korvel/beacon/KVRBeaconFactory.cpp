#include <array>

#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/beacon/KVRLogging.h>
#include <korvel/beacon/KVRUserSession.h>

namespace korvel {

namespace {

using Maker = KVRTaskPtr (*)(const KVRParameters&, const KVRUserSession*);

template <class T>
KVRTaskPtr makeRecord(const KVRParameters& parameters, const KVRUserSession* session) {
  return KVRReliableNetworkingTask::make<T>(parameters, session);
}

template <class T, int BeaconType>
KVRTaskPtr makeTagged(const KVRParameters& parameters, const KVRUserSession* session) {
  return KVRTaggedBeacon::make<T>(parameters, session, BeaconType);
}

// Index = beacon type - 1.
constexpr std::array<Maker, 20> kMakers = {
    makeRecord<KVRStartupBeacon>,
    makeRecord<KVRResumeBeacon>,
    makeTagged<KVRTaggedBeacon, KVRBeaconTypeTagged>,
    makeRecord<KVRErrorBeacon>,
    makeRecord<KVRDeepLinkBeacon>,
    makeRecord<KVRTagHistoryBeacon>,
    makeRecord<KVRUserEventBeacon>,
    makeRecord<KVRPageViewBeacon>,
    makeRecord<KVRWebInitiatedBeacon>,
    makeRecord<KVRUserSessionBeacon>,
    makeTagged<KVRAutoTagBeacon, KVRBeaconTypeAutoTag>,
    makeRecord<KVRImpressionBeacon>,
    makeRecord<KVRTagSyncBeacon>,
    makeTagged<KVRTaggedBeacon, KVRBeaconTypeWatchTagged>,
    makeTagged<KVRTaggedBeacon, KVRBeaconTypeTaggedVariant>,
    makeTagged<KVRTaggedBeacon, KVRBeaconTypeTestTagged>,
    makeRecord<KVRWidgetBeacon>,
    makeRecord<KVRExceptionsBeacon>,
    makeRecord<KVRAuthenticationBeacon>,
    makeRecord<KVRPerformanceBeacon>,
};

using EmptyMaker = KVRTaskPtr (*)();

template <class T>
KVRTaskPtr emptyRecord() {
  return std::make_shared<T>();
}

template <class T, int BeaconType>
KVRTaskPtr emptyTagged() {
  auto task = std::make_shared<T>();
  task->setBeaconType(BeaconType);
  return task;
}

// The same classes as kMakers, made with the plain initialiser (no session,
// no creation notification). Index = beacon type - 1.
constexpr std::array<EmptyMaker, 20> kEmptyMakers = {
    emptyRecord<KVRStartupBeacon>,
    emptyRecord<KVRResumeBeacon>,
    emptyTagged<KVRTaggedBeacon, KVRBeaconTypeTagged>,
    emptyRecord<KVRErrorBeacon>,
    emptyRecord<KVRDeepLinkBeacon>,
    emptyRecord<KVRTagHistoryBeacon>,
    emptyRecord<KVRUserEventBeacon>,
    emptyRecord<KVRPageViewBeacon>,
    emptyRecord<KVRWebInitiatedBeacon>,
    emptyRecord<KVRUserSessionBeacon>,
    emptyTagged<KVRAutoTagBeacon, KVRBeaconTypeAutoTag>,
    emptyRecord<KVRImpressionBeacon>,
    emptyRecord<KVRTagSyncBeacon>,
    emptyTagged<KVRTaggedBeacon, KVRBeaconTypeWatchTagged>,
    emptyTagged<KVRTaggedBeacon, KVRBeaconTypeTaggedVariant>,
    emptyTagged<KVRTaggedBeacon, KVRBeaconTypeTestTagged>,
    emptyRecord<KVRWidgetBeacon>,
    emptyRecord<KVRExceptionsBeacon>,
    emptyRecord<KVRAuthenticationBeacon>,
    emptyRecord<KVRPerformanceBeacon>,
};

template <class... Classes>
KVRTaskPtr emptyOfClass(std::string_view name) {
  KVRTaskPtr task;
  ((task == nullptr && name == Classes::kClassName ? (task = std::make_shared<Classes>(), 0)
                                                   : 0),
   ...);
  return task;
}

}  // namespace

KVRTaskPtr KVRBeaconFactory::beaconForType(KVRBeaconType type,
                                           const KVRParameters& parameters) noexcept try {
  // Every beacon gets a fresh session object; it supplies the common
  // parameters. Made before the type is looked at.
  const KVRUserSession session;
  if (type < 1 || type > static_cast<int>(kMakers.size())) return nullptr;
  return kMakers[static_cast<size_t>(type) - 1](parameters, &session);
} catch (...) {
  KVRLogging::logReportFailure("KVRBeaconFactory::beaconForType");
  return nullptr;
}

KVRTaskPtr KVRBeaconFactory::beaconForType(KVRBeaconType type, const KVRParameters& parameters,
                                           std::optional<std::string> event) noexcept {
  auto task = beaconForType(type, parameters);
  // Moving an optional string into the record allocates nothing.
  if (task) task->setEvent(std::move(event));
  return task;
}

std::vector<KVRBeaconTypeDescription> KVRBeaconFactory::beaconTypes() {
  std::vector<KVRBeaconTypeDescription> types;
  types.reserve(kEmptyMakers.size());
  for (size_t i = 0; i < kEmptyMakers.size(); ++i) {
    const auto record = kEmptyMakers[i]();
    types.push_back({static_cast<KVRBeaconType>(i + 1), record->className(), record->event()});
  }
  return types;
}

KVRTaskPtr KVRBeaconFactory::emptyRecordOfClass(std::string_view className) {
  if (className == "KVRReliableNetworkingTask") {
    return std::make_shared<KVRReliableNetworkingTask>();
  }
  return emptyOfClass<KVRStartupBeacon, KVRResumeBeacon, KVRTaggedBeacon, KVRAutoTagBeacon,
                      KVRErrorBeacon, KVRDeepLinkBeacon, KVRTagHistoryBeacon,
                      KVRUserEventBeacon, KVRPageViewBeacon, KVRWebInitiatedBeacon,
                      KVRUserSessionBeacon, KVRImpressionBeacon, KVRTagSyncBeacon,
                      KVRWidgetBeacon, KVRExceptionsBeacon, KVRAuthenticationBeacon,
                      KVRPerformanceBeacon>(className);
}

}  // namespace korvel
