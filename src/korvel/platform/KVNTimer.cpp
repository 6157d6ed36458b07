#include <korvel/platform/KVNTimer.h>

#include <cstdint>
#include <map>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Env.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

struct KVNTimer::Impl {
  mutable Mutex mutex;
  std::map<std::string, uint64_t, std::less<>> startedAt KORVEL_GUARDED_BY(mutex);
};

KVNTimer::KVNTimer() : impl_(std::make_unique<Impl>()) {}

KVNTimer::~KVNTimer() = default;

void KVNTimer::startTimerForKey(const std::string& key) {
  const uint64_t now = platform::env().monotonicNanos();
  MutexLock lock(impl_->mutex);
  impl_->startedAt[key] = now;
}

std::optional<double> KVNTimer::elapsedTimeForKey(const std::string& key) const {
  const uint64_t now = platform::env().monotonicNanos();
  MutexLock lock(impl_->mutex);
  auto it = impl_->startedAt.find(key);
  if (it == impl_->startedAt.end()) return std::nullopt;
  const uint64_t elapsed = now >= it->second ? now - it->second : 0;
  return static_cast<double>(elapsed) / 1e9;
}

void KVNTimer::endTimerForKey(const std::string& key) {
  MutexLock lock(impl_->mutex);
  impl_->startedAt.erase(key);
}

}  // namespace korvel
