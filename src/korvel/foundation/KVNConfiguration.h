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

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>

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

  // The current snapshot, immutable: later writes publish a new one.
  std::shared_ptr<const Snapshot> snapshot() const;

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
  void update(const std::function<void(Snapshot&)>& edit);
  // Replaces the whole configuration.
  void replace(Snapshot snapshot);

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
  ~KVNConfiguration();
  KVNConfiguration(const KVNConfiguration&) = delete;
  KVNConfiguration& operator=(const KVNConfiguration&) = delete;

 private:
  // The locks and the published snapshot (State, defined with the code) live
  // in place inside the object: every beacon reads the configuration, and
  // that read costs neither an allocation nor a pointer to follow. The
  // storage's size and alignment are part of the ABI; the code checks that
  // State fits.
  struct State;
  static constexpr std::size_t kStateSize = 128;
  State& state() const noexcept;
  alignas(std::max_align_t) mutable unsigned char state_[kStateSize];
};

}  // namespace korvel
