#include <korvel/debug/KVRDebugConfiguration.h>

#include <cmath>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Env.h>
#include <korvel/network/KVNConfigurationManager.h>
#include <korvel/network/KVNRetryHandler.h>
#include <korvel/platform/KVNUserDefaults.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

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

struct KVRDebugConfiguration::Impl {
  mutable Mutex mutex_;
  bool sendCarrierDataInConfigRequest_ KORVEL_GUARDED_BY(mutex_) = false;
  bool globalSearchEnabled_ KORVEL_GUARDED_BY(mutex_) = false;
  uint64_t customCarrierDataChoice_ KORVEL_GUARDED_BY(mutex_) = 0;
  std::optional<std::string> overrideMCC_ KORVEL_GUARDED_BY(mutex_);
  std::optional<std::string> overrideMNC_ KORVEL_GUARDED_BY(mutex_);
  std::optional<std::string> navigationOption_ KORVEL_GUARDED_BY(mutex_);
};

KVRDebugConfiguration::KVRDebugConfiguration() : impl_(std::make_unique<Impl>()) {}

KVRDebugConfiguration::~KVRDebugConfiguration() = default;

KVRDebugConfiguration& KVRDebugConfiguration::sharedInstance() {
  // A function-local static is initialised exactly once, even when threads
  // race for it; the instance lives for the process.
  static auto* instance = new KVRDebugConfiguration;
  return *instance;
}

bool KVRDebugConfiguration::sendCarrierDataInConfigRequest() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.sendCarrierDataInConfigRequest_;
}

void KVRDebugConfiguration::setSendCarrierDataInConfigRequest(bool value) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.sendCarrierDataInConfigRequest_ = value;
}

bool KVRDebugConfiguration::globalSearchEnabled() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.globalSearchEnabled_;
}

void KVRDebugConfiguration::setGlobalSearchEnabled(bool value) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.globalSearchEnabled_ = value;
}

uint64_t KVRDebugConfiguration::customCarrierDataChoice() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.customCarrierDataChoice_;
}

void KVRDebugConfiguration::setCustomCarrierDataChoice(uint64_t value) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.customCarrierDataChoice_ = value;
}

std::optional<std::string> KVRDebugConfiguration::overrideMCCInConfigRequest() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.overrideMCC_;
}

void KVRDebugConfiguration::setOverrideMCCInConfigRequest(std::optional<std::string> value) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.overrideMCC_ = std::move(value);
}

std::optional<std::string> KVRDebugConfiguration::overrideMNCInConfigRequest() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.overrideMNC_;
}

void KVRDebugConfiguration::setOverrideMNCInConfigRequest(std::optional<std::string> value) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.overrideMNC_ = std::move(value);
}

std::optional<std::string> KVRDebugConfiguration::navigationOption() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.navigationOption_;
}

void KVRDebugConfiguration::setNavigationOption(std::optional<std::string> value) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.navigationOption_ = std::move(value);
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
