// GET requests over WinHTTP, Windows' own HTTP stack: what the delivery
// transport, httpGet and the configuration fetch share on Windows.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvel::network::internal {

struct WinHttpRequest {
  std::chrono::milliseconds timeout{30'000};         // sending and each wait for data
  std::chrono::milliseconds connectTimeout{10'000};  // name resolution and connection
  int maxRedirects = 5;                              // 0: redirects are answers
  std::vector<std::string> headers;                  // "Name: value"
  bool keepBody = false;
  size_t maxBody = SIZE_MAX;  // beyond it the exchange ends, tooLarge set
  // When it turns true the exchange in progress is abandoned.
  const std::atomic<bool>* cancelled = nullptr;
};

// A GET for a small document whose body is wanted (httpGet, the
// configuration fetch): `timeout` for connecting and for each wait, and a
// redirect is the answer, as libcurl does unless told otherwise.
WinHttpRequest documentRequest(std::chrono::milliseconds timeout);

struct WinHttpResponse {
  long status = 0;             // 0 when no answer arrived
  bool reachedServer = false;  // false: no connection was made (or cancelled)
  std::string error;           // when status is 0
  std::string body;
  bool tooLarge = false;
  std::optional<std::string> retryAfter;
  std::optional<std::string> etag;
  std::optional<std::string> lastModified;
};

// One WinHTTP session: connections to a host stay open between requests.
// Used by one thread at a time.
class WinHttpClient {
 public:
  WinHttpClient();
  ~WinHttpClient();
  WinHttpClient(const WinHttpClient&) = delete;
  WinHttpClient& operator=(const WinHttpClient&) = delete;

  WinHttpResponse get(const std::string& url, const WinHttpRequest& request);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace korvel::network::internal
