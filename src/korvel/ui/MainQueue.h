// The main queue: work that must run on the host's main (UI) thread.
//
// Any thread may queue work; the host drives the queue from its main thread,
// by pumping it from its own run loop (runPending / waitForWork) or by
// handing it a thread with runUntilStopped. Timers (one-shot delays and
// repeating polls) run on the queue too and read the Env's monotonic clock,
// so a test that advances an injected clock and calls runPending() fires
// exactly the timers that are due, with no real waiting.
//
// The queue owns its queued tasks and timers until they run or are
// cancelled; whoever made the queue (the UIEnv) keeps it alive while the host
// pumps it.
#pragma once

#include <korvel/export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace korvel::ui {

class KORVEL_EXPORT MainQueue {
 public:
  using Task = std::function<void()>;
  using TimerID = uint64_t;

  MainQueue();
  ~MainQueue();
  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;

  // Runs task on the queue as soon as the host pumps it. Any thread.
  void async(Task task);
  // Runs task once, delaySeconds from now. Any thread.
  TimerID asyncAfter(double delaySeconds, Task task);
  // Runs task every intervalSeconds until cancelled. Any thread.
  TimerID scheduleRepeating(double intervalSeconds, Task task);
  // Stops a timer; a no-op for one that already fired or was cancelled.
  void cancel(TimerID timer);

  // Host side, on the main thread: runs every queued task (including those
  // queued while running) and every timer that is due now; returns how many
  // ran.
  size_t runPending();
  // Blocks until work is queued or the next timer is due, at most
  // timeoutSeconds of real time.
  void waitForWork(double timeoutSeconds);
  // Pumps until stop() is called (for hosts that give the queue a thread).
  void runUntilStopped();
  void stop();

  // Seconds of the Env's monotonic clock until the next timer is due.
  std::optional<double> secondsUntilNextTimer() const;
  bool hasPendingWork() const;

 private:
  // The tasks, the timers and their lock.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace korvel::ui
