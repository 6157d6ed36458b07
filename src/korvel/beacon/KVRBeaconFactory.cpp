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
