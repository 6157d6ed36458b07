#include <korvel/network/KVNConfigurationManager.h>
#include <korvel/platform/internal/Threads.h>

#include <cmath>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/KVNUserDefaults.h>
#include <korvel/platform/Logging.h>
#include <korvel/network/URLCache.h>
#include <korvel/network/internal/ConfigurationFetch.h>

using korvel::foundation::internal::CondVar;
using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

const char* const kKVNLastConfigurationErrorDateKey = "kLastConfigurationErrorDate";
const char* const kKVNConfigurationURLKey = "configurationURL";

namespace {

using Json = nlohmann::ordered_json;  // keeps the server's parameter order

void logLine(platform::LogLevel level, std::string message) {
  const platform::Logger logger(
      platform::env().mainBundleIdentifier().value_or("Unknown bundle"), "Configuration");
  logger.log(level, std::move(message));
}

struct Settings {
  Mutex mutex;
  std::optional<std::string> productionURL KORVEL_GUARDED_BY(mutex);
  double coolDownSeconds KORVEL_GUARDED_BY(mutex) = 60;
  std::chrono::milliseconds timeout KORVEL_GUARDED_BY(mutex){10'000};
};

Settings& settings() {
  static auto* instance = new Settings;
  return *instance;
}

// --- Parsing ----------------------------------------------------------------

bool fail(std::string* error, std::string message) {
  if (error != nullptr) *error = std::move(message);
  return false;
}

std::optional<KVRValue> parameterValue(const Json& json) {
  switch (json.type()) {
    case Json::value_t::string: return KVRValue(json.get<std::string>());
    case Json::value_t::boolean: return KVRValue(json.get<bool>());
    case Json::value_t::number_integer: return KVRValue(json.get<int64_t>());
    case Json::value_t::number_unsigned: {
      // JSON has no signedness: whole numbers are signed while they fit.
      const auto u = json.get<uint64_t>();
      if (u <= static_cast<uint64_t>(INT64_MAX)) return KVRValue(static_cast<int64_t>(u));
      return KVRValue(u);
    }
    case Json::value_t::number_float: return KVRValue(json.get<double>());
    default: return std::nullopt;
  }
}

// --- The fetching thread ----------------------------------------------------

class Fetcher {
 public:
  static Fetcher& shared() {
    // Lives for the process: its thread may still be waiting at exit.
    static auto* instance = new Fetcher;
    return *instance;
  }

  void enqueue(KVNConfigurationManager::Completion completion) {
    {
      MutexLock lock(mutex_);
      pending_.push_back(std::move(completion));
      if (!thread_.joinable()) {
        thread_ = std::thread([this] {
          platform::internal::nameThisThread("korvel-config");
          run();
        });
      }
    }
    wake_.signal();
  }

 private:
  void run() KORVEL_EXCLUDES(mutex_) {
    for (;;) {
      std::vector<KVNConfigurationManager::Completion> batch;
      {
        MutexLock lock(mutex_);
        while (pending_.empty()) wake_.wait(mutex_);
        batch.swap(pending_);
      }
      const bool success = reconfigure();
      for (auto& completion : batch) {
        if (!completion) continue;
        try {
          completion(success);
        } catch (const std::exception& e) {
          logLine(platform::LogLevel::Error,
                  std::string("A configuration completion threw: ") + e.what());
        } catch (...) {
          logLine(platform::LogLevel::Error, "A configuration completion threw");
        }
      }
    }
  }

  static void recordFailure(const std::string& url, const std::string& reason) {
    logLine(platform::LogLevel::Error, "Configuration fetch from " + url + " failed: " + reason);
    KVNUserDefaults::sharedUserDefaults()->setObject(KVRDate{platform::env().now()},
                                                     kKVNLastConfigurationErrorDateKey);
  }

  static bool reconfigure() {
    const std::string url = KVNConfigurationManager::configurationURL();
    if (auto expiry = KVNConfigurationManager::coolDownExpiryTime();
        expiry && expiry->secondsSince1970 > platform::env().now()) {
      logLine(platform::LogLevel::Default,
              "Configuration fetch skipped: cooling down after a failure until " +
                  describeDate(*expiry));
      return false;
    }

    auto& cache = URLCache::sharedURLCache();
    const auto cached = cache.cachedResponseForURL(url);
    const network::internal::FetchResult result =
        network::internal::fetchConfiguration(url, cached, KVNConfigurationManager::requestTimeout());

    std::string body;
    if (result.status == 200) {
      body = result.body;
    } else if (result.status == 304 && cached) {
      body = cached->body;
    } else if (result.status == 0) {
      recordFailure(url, result.error);
      return false;
    } else {
      recordFailure(url, "HTTP status " + std::to_string(result.status));
      return false;
    }

    std::string error;
    if (!KVNConfigurationManager::applyConfigurationDocument(
            body, KVNConfiguration::sharedInstance(), &error)) {
      recordFailure(url, error);
      // A cached body that no longer applies is of no use.
      if (result.status == 304) cache.removeCachedResponseForURL(url);
      return false;
    }
    if (result.status == 200) {
      CachedURLResponse response;
      response.body = result.body;
      response.etag = result.etag;
      response.lastModified = result.lastModified;
      cache.storeCachedResponse(url, std::move(response));
    }
    KVNUserDefaults::sharedUserDefaults()->removeObjectForKey(kKVNLastConfigurationErrorDateKey);
    return true;
  }

