#include <korvel/platform/Env.h>

#include <time.h>

#include <atomic>
#include <cstdlib>
#include <cmath>

#include <korvel/foundation/KVNNetwork.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Logging.h>
#include <korvel/platform/NotificationCenter.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::platform {

namespace {

class LinuxEnv : public Env {
 public:
  LinuxEnv() {
    // Registered first, so the state has changed before anyone else hears.
    center_.addObserver(std::string(ApplicationDidEnterBackgroundNotification),
                        [this](const Notification&) { state_ = ApplicationState::Background; });
    center_.addObserver(std::string(ApplicationWillEnterForegroundNotification),
                        [this](const Notification&) { state_ = ApplicationState::Active; });
  }

  double now() override {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
  }

  uint64_t monotonicNanos() override {
    // CLOCK_MONOTONIC does not advance while the machine is suspended.
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000ull + static_cast<uint64_t>(ts.tv_nsec);
  }

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
  // Linux machines have no orientation sensor the library could read.
  DeviceOrientation deviceOrientation() override { return DeviceOrientation::Unknown; }

  std::tm localTime(double secondsSince1970) override {
    const auto t = static_cast<time_t>(std::floor(secondsSince1970));
    std::tm tm{};
    localtime_r(&t, &tm);
    return tm;
  }

  // $XDG_DOCUMENTS_DIR, else ~/Documents, else the working directory.
  std::string documentsDirectory() override {
    if (const char* xdg = std::getenv("XDG_DOCUMENTS_DIR"); xdg != nullptr && *xdg != 0) {
      return xdg;
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != 0) {
      return std::string(home) + "/Documents";
    }
    return ".";
  }

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

LinuxEnv& linuxEnv() {
  static LinuxEnv* instance = new LinuxEnv;
  return *instance;
}

std::atomic<Env*> currentEnv{nullptr};

}  // namespace

Env& Env::Default() { return linuxEnv(); }

Env& env() {
  Env* e = currentEnv.load(std::memory_order_acquire);
  return e != nullptr ? *e : Env::Default();
}

ScopedEnv::ScopedEnv(Env& replacement)
    : previous_(currentEnv.exchange(&replacement, std::memory_order_acq_rel)) {}

ScopedEnv::~ScopedEnv() { currentEnv.store(previous_, std::memory_order_release); }

void setMainBundleIdentifier(std::optional<std::string> identifier) {
  linuxEnv().setMainBundleIdentifier(std::move(identifier));
}

void setDefaultBackgroundExecutorFactory(BackgroundExecutorFactory factory) {
  linuxEnv().setExecutorFactory(std::move(factory));
}

bool installDefaultBackgroundExecutorFactoryIfNone(BackgroundExecutorFactory factory) {
  return linuxEnv().installExecutorFactoryIfNone(std::move(factory));
}

}  // namespace korvel::platform
