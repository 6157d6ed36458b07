// The foundation library's shared configuration: what the server told the
// application (beacon endpoint template, server-provided beacon parameters,
// the installation identifier "inid") and what the device is.
//
// The host (or the configuration manager) writes it; the library reads it on
// any thread, including the executor's. Every write publishes a new immutable
// Snapshot; readers copy the current snapshot pointer, so a reader always sees one
// consistent configuration and never a half-written one.
#pragma once

#include <korvel/export.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>
#include <korvel/foundation/Mutex.h>

namespace korvel {

// The inid a record stores when the configuration has none yet.
extern KORVEL_EXPORT const char* const KVNConfigurationUnconfiguredInid;

struct KORVEL_EXPORT KVNBeaconsConfiguration {
  // URL template of the beacon endpoint; empty or missing when beacons are off.
  std::optional<std::string> beaconEndpoint;
  // Server-provided parameters added to every beacon.
  KVRParameters beaconParameters;
};

class KORVEL_EXPORT KVNConfiguration {
 public:
  struct Snapshot {
    std::optional<std::string> inid;
    bool configured = false;
    KVNBeaconsConfiguration beacons;
    std::optional<std::string> deviceModel;
    std::optional<std::string> deviceSystemVersion;
    bool korvelFrameworksRaiseExceptions = false;
  };

  // The process-wide configuration.
  static KVNConfiguration& sharedInstance();

  std::shared_ptr<const Snapshot> snapshot() const KORVEL_EXCLUDES(snapshotMutex_) {
    MutexLock lock(snapshotMutex_);
    return snapshot_;
  }

  std::optional<std::string> inid() const { return snapshot()->inid; }
  bool configured() const { return snapshot()->configured; }
  KVNBeaconsConfiguration beacons() const { return snapshot()->beacons; }
  std::optional<std::string> deviceModel() const { return snapshot()->deviceModel; }
  std::optional<std::string> deviceSystemVersion() const {
    return snapshot()->deviceSystemVersion;
  }
  bool korvelFrameworksRaiseExceptions() const {
    return snapshot()->korvelFrameworksRaiseExceptions;
  }

  // Applies edit to a copy of the current snapshot and publishes the result.
  void update(const std::function<void(Snapshot&)>& edit) KORVEL_EXCLUDES(writeMutex_);
  // Replaces the whole configuration.
  void replace(Snapshot snapshot) KORVEL_EXCLUDES(writeMutex_);

  void setInid(std::optional<std::string> inid);
  void setConfigured(bool configured);
  void setBeaconEndpoint(std::optional<std::string> endpoint);
  void setBeaconParameters(KVRParameters parameters);
  void setDeviceModel(std::optional<std::string> model);
  void setDeviceSystemVersion(std::optional<std::string> version);
  void setKorvelFrameworksRaiseExceptions(bool raise);

  // The application's short version ("CFBundleShortVersionString" of the
  // host); "1.0" until the host sets it.
  static std::string appShortVersion();
  static void setAppShortVersion(std::string version);
  // The operating system's build identifier (the kernel build by default).
  static std::optional<std::string> deviceOSBuildNumber();
  static void setDeviceOSBuildNumber(std::optional<std::string> build);

  // A snapshot describing this machine: device model from the firmware's
  // product name (or "Linux"), system version from the kernel release.
  static Snapshot machineDefaults();

  KVNConfiguration();

 private:
  // Serialises writers: each edit starts from the snapshot the previous one
  // published.
  Mutex writeMutex_;
  // Replaces the published snapshot; the previous one is released outside
  // the lock.
  void publish(std::shared_ptr<const Snapshot> next) KORVEL_REQUIRES(writeMutex_)
      KORVEL_EXCLUDES(snapshotMutex_);
  // Guards only the pointer: readers copy it under this short lock and then
  // use the immutable snapshot without any.
  mutable Mutex snapshotMutex_;
  std::shared_ptr<const Snapshot> snapshot_ KORVEL_GUARDED_BY(snapshotMutex_);
};

}  // namespace korvel
