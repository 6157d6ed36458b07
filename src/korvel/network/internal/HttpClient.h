// Minimal blocking HTTP GET over the system's HTTP stack (libcurl on Linux,
// WinHTTP on Windows), one reusable connection cache per
// thread (keep-alive between requests to the same host).
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace korvel::network::internal {

struct HttpResponse {
  long status = 0;                  // 0 when no response arrived
  std::string body;
  std::optional<std::string> retryAfter;  // the Retry-After header, when sent
  std::string error;                // transport error text when status is 0
};

HttpResponse httpGet(const std::string& url,
                     std::chrono::milliseconds timeout = std::chrono::seconds(15));

}  // namespace korvel::network::internal
