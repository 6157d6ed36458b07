#include <korvel/network/URLCache.h>

#include <list>
#include <unordered_map>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Env.h>

using korvel::platform::env;
using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

struct URLCache::Impl {
  struct Entry {
    CachedURLResponse response;
    std::list<std::string>::iterator recency;
  };

  Impl(size_t maxEntries, size_t maxBytes) : maxEntries_(maxEntries), maxBytes_(maxBytes) {}

  void removeLocked(std::unordered_map<std::string, Entry>::iterator it) KORVEL_REQUIRES(mutex_) {
    bytes_ -= it->second.response.body.size();
    recency_.erase(it->second.recency);
    entries_.erase(it);
  }

  const size_t maxEntries_;
  const size_t maxBytes_;
  mutable Mutex mutex_;
  std::unordered_map<std::string, Entry> entries_ KORVEL_GUARDED_BY(mutex_);
  std::list<std::string> recency_ KORVEL_GUARDED_BY(mutex_);  // most recently used first
  size_t bytes_ KORVEL_GUARDED_BY(mutex_) = 0;
};

URLCache::URLCache(size_t maxEntries, size_t maxBytes)
    : impl_(std::make_unique<Impl>(maxEntries == 0 ? 1 : maxEntries, maxBytes)) {}

URLCache::~URLCache() = default;

URLCache& URLCache::sharedURLCache() {
  static URLCache* instance = new URLCache;
  return *instance;
}

std::optional<CachedURLResponse> URLCache::cachedResponseForURL(const std::string& url) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  auto it = d.entries_.find(url);
  if (it == d.entries_.end()) return std::nullopt;
  d.recency_.splice(d.recency_.begin(), d.recency_, it->second.recency);
  return it->second.response;
}

void URLCache::storeCachedResponse(const std::string& url, CachedURLResponse response) {
  if (response.storedAt == 0) response.storedAt = env().now();
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  if (auto it = d.entries_.find(url); it != d.entries_.end()) d.removeLocked(it);
  if (response.body.size() > d.maxBytes_) return;
  while (!d.recency_.empty() && (d.entries_.size() >= d.maxEntries_ ||
                                 d.bytes_ + response.body.size() > d.maxBytes_)) {
    d.removeLocked(d.entries_.find(d.recency_.back()));
  }
  d.recency_.push_front(url);
  d.bytes_ += response.body.size();
  d.entries_.emplace(url, Impl::Entry{std::move(response), d.recency_.begin()});
}

void URLCache::removeCachedResponseForURL(const std::string& url) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  if (auto it = d.entries_.find(url); it != d.entries_.end()) d.removeLocked(it);
}

void URLCache::removeAllCachedResponses() {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.entries_.clear();
  d.recency_.clear();
  d.bytes_ = 0;
}

size_t URLCache::count() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.entries_.size();
}

size_t URLCache::currentBytes() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.bytes_;
}

}  // namespace korvel
