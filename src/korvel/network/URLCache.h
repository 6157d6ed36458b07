// The process-wide URL response cache: successful GET responses by URL, in
// memory, with the validators (ETag, Last-Modified) a later request can send
// to revalidate them.
//
// The configuration fetch uses it for conditional requests only: when a
// response for the URL is cached it sends If-None-Match / If-Modified-Since
// and, on "304 Not Modified", uses the cached body. A failed request never
// falls back to a cached body, so a broken endpoint is always noticed.
// removeAllCachedResponses() makes the next fetch an unconditional one.
//
// Bounded (entry count and total body bytes; the least recently used entry
// goes first). Any thread may call; the shared cache lives for the process.
#pragma once

#include <korvel/export.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace korvel {

struct KORVEL_EXPORT CachedURLResponse {
  long status = 200;
  std::string body;
  std::optional<std::string> etag;
  std::optional<std::string> lastModified;
  double storedAt = 0;  // Env::now() when stored
};

class KORVEL_EXPORT URLCache {
 public:
  static constexpr size_t kDefaultMaxEntries = 64;
  static constexpr size_t kDefaultMaxBytes = 4 * 1024 * 1024;

  explicit URLCache(size_t maxEntries = kDefaultMaxEntries, size_t maxBytes = kDefaultMaxBytes);
  ~URLCache();
  URLCache(const URLCache&) = delete;
  URLCache& operator=(const URLCache&) = delete;

  // The process's cache; lives for the process.
  static URLCache& sharedURLCache();

  std::optional<CachedURLResponse> cachedResponseForURL(const std::string& url);
  // Stores (or replaces) the response for url. A body larger than the whole
  // cache is not stored.
  void storeCachedResponse(const std::string& url, CachedURLResponse response);
  void removeCachedResponseForURL(const std::string& url);
  void removeAllCachedResponses();

  size_t count() const;
  size_t currentBytes() const;

 private:
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace korvel
