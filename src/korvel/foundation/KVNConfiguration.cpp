#include <korvel/foundation/KVNConfiguration.h>

#include <sys/utsname.h>

#include <fstream>

namespace korvel {

const char* const KVNConfigurationUnconfiguredInid = "KVN-UNCONFIGURED-INID";

namespace {

struct ProcessIdentity {
  Mutex mutex;
  std::string appShortVersion KORVEL_GUARDED_BY(mutex) = "1.0";
  std::optional<std::string> osBuild KORVEL_GUARDED_BY(mutex);
};

std::optional<std::string> firstLineOf(const char* path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return std::nullopt;
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
  if (line.empty()) return std::nullopt;
  return line;
}

ProcessIdentity& identity() {
  static ProcessIdentity* instance = [] {
    auto* p = new ProcessIdentity;
    struct utsname names {};
    if (uname(&names) == 0) {
      MutexLock lock(p->mutex);
      p->osBuild = names.version;
    }
    return p;
  }();
  return *instance;
}

}  // namespace

KVNConfiguration::KVNConfiguration()
    : snapshot_(std::make_shared<const Snapshot>(machineDefaults())) {}

KVNConfiguration& KVNConfiguration::sharedInstance() {
  static KVNConfiguration* instance = new KVNConfiguration;
  return *instance;
}

KVNConfiguration::Snapshot KVNConfiguration::machineDefaults() {
  Snapshot s;
  s.deviceModel = firstLineOf("/sys/devices/virtual/dmi/id/product_name").value_or("Linux");
  struct utsname names {};
  if (uname(&names) == 0) s.deviceSystemVersion = names.release;
  return s;
}

void KVNConfiguration::update(const std::function<void(Snapshot&)>& edit) {
  MutexLock lock(writeMutex_);
  auto next = std::make_shared<Snapshot>(*this->snapshot());
  edit(*next);
  publish(std::move(next));
}

void KVNConfiguration::replace(Snapshot snapshot) {
  MutexLock lock(writeMutex_);
  publish(std::make_shared<const Snapshot>(std::move(snapshot)));
}

void KVNConfiguration::publish(std::shared_ptr<const Snapshot> next) {
  {
    MutexLock lock(snapshotMutex_);
    snapshot_.swap(next);
  }
  // next now holds the previous snapshot; if this was its last owner it is
  // destroyed here, outside the lock.
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
