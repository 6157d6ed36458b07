#include <korvel/ui/MainQueue.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include <korvel/platform/Env.h>

namespace korvel::platform {

namespace {
uint64_t toNanos(double seconds) {
  if (!(seconds > 0)) return 0;
  return static_cast<uint64_t>(std::llround(seconds * 1e9));
}
}  // namespace

void MainQueue::async(Task task) {
  // Notified under the lock: once the main thread has taken the task, the
  // posting thread no longer touches the queue, so the queue may be
  // destroyed right after running it.
  MutexLock lock(mutex_);
  tasks_.push_back(std::move(task));
  wake_.signalAll();
}

MainQueue::TimerID MainQueue::asyncAfter(double delaySeconds, Task task) {
  const uint64_t due = env().monotonicNanos() + toNanos(delaySeconds);
  MutexLock lock(mutex_);
  const TimerID id = nextTimer_++;
  timers_.emplace(id, Timer{due, 0, std::move(task)});
  wake_.signalAll();
  return id;
}

MainQueue::TimerID MainQueue::scheduleRepeating(double intervalSeconds, Task task) {
  // A zero interval would spin; one nanosecond is the shortest period.
  const uint64_t interval = std::max<uint64_t>(1, toNanos(intervalSeconds));
  const uint64_t due = env().monotonicNanos() + interval;
  MutexLock lock(mutex_);
  const TimerID id = nextTimer_++;
  timers_.emplace(id, Timer{due, interval, std::move(task)});
  wake_.signalAll();
  return id;
}

void MainQueue::cancel(TimerID timer) {
  MutexLock lock(mutex_);
  timers_.erase(timer);
}

size_t MainQueue::runPending() {
  size_t ran = 0;
  for (;;) {
    Task next;
    {
      MutexLock lock(mutex_);
      if (!tasks_.empty()) {
        next = std::move(tasks_.front());
        tasks_.pop_front();
      } else {
        // The earliest due timer, if any is due now.
        const uint64_t now = env().monotonicNanos();
        auto due = timers_.end();
        for (auto it = timers_.begin(); it != timers_.end(); ++it) {
          if (it->second.dueNanos <= now &&
              (due == timers_.end() || it->second.dueNanos < due->second.dueNanos)) {
            due = it;
          }
        }
        if (due == timers_.end()) return ran;
        next = due->second.task;
        if (due->second.intervalNanos == 0) {
          timers_.erase(due);
        } else {
          // Next fire is one period after the due time, never in the past,
          // so a clock that jumps far ahead fires a repeating timer once.
          Timer& t = due->second;
          t.dueNanos = std::max(t.dueNanos + t.intervalNanos, now + 1);
        }
      }
    }
    next();
    ++ran;
  }
}

std::optional<double> MainQueue::secondsUntilNextTimer() const {
  MutexLock lock(mutex_);
  if (timers_.empty()) return std::nullopt;
  uint64_t earliest = UINT64_MAX;
  for (const auto& [id, t] : timers_) earliest = std::min(earliest, t.dueNanos);
  const uint64_t now = env().monotonicNanos();
  return earliest <= now ? 0.0 : static_cast<double>(earliest - now) / 1e9;
}

bool MainQueue::hasPendingWork() const {
  MutexLock lock(mutex_);
  return !tasks_.empty();
}

void MainQueue::waitForWork(double timeoutSeconds) {
  double wait = timeoutSeconds;
  if (auto next = secondsUntilNextTimer()) wait = std::min(wait, *next);
  MutexLock lock(mutex_);
  if (!tasks_.empty() || stopping_ || wait <= 0) return;
  wake_.waitFor(mutex_, std::chrono::duration<double>(wait));
}

void MainQueue::runUntilStopped() {
  for (;;) {
    runPending();
    {
      MutexLock lock(mutex_);
      if (stopping_) {
        stopping_ = false;
        return;
      }
    }
    waitForWork(0.5);
  }
}

void MainQueue::stop() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.signalAll();
}

}  // namespace korvel::platform
