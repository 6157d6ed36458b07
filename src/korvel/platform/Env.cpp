#include <korvel/platform/Env.h>

#include <atomic>
#include <cstdlib>
#include <cmath>

#include <korvel/foundation/KVNNetwork.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Logging.h>
#include <korvel/platform/NotificationCenter.h>
#include <korvel/platform/internal/System.h>

using korvel::platform::internal::documentsFolder;
using korvel::platform::internal::localTimeOf;
using korvel::platform::internal::monotonicClockNanos;
using korvel::platform::internal::wallClockSeconds;
using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::platform {

namespace {

class SystemEnv : public Env {
 public:
  SystemEnv() {
    // Registered first, so the state has changed before anyone else hears.
    center_.addObserver(std::string(ApplicationDidEnterBackgroundNotification),
                        [this](const Notification&) { state_ = ApplicationState::Background; });
    center_.addObserver(std::string(ApplicationWillEnterForegroundNotification),
                        [this](const Notification&) { state_ = ApplicationState::Active; });
  }

  double now() override { return wallClockSeconds(); }

  uint64_t monotonicNanos() override { return monotonicClockNanos(); }

  std::string makeUUIDString() override { return makeRandomUUIDString(); }

  std::optional<std::string> mainBundleIdentifier() override {
    MutexLock lock(mutex_);
    return bundleIdentifier_;
  }

  void setMainBundleIdentifier(std::optional<std::string> identifier) {
    MutexLock lock(mutex_);
    bundleIdentifier_ = std::move(identifier);
  }

  ApplicationState applicationState() override { return state_; }
  // Desktop machines have no orientation sensor the library could read.
  DeviceOrientation deviceOrientation() override { return DeviceOrientation::Unknown; }

  std::tm localTime(double secondsSince1970) override {
    return localTimeOf(static_cast<std::time_t>(std::floor(secondsSince1970)));
  }

  // The user's documents folder (Linux: $XDG_DOCUMENTS_DIR, else
  // ~/Documents), else the working directory.
  std::string documentsDirectory() override { return documentsFolder(); }

  NotificationCenter& notificationCenter() override { return center_; }
  LogSink& logSink() override { return logSink_; }

  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> makeBackgroundExecutor(
      const std::string& sessionIdentifier) override {
    BackgroundExecutorFactory factory;
    {
      MutexLock lock(mutex_);
      factory = executorFactory_;
    }
    if (!factory) return nullptr;
    return factory(sessionIdentifier);
  }

  void setExecutorFactory(BackgroundExecutorFactory factory) {
    MutexLock lock(mutex_);
    executorFactory_ = std::move(factory);
  }

  bool installExecutorFactoryIfNone(BackgroundExecutorFactory factory) {
    MutexLock lock(mutex_);
    if (executorFactory_) return false;
    executorFactory_ = std::move(factory);
    return true;
  }

 private:
  Mutex mutex_;
  std::optional<std::string> bundleIdentifier_ KORVEL_GUARDED_BY(mutex_);
  NotificationCenter center_;
  StderrLogSink logSink_;
  BackgroundExecutorFactory executorFactory_ KORVEL_GUARDED_BY(mutex_);
  std::atomic<ApplicationState> state_{ApplicationState::Active};
};

SystemEnv& systemEnv() {
  static SystemEnv* instance = new SystemEnv;
  return *instance;
}

std::atomic<Env*> currentEnv{nullptr};

}  // namespace

Env& Env::Default() { return systemEnv(); }

Env& env() {
  Env* e = currentEnv.load(std::memory_order_acquire);
  return e != nullptr ? *e : Env::Default();
}

ScopedEnv::ScopedEnv(Env& replacement)
    : previous_(currentEnv.exchange(&replacement, std::memory_order_acq_rel)) {}

ScopedEnv::~ScopedEnv() { currentEnv.store(previous_, std::memory_order_release); }

void setMainBundleIdentifier(std::optional<std::string> identifier) {
  systemEnv().setMainBundleIdentifier(std::move(identifier));
}

void setDefaultBackgroundExecutorFactory(BackgroundExecutorFactory factory) {
  systemEnv().setExecutorFactory(std::move(factory));
}

bool installDefaultBackgroundExecutorFactoryIfNone(BackgroundExecutorFactory factory) {
  return systemEnv().installExecutorFactoryIfNone(std::move(factory));
}

}  // namespace korvel::platform
