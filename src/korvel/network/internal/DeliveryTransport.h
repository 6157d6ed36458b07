// How the durable executor puts one request on the wire, and the rules it
// applies to the answer: what counts as delivered, what is worth another
// attempt, how long to wait before it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace korvel::network::internal {

struct DeliveryResponse {
  long status = 0;             // HTTP status; 0 when no answer arrived
  bool reachedServer = false;  // false when no connection could be made at all
  std::optional<std::string> retryAfter;  // the Retry-After header, as sent
  std::string error;           // transport error text when status is 0
};

// One request for a transport to send; url stays valid until the feed is
// told its answer (DeliveryFeed::done with the same tag).
struct DeliveryJob {
  uint64_t tag = 0;
  const std::string* url = nullptr;
};

// Where a transport takes the requests it sends and gives their answers.
// Called on the thread that runs DeliveryTransport::send, one call at a time.
class DeliveryFeed {
 public:
  // The next request to send; false when none is to be sent now (it may be
  // asked again after any answer).
  virtual bool next(DeliveryJob& job) = 0;
  // The answer to the request handed out with tag.
  virtual void done(uint64_t tag, DeliveryResponse response) = 0;
  // After next() said false: whether it stopped early, with more to look
  // at, so that the transport tends the requests it has on the wire first;
  // it should ask again as soon as it has, without waiting for an answer.
  virtual bool askAgainSoon() const { return false; }

 protected:
  ~DeliveryFeed() = default;
};

// Sends GET requests; one per sender thread, so it may keep connections
// open between requests (keep-alive) without locking.
class DeliveryTransport {
 public:
  virtual ~DeliveryTransport() = default;
  virtual DeliveryResponse get(const std::string& url) = 0;

  // How many requests send() may have on the wire at once.
  virtual size_t parallelism() const { return 1; }

  // Sends what the feed hands out, up to parallelism() requests at once,
  // telling it each answer as it arrives; returns once the feed has nothing
  // more and no request is on the wire. This one sends one at a time with
  // get().
  virtual void send(DeliveryFeed& feed) {
    DeliveryJob job;
    while (feed.next(job)) {
      DeliveryResponse response = get(*job.url);
      feed.done(job.tag, std::move(response));
    }
  }
};

// Makes a worker's transport. When cancelled turns true, a request in
// progress should end soon (the executor is shutting down).
using DeliveryTransportFactory =
    std::function<std::unique_ptr<DeliveryTransport>(const std::atomic<bool>& cancelled)>;

struct TransportOptions {
  std::chrono::milliseconds timeout{30'000};
  std::chrono::milliseconds connectTimeout{10'000};
  // Requests on the wire at once (send), each with a connection of its
  // own over HTTP/1.1, or sharing one where the server speaks HTTP/2.
  size_t transfers = 1;
};

// The system's HTTP stack. On Linux, libcurl's multi interface on one
// thread: a pool of easy handles, reused, whose connections to a host stay
// open between requests (keep-alive), options.transfers of them on the wire
// at once. On Windows, WinHTTP (one session per transport, one request at a
// time through get(); the executor runs more senders under a backlog).
// Redirects are followed (at most 5), only to http and https URLs.
std::unique_ptr<DeliveryTransport> makeSystemTransport(const std::atomic<bool>& cancelled,
                                                       TransportOptions options = {});

enum class DeliveryVerdict {
  Delivered,       // 2xx
  Retry,           // 408, 429, 5xx, a timeout or a broken exchange
  RetryUncounted,  // no connection could be made: waiting for the network
                   // does not use up the request's attempts
  Drop,            // any other answer (other 4xx, 3xx without a location, ...)
};

DeliveryVerdict classifyDelivery(const DeliveryResponse& response);

// A Retry-After value: delta-seconds, or an HTTP-date (IMF-fixdate) taken
// relative to nowSecondsSince1970 (a date in the past gives zero). Nothing
// when the value is neither.
std::optional<std::chrono::milliseconds> parseRetryAfter(std::string_view value,
                                                         double nowSecondsSince1970);

// The wait before retry number attempt (1 for the first retry): the
// exponential step min(maxDelay, base * 2^(attempt-1)) with "equal jitter",
// half of it fixed and half scaled by jitter in [0, 1). Spreads retries of
// many clients without ever retrying sooner than half the step.
std::chrono::milliseconds retryDelay(int attempt, std::chrono::milliseconds base,
                                     std::chrono::milliseconds maxDelay, double jitter);

}  // namespace korvel::network::internal
