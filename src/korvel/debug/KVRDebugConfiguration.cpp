#include <korvel/debug/KVRDebugConfiguration.h>

#include <cmath>

#include <korvel/platform/Env.h>
#include <korvel/network/KVNConfigurationManager.h>
#include <korvel/network/KVNRetryHandler.h>
#include <korvel/platform/KVNUserDefaults.h>

namespace korvel {

// The same key the configuration manager reads its URL from.
const char* const kKVRConfigurationURLKey = "configurationURL";

namespace {

// The configuration manager's retry handler, found by name at run time.
constexpr const char* kConfigRetryHandlerName = "KVNConfigRetryHandler";

struct BetaEndpoint {
  Mutex mutex;
  std::optional<std::string> override KORVEL_GUARDED_BY(mutex);
};

BetaEndpoint& betaEndpoint() {
  static auto* instance = new BetaEndpoint;
  return *instance;
}

}  // namespace

std::string KVRDebugConfiguration::productionConfigurationEndpoint() {
  // The foundation library fetches from the same production URL when none
  // is chosen, so there is one setting for both.
  return KVNConfigurationManager::productionConfigurationURL();
}

std::string KVRDebugConfiguration::betaConfigurationEndpoint() {
  auto& beta = betaEndpoint();
  MutexLock lock(beta.mutex);
  return beta.override.value_or(kDefaultBetaConfigurationEndpoint);
}

void KVRDebugConfiguration::setProductionConfigurationEndpoint(std::optional<std::string> url) {
  KVNConfigurationManager::setProductionConfigurationURL(std::move(url));
}

void KVRDebugConfiguration::setBetaConfigurationEndpoint(std::optional<std::string> url) {
  auto& beta = betaEndpoint();
  MutexLock lock(beta.mutex);
  beta.override = std::move(url);
}

KVRDebugConfiguration& KVRDebugConfiguration::sharedInstance() {
  // A function-local static is initialised exactly once, even when threads
  // race for it; the instance lives for the process.
  static auto* instance = new KVRDebugConfiguration;
  return *instance;
}

bool KVRDebugConfiguration::sendCarrierDataInConfigRequest() const {
  MutexLock lock(mutex_);
  return sendCarrierDataInConfigRequest_;
}

void KVRDebugConfiguration::setSendCarrierDataInConfigRequest(bool value) {
  MutexLock lock(mutex_);
  sendCarrierDataInConfigRequest_ = value;
}

bool KVRDebugConfiguration::globalSearchEnabled() const {
  MutexLock lock(mutex_);
  return globalSearchEnabled_;
}

void KVRDebugConfiguration::setGlobalSearchEnabled(bool value) {
  MutexLock lock(mutex_);
  globalSearchEnabled_ = value;
}

uint64_t KVRDebugConfiguration::customCarrierDataChoice() const {
  MutexLock lock(mutex_);
  return customCarrierDataChoice_;
}

void KVRDebugConfiguration::setCustomCarrierDataChoice(uint64_t value) {
  MutexLock lock(mutex_);
  customCarrierDataChoice_ = value;
}

std::optional<std::string> KVRDebugConfiguration::overrideMCCInConfigRequest() const {
  MutexLock lock(mutex_);
  return overrideMCC_;
}

void KVRDebugConfiguration::setOverrideMCCInConfigRequest(std::optional<std::string> value) {
  MutexLock lock(mutex_);
  overrideMCC_ = std::move(value);
}

std::optional<std::string> KVRDebugConfiguration::overrideMNCInConfigRequest() const {
  MutexLock lock(mutex_);
  return overrideMNC_;
}

void KVRDebugConfiguration::setOverrideMNCInConfigRequest(std::optional<std::string> value) {
  MutexLock lock(mutex_);
  overrideMNC_ = std::move(value);
}

std::optional<std::string> KVRDebugConfiguration::navigationOption() const {
  MutexLock lock(mutex_);
  return navigationOption_;
}

void KVRDebugConfiguration::setNavigationOption(std::optional<std::string> value) {
  MutexLock lock(mutex_);
  navigationOption_ = std::move(value);
}

std::string KVRDebugConfiguration::configUrlString() const {
  if (auto stored = userDefaults()->stringForKey(kKVRConfigurationURLKey)) return *stored;
  return productionConfigurationEndpoint();
}

void KVRDebugConfiguration::setConfigUrlString(const std::string& url,
                                               std::function<void(bool success)> completion) {
  auto defaults = userDefaults();
  defaults->setObject(KVRValue(url), kKVRConfigurationURLKey);
  defaults->removeObjectForKey(kKVNLastConfigurationErrorDateKey);
  KVNConfigurationManager::forceReconfigureWithCompletion(std::move(completion));
}

std::optional<std::string> KVRDebugConfiguration::inid() const {
  return networkingConfiguration().inid();
}

bool KVRDebugConfiguration::isConfigured() const { return networkingConfiguration().configured(); }

KVNConfiguration& KVRDebugConfiguration::networkingConfiguration() const {
  return KVNConfiguration::sharedInstance();
}

std::shared_ptr<KVNUserDefaults> KVRDebugConfiguration::userDefaults() const {
  return KVNUserDefaults::sharedUserDefaults();
}

double KVRDebugConfiguration::currentConfigCoolDownTime() const {
  // By name: whichever library provides the handler registered it.
  auto handler = KVNRetryHandlerRegistry::make(kConfigRetryHandlerName);
  if (!handler) return 0;
  const auto expiry = handler->coolDownExpiryTime();
  if (!expiry) return 0;
  const double seconds = expiry->secondsSince1970 - platform::env().now();
  return std::isnan(seconds) ? 0 : seconds;
}

KVRDate KVRDebugConfiguration::coolDownExpiryTime() const { return KVRDate{platform::env().now()}; }

}  // namespace korvel
