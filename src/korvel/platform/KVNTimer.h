// A keyed stopwatch on the Env's monotonic clock. Any thread may call; the
// owner of the timer (a session, a reporter) keeps it alive.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <korvel/foundation/Mutex.h>

namespace korvel {

class KORVEL_EXPORT KVNTimer {
 public:
  // Starts (or restarts) the stopwatch under key.
  void startTimerForKey(const std::string& key);
  // Seconds since the key was started; nothing when it is not running.
  std::optional<double> elapsedTimeForKey(const std::string& key) const;
  // Stops the stopwatch under key.
  void endTimerForKey(const std::string& key);

 private:
  mutable Mutex mutex_;
  std::map<std::string, uint64_t, std::less<>> startedAt_ KORVEL_GUARDED_BY(mutex_);
};

}  // namespace korvel