  Mutex mutex_;
  CondVar wake_;
  std::vector<KVNConfigurationManager::Completion> pending_ KORVEL_GUARDED_BY(mutex_);
  // Started by the first enqueue; runs for the rest of the process.
  std::thread thread_ KORVEL_GUARDED_BY(mutex_);
};

}  // namespace

void KVNConfigurationManager::forceReconfigureWithCompletion(Completion completion) {
  Fetcher::shared().enqueue(std::move(completion));
}

std::string KVNConfigurationManager::configurationURL() {
  auto stored = KVNUserDefaults::sharedUserDefaults()->stringForKey(kKVNConfigurationURLKey);
  if (stored && !stored->empty()) return *stored;
  return productionConfigurationURL();
}

std::string KVNConfigurationManager::productionConfigurationURL() {
  auto& s = settings();
  MutexLock lock(s.mutex);
  return s.productionURL.value_or(kDefaultProductionConfigurationURL);
}

void KVNConfigurationManager::setProductionConfigurationURL(std::optional<std::string> url) {
  auto& s = settings();
  MutexLock lock(s.mutex);
  s.productionURL = std::move(url);
}

double KVNConfigurationManager::coolDownInterval() {
  auto& s = settings();
  MutexLock lock(s.mutex);
  return s.coolDownSeconds;
}

void KVNConfigurationManager::setCoolDownInterval(double seconds) {
  auto& s = settings();
  MutexLock lock(s.mutex);
  s.coolDownSeconds = std::isfinite(seconds) && seconds > 0 ? seconds : 0;
}

std::chrono::milliseconds KVNConfigurationManager::requestTimeout() {
  auto& s = settings();
  MutexLock lock(s.mutex);
  return s.timeout;
}

void KVNConfigurationManager::setRequestTimeout(std::chrono::milliseconds timeout) {
  auto& s = settings();
  MutexLock lock(s.mutex);
  s.timeout = timeout.count() > 0 ? timeout : std::chrono::milliseconds(1);
}

std::optional<KVRDate> KVNConfigurationManager::coolDownExpiryTime() {
  auto last = KVNUserDefaults::sharedUserDefaults()->dateForKey(kKVNLastConfigurationErrorDateKey);
  if (!last) return std::nullopt;
  return KVRDate{last->secondsSince1970 + coolDownInterval()};
}

bool KVNConfigurationManager::applyConfigurationDocument(std::string_view text,
                                                         KVNConfiguration& configuration,
                                                         std::string* error) {
  const Json json = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return fail(error, "the configuration is not valid JSON");
  if (!json.is_object()) return fail(error, "the configuration is not a JSON object");

  // Everything is checked before anything is applied.
  std::optional<std::string> inid;
  bool configured = true;
  std::optional<bool> raiseExceptions;
  std::optional<KVNBeaconsConfiguration> beacons;

  if (auto it = json.find("inid"); it != json.end()) {
    if (!it->is_string()) return fail(error, "\"inid\" is not text");
    inid = it->get<std::string>();
  }
  if (auto it = json.find("configured"); it != json.end()) {
    if (!it->is_boolean()) return fail(error, "\"configured\" is not a boolean");
    configured = it->get<bool>();
  }
  if (auto it = json.find("korvelFrameworksRaiseExceptions"); it != json.end()) {
    if (!it->is_boolean()) return fail(error, "\"korvelFrameworksRaiseExceptions\" is not a boolean");
    raiseExceptions = it->get<bool>();
  }
  if (auto it = json.find("beacons"); it != json.end()) {
    if (!it->is_object()) return fail(error, "\"beacons\" is not an object");
    beacons.emplace();
    if (auto e = it->find("beaconEndpoint"); e != it->end()) {
      if (e->is_string()) {
        beacons->beaconEndpoint = e->get<std::string>();
      } else if (!e->is_null()) {
        return fail(error, "\"beacons.beaconEndpoint\" is neither text nor null");
      }
    }
    if (auto p = it->find("beaconParameters"); p != it->end()) {
      if (!p->is_object()) return fail(error, "\"beacons.beaconParameters\" is not an object");
      for (const auto& [key, value] : p->items()) {
        auto parameter = parameterValue(value);
        if (!parameter) {
          return fail(error, "beacon parameter \"" + key + "\" is not text, a number or a boolean");
        }
        beacons->beaconParameters.set(key, std::move(*parameter));
      }
    }
  }

  configuration.update([&](KVNConfiguration::Snapshot& s) {
    if (inid) s.inid = std::move(inid);
    s.configured = configured;
    if (raiseExceptions) s.korvelFrameworksRaiseExceptions = *raiseExceptions;
    if (beacons) s.beacons = std::move(*beacons);
  });
  return true;
}

}  // namespace korvel
