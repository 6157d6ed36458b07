#include "platform/Env.h"

#include <time.h>

#include <atomic>
#include <cstdlib>
#include <cmath>
#include <mutex>

#include "platform/AudioPlayer.h"
#include "platform/DurableRequestExecutor.h"
#include "platform/Logging.h"
#include "platform/MainQueue.h"
#include "platform/NotificationCenter.h"

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
    std::lock_guard lock(mutex_);
    return bundleIdentifier_;
  }

  void setMainBundleIdentifier(std::optional<std::string> identifier) {
    std::lock_guard lock(mutex_);
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

  MainQueue& mainQueue() override { return mainQueue_; }

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

  std::unique_ptr<AudioPlayer> makeAudioPlayer(const std::string& path) override {
    return makeDefaultAudioPlayer(path);
  }

  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> makeBackgroundExecutor(
      const std::string& sessionIdentifier) override {
    // Stored under $XDG_DATA_HOME/korvel/<session identifier>; delivered over
    // libcurl; survives restarts and kills of the process.
    return std::make_shared<DurableRequestExecutor>(sessionIdentifier);
  }

 private:
  std::mutex mutex_;
  std::optional<std::string> bundleIdentifier_;
  NotificationCenter center_;
  StderrLogSink logSink_;
  MainQueue mainQueue_;
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

}  // namespace korvel::platform
