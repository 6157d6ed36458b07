#include <korvel/network/URLCache.h>

#include <korvel/platform/Env.h>

namespace korvel::platform {

URLCache::URLCache(size_t maxEntries, size_t maxBytes)
    : maxEntries_(maxEntries == 0 ? 1 : maxEntries), maxBytes_(maxBytes) {}

URLCache& URLCache::sharedURLCache() {
  static URLCache* instance = new URLCache;
  return *instance;
}

std::optional<CachedURLResponse> URLCache::cachedResponseForURL(const std::string& url) {
  MutexLock lock(mutex_);
  auto it = entries_.find(url);
  if (it == entries_.end()) return std::nullopt;
  recency_.splice(recency_.begin(), recency_, it->second.recency);
  return it->second.response;
}

void URLCache::storeCachedResponse(const std::string& url, CachedURLResponse response) {
  if (response.storedAt == 0) response.storedAt = env().now();
  MutexLock lock(mutex_);
  if (auto it = entries_.find(url); it != entries_.end()) removeLocked(it);
  if (response.body.size() > maxBytes_) return;
  while (!recency_.empty() &&
         (entries_.size() >= maxEntries_ || bytes_ + response.body.size() > maxBytes_)) {
    removeLocked(entries_.find(recency_.back()));
  }
  recency_.push_front(url);
  bytes_ += response.body.size();
  entries_.emplace(url, Entry{std::move(response), recency_.begin()});
}

void URLCache::removeCachedResponseForURL(const std::string& url) {
  MutexLock lock(mutex_);
  if (auto it = entries_.find(url); it != entries_.end()) removeLocked(it);
}

void URLCache::removeAllCachedResponses() {
  MutexLock lock(mutex_);
  entries_.clear();
  recency_.clear();
  bytes_ = 0;
}

size_t URLCache::count() const {
  MutexLock lock(mutex_);
  return entries_.size();
}

size_t URLCache::currentBytes() const {
  MutexLock lock(mutex_);
  return bytes_;
}

void URLCache::removeLocked(std::unordered_map<std::string, Entry>::iterator it) {
  bytes_ -= it->second.response.body.size();
  recency_.erase(it->second.recency);
  entries_.erase(it);
}

}  // namespace korvel::platform
