// The process-wide debug configuration: which configuration endpoint the
// application fetches from (production, beta, with or without experiment
// buckets), a few in-memory debug switches the application reads for its
// configuration request, and read-only views of the current configuration.
//
// The chosen configuration URL is kept under "configurationURL" in the shared
// user defaults and so survives restarts; every other property lives in
// memory only and starts empty, zero or false in each process. None of this
// is read when beacons are built.
//
// Thread-safe: every member may be used from any thread.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>
#include <korvel/foundation/KVNConfiguration.h>

namespace korvel {

class KVNUserDefaults;

// Shared user defaults key of the chosen configuration URL (text).
extern KORVEL_EXPORT const char* const kKVRConfigurationURLKey;  // "configurationURL"

class KORVEL_EXPORT KVRDebugConfiguration {
 public:
  // Built-in configuration endpoints: HTTPS, distinct hosts, the same path
  // and no query.
  static constexpr const char* kDefaultProductionConfigurationEndpoint =
      "https://config.korvel.example/configuration/v1/configure";
  static constexpr const char* kDefaultBetaConfigurationEndpoint =
      "https://config-beta.korvel.example/configuration/v1/configure";

  // The endpoints in force: the built-in ones unless the host (or a demo
  // pointing at a local server) set its own. Any thread.
  static std::string productionConfigurationEndpoint();
  static std::string betaConfigurationEndpoint();
  // An empty optional restores the built-in endpoint.
  static void setProductionConfigurationEndpoint(std::optional<std::string> url);
  static void setBetaConfigurationEndpoint(std::optional<std::string> url);

  // The one instance, made on first use.
  static KVRDebugConfiguration& sharedInstance();

  KVRDebugConfiguration(const KVRDebugConfiguration&) = delete;
  KVRDebugConfiguration& operator=(const KVRDebugConfiguration&) = delete;

  // --- In-memory debug switches (read by the application) -----------------

  bool sendCarrierDataInConfigRequest() const;
  void setSendCarrierDataInConfigRequest(bool value);

  bool globalSearchEnabled() const;
  void setGlobalSearchEnabled(bool value);

  // The application's carrier-data choice; its values are the application's.
  uint64_t customCarrierDataChoice() const;
  void setCustomCarrierDataChoice(uint64_t value);

  std::optional<std::string> overrideMCCInConfigRequest() const;
  void setOverrideMCCInConfigRequest(std::optional<std::string> value);

  std::optional<std::string> overrideMNCInConfigRequest() const;
  void setOverrideMNCInConfigRequest(std::optional<std::string> value);

  std::optional<std::string> navigationOption() const;
  void setNavigationOption(std::optional<std::string> value);

  // --- Configuration endpoint ----------------------------------------------

  // The URL stored under "configurationURL", or the production endpoint when
  // none is stored.
  std::string configUrlString() const;
  // Stores url under "configurationURL", removes the last configuration
  // error date (so no earlier failure delays the fetch) and forces a
  // reconfiguration at once. completion(success) is called on the fetching
  // thread, not the main queue; it may be empty.
  void setConfigUrlString(const std::string& url, std::function<void(bool success)> completion);

  // --- The current configuration -------------------------------------------

  std::optional<std::string> inid() const;
  bool isConfigured() const;
  KVNConfiguration& networkingConfiguration() const;
  std::shared_ptr<KVNUserDefaults> userDefaults() const;

  // Seconds from now until the configuration retry cool-down ends (negative
  // once it ended); 0 when there is no retry handler or no expiry date.
  double currentConfigCoolDownTime() const;
  // The present moment (kept so this object answers the same question as the
  // retry handler).
  KVRDate coolDownExpiryTime() const;

 private:
  KVRDebugConfiguration();
  ~KVRDebugConfiguration();

  // The debug switches and their lock.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace korvel
