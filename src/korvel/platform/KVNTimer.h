// A keyed stopwatch on the Env's monotonic clock. Any thread may call; the
// owner of the timer (a session, a reporter) keeps it alive.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <optional>
#include <string>

namespace korvel {

class KORVEL_EXPORT KVNTimer {
 public:
  KVNTimer();
  ~KVNTimer();
  KVNTimer(const KVNTimer&) = delete;
  KVNTimer& operator=(const KVNTimer&) = delete;

  // Starts (or restarts) the stopwatch under key.
  void startTimerForKey(const std::string& key);
  // Seconds since the key was started; nothing when it is not running.
  std::optional<double> elapsedTimeForKey(const std::string& key) const;
  // Stops the stopwatch under key.
  void endTimerForKey(const std::string& key);

 private:
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace korvel
