// The configuration document's conditional GET: sent with the cached
// response's validators, not following redirects, the body capped.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <korvel/network/URLCache.h>

namespace korvel::network::internal {

// A configuration document is small; anything larger is not one.
constexpr size_t kMaxConfigurationBytes = 1024 * 1024;

struct FetchResult {
  long status = 0;  // 0: no answer
  std::string body;
  std::optional<std::string> etag;
  std::optional<std::string> lastModified;
  std::string error;
  bool tooLarge = false;
};

// GET url with If-None-Match and If-Modified-Since from cached (when it has
// them); http and https only, redirects not followed, at most
// kMaxConfigurationBytes of body ("the response is larger than 1 MiB").
FetchResult fetchConfiguration(const std::string& url, const std::optional<CachedURLResponse>& cached,
                               std::chrono::milliseconds timeout);

}  // namespace korvel::network::internal
