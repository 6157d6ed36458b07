#include <korvel/foundation/KVNConfiguration.h>

#include <new>

#include <korvel/foundation/internal/Machine.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/foundation/internal/SharedSlot.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

const char* const KVNConfigurationUnconfiguredInid = "KVN-UNCONFIGURED-INID";

namespace {

struct ProcessIdentity {
  Mutex mutex;
  std::string appShortVersion KORVEL_GUARDED_BY(mutex) = "1.0";
  std::optional<std::string> osBuild KORVEL_GUARDED_BY(mutex);
};

// Read once: the model and versions do not change while the process runs.
const foundation::internal::MachineIdentity& machine() {
  static const auto* identity = new foundation::internal::MachineIdentity(foundation::internal::readMachineIdentity());
  return *identity;
}

ProcessIdentity& identity() {
  static ProcessIdentity* instance = [] {
    auto* p = new ProcessIdentity;
    MutexLock lock(p->mutex);
    p->osBuild = machine().osBuild;
    return p;
  }();
  return *instance;
}

}  // namespace

struct KVNConfiguration::State {
  explicit State(std::shared_ptr<const Snapshot> first) : snapshot(std::move(first)) {}

  std::shared_ptr<const Snapshot> current() const { return snapshot.load(); }
  // The previous snapshot is released outside the slot's lock.
  void publish(std::shared_ptr<const Snapshot> next) KORVEL_REQUIRES(writeMutex) {
    snapshot.store(std::move(next));
  }

  // Serialises writers: each edit starts from the snapshot the previous one
  // published.
  Mutex writeMutex;
  // Readers copy the pointer under the slot's short lock and then use the
  // immutable snapshot without any.
  foundation::internal::SharedSlot<const Snapshot> snapshot;
};

inline KVNConfiguration::State& KVNConfiguration::state() const noexcept {
  return *std::launder(reinterpret_cast<State*>(state_));
}

KVNConfiguration::KVNConfiguration() {
  static_assert(sizeof(State) <= kStateSize, "KVNConfiguration::kStateSize is too small");
  static_assert(alignof(State) <= alignof(std::max_align_t));
  new (state_) State(std::make_shared<const Snapshot>(machineDefaults()));
}

KVNConfiguration::~KVNConfiguration() { state().~State(); }

std::shared_ptr<const KVNConfiguration::Snapshot> KVNConfiguration::snapshot() const {
  return state().current();
}

KVNConfiguration& KVNConfiguration::sharedInstance() {
  static KVNConfiguration* instance = new KVNConfiguration;
  return *instance;
}

KVNConfiguration::Snapshot KVNConfiguration::machineDefaults() {
  Snapshot s;
  s.deviceModel = machine().model;
  s.deviceSystemVersion = machine().systemVersion;
  return s;
}

void KVNConfiguration::update(const std::function<void(Snapshot&)>& edit) {
  State& s = state();
  MutexLock lock(s.writeMutex);
  auto next = std::make_shared<Snapshot>(*s.current());
  edit(*next);
  s.publish(std::move(next));
}

void KVNConfiguration::replace(Snapshot snapshot) {
  State& s = state();
  MutexLock lock(s.writeMutex);
  s.publish(std::make_shared<const Snapshot>(std::move(snapshot)));
}

void KVNConfiguration::setInid(std::optional<std::string> inid) {
  update([&](Snapshot& s) { s.inid = std::move(inid); });
}
void KVNConfiguration::setConfigured(bool configured) {
  update([&](Snapshot& s) { s.configured = configured; });
}
void KVNConfiguration::setBeaconEndpoint(std::optional<std::string> endpoint) {
  update([&](Snapshot& s) { s.beacons.beaconEndpoint = std::move(endpoint); });
}
void KVNConfiguration::setBeaconParameters(KVRParameters parameters) {
  update([&](Snapshot& s) { s.beacons.beaconParameters = std::move(parameters); });
}
void KVNConfiguration::setDeviceModel(std::optional<std::string> model) {
  update([&](Snapshot& s) { s.deviceModel = std::move(model); });
}
void KVNConfiguration::setDeviceSystemVersion(std::optional<std::string> version) {
  update([&](Snapshot& s) { s.deviceSystemVersion = std::move(version); });
}
void KVNConfiguration::setKorvelFrameworksRaiseExceptions(bool raise) {
  update([&](Snapshot& s) { s.korvelFrameworksRaiseExceptions = raise; });
}

std::string KVNConfiguration::appShortVersion() {
  auto& id = identity();
  MutexLock lock(id.mutex);
  return id.appShortVersion;
}

void KVNConfiguration::setAppShortVersion(std::string version) {
  auto& id = identity();
  MutexLock lock(id.mutex);
  id.appShortVersion = std::move(version);
}

std::optional<std::string> KVNConfiguration::deviceOSBuildNumber() {
  auto& id = identity();
  MutexLock lock(id.mutex);
  return id.osBuild;
}

void KVNConfiguration::setDeviceOSBuildNumber(std::optional<std::string> build) {
  auto& id = identity();
  MutexLock lock(id.mutex);
  id.osBuild = std::move(build);
}

}  // namespace korvel
