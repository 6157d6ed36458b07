#include <korvel/ui/MainQueue.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <deque>
#include <map>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Env.h>

using korvel::platform::env;
using korvel::foundation::internal::CondVar;
using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::ui {

namespace {
uint64_t toNanos(double seconds) {
  if (!(seconds > 0)) return 0;
  return static_cast<uint64_t>(std::llround(seconds * 1e9));
}
}  // namespace

struct MainQueue::Impl {
  struct Timer {
    uint64_t dueNanos;
    uint64_t intervalNanos;  // 0 for one-shot
    Task task;
  };

  mutable Mutex mutex_;
  CondVar wake_;
  std::deque<Task> tasks_ KORVEL_GUARDED_BY(mutex_);
  std::map<TimerID, Timer> timers_ KORVEL_GUARDED_BY(mutex_);
  TimerID nextTimer_ KORVEL_GUARDED_BY(mutex_) = 1;
  bool stopping_ KORVEL_GUARDED_BY(mutex_) = false;
};

MainQueue::MainQueue() : impl_(std::make_unique<Impl>()) {}

MainQueue::~MainQueue() = default;

void MainQueue::async(Task task) {
  Impl& d = *impl_;
  // Notified under the lock: once the main thread has taken the task, the
  // posting thread no longer touches the queue, so the queue may be
  // destroyed right after running it.
  MutexLock lock(d.mutex_);
  d.tasks_.push_back(std::move(task));
  d.wake_.signalAll();
}

MainQueue::TimerID MainQueue::asyncAfter(double delaySeconds, Task task) {
  Impl& d = *impl_;
  const uint64_t due = env().monotonicNanos() + toNanos(delaySeconds);
  MutexLock lock(d.mutex_);
  const TimerID id = d.nextTimer_++;
  d.timers_.emplace(id, Impl::Timer{due, 0, std::move(task)});
  d.wake_.signalAll();
  return id;
}

MainQueue::TimerID MainQueue::scheduleRepeating(double intervalSeconds, Task task) {
  Impl& d = *impl_;
  // A zero interval would spin; one nanosecond is the shortest period.
  const uint64_t interval = std::max<uint64_t>(1, toNanos(intervalSeconds));
  const uint64_t due = env().monotonicNanos() + interval;
  MutexLock lock(d.mutex_);
  const TimerID id = d.nextTimer_++;
  d.timers_.emplace(id, Impl::Timer{due, interval, std::move(task)});
  d.wake_.signalAll();
  return id;
}

void MainQueue::cancel(TimerID timer) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.timers_.erase(timer);
}

size_t MainQueue::runPending() {
  Impl& d = *impl_;
  size_t ran = 0;
  for (;;) {
    Task next;
    {
      MutexLock lock(d.mutex_);
      if (!d.tasks_.empty()) {
        next = std::move(d.tasks_.front());
        d.tasks_.pop_front();
      } else {
        // The earliest due timer, if any is due now.
        const uint64_t now = env().monotonicNanos();
        auto due = d.timers_.end();
        for (auto it = d.timers_.begin(); it != d.timers_.end(); ++it) {
          if (it->second.dueNanos <= now &&
              (due == d.timers_.end() || it->second.dueNanos < due->second.dueNanos)) {
            due = it;
          }
        }
        if (due == d.timers_.end()) return ran;
        next = due->second.task;
        if (due->second.intervalNanos == 0) {
          d.timers_.erase(due);
        } else {
          // Next fire is one period after the due time, never in the past,
          // so a clock that jumps far ahead fires a repeating timer once.
          Impl::Timer& t = due->second;
          t.dueNanos = std::max(t.dueNanos + t.intervalNanos, now + 1);
        }
      }
    }
    next();
    ++ran;
  }
}

std::optional<double> MainQueue::secondsUntilNextTimer() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  if (d.timers_.empty()) return std::nullopt;
  uint64_t earliest = UINT64_MAX;
  for (const auto& [id, t] : d.timers_) earliest = std::min(earliest, t.dueNanos);
  const uint64_t now = env().monotonicNanos();
  return earliest <= now ? 0.0 : static_cast<double>(earliest - now) / 1e9;
}

bool MainQueue::hasPendingWork() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return !d.tasks_.empty();
}

void MainQueue::waitForWork(double timeoutSeconds) {
  Impl& d = *impl_;
  double wait = timeoutSeconds;
  if (auto next = secondsUntilNextTimer()) wait = std::min(wait, *next);
  MutexLock lock(d.mutex_);
  if (!d.tasks_.empty() || d.stopping_ || wait <= 0) return;
  d.wake_.waitFor(d.mutex_, std::chrono::duration<double>(wait));
}

void MainQueue::runUntilStopped() {
  Impl& d = *impl_;
  for (;;) {
    runPending();
    {
      MutexLock lock(d.mutex_);
      if (d.stopping_) {
        d.stopping_ = false;
        return;
      }
    }
    waitForWork(0.5);
  }
}

void MainQueue::stop() {
  Impl& d = *impl_;
  {
    MutexLock lock(d.mutex_);
    d.stopping_ = true;
  }
  d.wake_.signalAll();
}

}  // namespace korvel::ui
