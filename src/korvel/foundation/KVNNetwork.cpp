#include <korvel/foundation/KVNNetwork.h>
#include <korvel/foundation/KVNRequestReload.h>

#include <map>

#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/internal/Mutex.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace {
struct RestorerRegistry {
  Mutex mutex;
  std::map<std::string, KVNRequestRestorer, std::less<>> restorers KORVEL_GUARDED_BY(mutex);
};

RestorerRegistry& registry() {
  static RestorerRegistry* instance = new RestorerRegistry;
  return *instance;
}
}  // namespace

void KVNRequestRestorers::registerRestorer(const std::string& kind, KVNRequestRestorer restorer) {
  auto& r = registry();
  MutexLock lock(r.mutex);
  r.restorers[kind] = std::move(restorer);
}

std::optional<KVNNetworkRequest> KVNRequestRestorers::restore(const std::string& kind,
                                                              std::string_view payload) {
  KVNRequestRestorer restorer;
  {
    auto& r = registry();
    MutexLock lock(r.mutex);
    auto it = r.restorers.find(kind);
    if (it == r.restorers.end()) return std::nullopt;
    restorer = it->second;
  }
  return restorer(payload);
}

namespace {
thread_local bool reloading = false;
}  // namespace

std::optional<KVNNetworkRequest> KVNReloadRequest(const std::string& kind, std::string_view payload) {
  struct Flag {
    bool outer = reloading;
    Flag() { reloading = true; }
    ~Flag() { reloading = outer; }
  } flag;
  return KVNRequestRestorers::restore(kind, payload);
}

bool KVNRequestReloading() { return reloading; }

bool KVNConfigurationPolicySatisfied(int configurationPolicy) {
  const auto config = KVNConfiguration::sharedInstance().snapshot();
  switch (configurationPolicy) {
    case 1: return config->configured;
    case 2: {
      const auto& endpoint = config->beacons.beaconEndpoint;
      return endpoint && !endpoint->empty() && config->inid && !config->inid->empty();
    }
    default: return true;
  }
}

}  // namespace korvel
