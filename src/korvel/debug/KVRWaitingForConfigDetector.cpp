#include <korvel/debug/KVRWaitingForConfigDetector.h>

#include <optional>

#include <korvel/beacon/KVRLogging.h>
#include <korvel/debug/KVRDebugConfiguration.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/Logging.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/UIEnv.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

// Shared with the tasks queued on the main queue, so a task that runs after
// the detector was destroyed finds a stopped state, not freed memory.
struct KVRWaitingForConfigDetector::State {
  Mutex mutex;
  Callback callback KORVEL_GUARDED_BY(mutex);
  std::optional<ui::MainQueue::TimerID> pollTimer KORVEL_GUARDED_BY(mutex);
  // Where pollTimer is scheduled.
  ui::MainQueue* timerQueue KORVEL_GUARDED_BY(mutex) = nullptr;
  // Bumped by every unregister (and the destructor): queued starts and
  // timer ticks from before that are dropped.
  uint64_t generation KORVEL_GUARDED_BY(mutex) = 0;

  void cancelTimerLocked() KORVEL_REQUIRES(mutex) {
    if (pollTimer && timerQueue != nullptr) timerQueue->cancel(*pollTimer);
    pollTimer.reset();
    timerQueue = nullptr;
  }

  // The callback to call now for a task of generation, if any.
  std::optional<Callback> callbackFor(uint64_t taskGeneration) KORVEL_EXCLUDES(mutex) {
    MutexLock lock(mutex);
    if (taskGeneration != generation) return std::nullopt;
    return callback;
  }
};

namespace {

bool stillWaiting() { return !KVRDebugConfiguration::sharedInstance().isConfigured(); }

void logMissingCallback() {
  platform::Logger(KVRLogging::subsystem(), "Debug")
      .log(platform::LogLevel::Fault,
           "KVRWaitingForConfigDetector: registered without a callback; nothing will be told");
}

}  // namespace

KVRWaitingForConfigDetector::KVRWaitingForConfigDetector() : state_(std::make_shared<State>()) {}

KVRWaitingForConfigDetector::~KVRWaitingForConfigDetector() {
  MutexLock lock(state_->mutex);
  ++state_->generation;
  state_->cancelTimerLocked();
}

void KVRWaitingForConfigDetector::registerForConfigUpdates(Callback callback) {
  {
    MutexLock lock(state_->mutex);
    state_->callback = std::move(callback);
  }
  startPolling();
}

void KVRWaitingForConfigDetector::unregisterForConfigUpdates() {
  MutexLock lock(state_->mutex);
  ++state_->generation;
  state_->cancelTimerLocked();
}

void KVRWaitingForConfigDetector::startPolling() {
  uint64_t generation = 0;
  {
    MutexLock lock(state_->mutex);
    generation = state_->generation;
  }
  ui::uiEnv().mainQueue().async([state = state_, generation] {
    auto& queue = ui::uiEnv().mainQueue();
    Callback callback;
    {
      MutexLock lock(state->mutex);
      if (generation != state->generation) return;  // unregistered meanwhile
      state->cancelTimerLocked();
      // The timer keeps the state alive until it is cancelled.
      state->pollTimer =
          queue.scheduleRepeating(kPollInterval, [state, generation] {
            auto current = state->callbackFor(generation);
            if (current && *current) (*current)(stillWaiting());
          });
      state->timerQueue = &queue;
      callback = state->callback;
    }
    // Registering without a callback is a programming error; it is reported
    // here rather than taking the host down.
    if (!callback) {
      logMissingCallback();
      return;
    }
    callback(stillWaiting());
  });
}

void KVRWaitingForConfigDetector::poll() {
  Callback callback;
  {
    MutexLock lock(state_->mutex);
    callback = state_->callback;
  }
  if (callback) callback(stillWaiting());
}

bool KVRWaitingForConfigDetector::isPolling() const {
  MutexLock lock(state_->mutex);
  return state_->pollTimer.has_value();
}

bool KVRWaitingForConfigDetector::hasCallback() const {
  MutexLock lock(state_->mutex);
  return static_cast<bool>(state_->callback);
}

std::unique_ptr<KVRWaitingForConfigView> KVRWaitingForConfigView::loadFromInterfaceFile() {
  auto view = std::make_unique<KVRWaitingForConfigView>();
  view->awakeFromNib();
  return view;
}

void KVRWaitingForConfigView::awakeFromNib() { activityIndicator.startAnimating(); }

}  // namespace korvel
