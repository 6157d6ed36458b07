#include <korvel/platform/KVNTimer.h>

#include <korvel/platform/Env.h>

namespace korvel {

void KVNTimer::startTimerForKey(const std::string& key) {
  const uint64_t now = platform::env().monotonicNanos();
  MutexLock lock(mutex_);
  startedAt_[key] = now;
}

std::optional<double> KVNTimer::elapsedTimeForKey(const std::string& key) const {
  const uint64_t now = platform::env().monotonicNanos();
  MutexLock lock(mutex_);
  auto it = startedAt_.find(key);
  if (it == startedAt_.end()) return std::nullopt;
  const uint64_t elapsed = now >= it->second ? now - it->second : 0;
  return static_cast<double>(elapsed) / 1e9;
}

void KVNTimer::endTimerForKey(const std::string& key) {
  MutexLock lock(mutex_);
  startedAt_.erase(key);
}

}  // namespace korvel
