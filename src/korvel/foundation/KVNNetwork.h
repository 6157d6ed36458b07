// The foundation library's request description and the background request
// executor interface.
//
// A KVNNetworkRequest describes one request; its URL is not fixed when the
// request is made. The executor calls the endpoint builder when it is about to
// send, so the URL reflects the configuration as it is then.
//
// Request settings and what executors make of them:
//   priority             higher values are sent first; equal priorities keep
//                        submission order. 1 is the normal priority.
//   configurationPolicy  0  send as soon as possible;
//                        1  hold the request until the configuration says it
//                           is `configured`;
//                        2  hold the request until the configuration has a
//                           non-empty beacon endpoint and an inid.
//   backgroundSessionRetryCount
//                        how many times a failed attempt is retried (so at
//                        most count + 1 attempts in all). The durable
//                        executor does not count an attempt that could not
//                        connect at all (offline, refused): such a request
//                        waits for the network instead of being given up.
//
// Durable executors keep requests across process restarts. A closure cannot
// be stored, so a request that wants to survive carries a restoration
// payload: a kind naming a registered restorer, and an encoder writing the
// bytes the restorer turns back into an equivalent request. The encoder runs
// only when an executor persists the request, and appends the bytes to the
// buffer it is given (a durable executor hands it the stored frame itself,
// so the payload is never copied on its way to the journal).
#pragma once

#include <korvel/export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace korvel {

enum class KVNNetworkRequestHTTPMethod { GET, POST };
inline constexpr KVNNetworkRequestHTTPMethod KVNNetworkRequestHTTPMethodGET =
    KVNNetworkRequestHTTPMethod::GET;

class KORVEL_EXPORT KVNEndpoint {
 public:
  explicit KVNEndpoint(std::string urlString) : urlString_(std::move(urlString)) {}
  const std::string& urlString() const { return urlString_; }
  friend bool operator==(const KVNEndpoint&, const KVNEndpoint&) = default;

 private:
  std::string urlString_;
};

class KORVEL_EXPORT KVNNetworkRequest {
 public:
  using EndpointBuilder = std::function<std::optional<KVNEndpoint>()>;
  // Appends the payload's bytes to out, after what out holds already.
  using PayloadEncoder = std::function<void(std::string& out)>;

  KVNNetworkRequestHTTPMethod httpMethod() const { return httpMethod_; }
  void setHttpMethod(KVNNetworkRequestHTTPMethod method) { httpMethod_ = method; }

  int backgroundSessionRetryCount() const { return retryCount_; }
  void setBackgroundSessionRetryCount(int count) { retryCount_ = count; }

  int priority() const { return priority_; }
  void setPriority(int priority) { priority_ = priority; }

  int configurationPolicy() const { return configurationPolicy_; }
  void setConfigurationPolicy(int policy) { configurationPolicy_ = policy; }

  const EndpointBuilder& endpointBuilderBlock() const { return endpointBuilder_; }
  void setEndpointBuilderBlock(EndpointBuilder builder) { endpointBuilder_ = std::move(builder); }

  // Runs the endpoint builder; nothing when there is none or it gives none.
  std::optional<KVNEndpoint> buildEndpoint() const {
    return endpointBuilder_ ? endpointBuilder_() : std::nullopt;
  }

  const std::string& restorationKind() const { return restorationKind_; }
  const PayloadEncoder& restorationPayloadEncoder() const { return payloadEncoder_; }
  // The payload in a string of its own; nothing without an encoder.
  std::optional<std::string> restorationPayload() const {
    if (!payloadEncoder_) return std::nullopt;
    std::string payload;
    payloadEncoder_(payload);
    return payload;
  }
  void setRestorationPayload(std::string kind, PayloadEncoder encoder) {
    restorationKind_ = std::move(kind);
    payloadEncoder_ = std::move(encoder);
  }

 private:
  KVNNetworkRequestHTTPMethod httpMethod_ = KVNNetworkRequestHTTPMethod::GET;
  int retryCount_ = 0;
  int priority_ = 1;
  int configurationPolicy_ = 0;
  EndpointBuilder endpointBuilder_;
  std::string restorationKind_;
  PayloadEncoder payloadEncoder_;
};

// Turns a stored payload back into a request; nothing when it cannot.
using KVNRequestRestorer = std::function<std::optional<KVNNetworkRequest>(std::string_view)>;

// Process-wide registry of restorers by kind.
class KORVEL_EXPORT KVNRequestRestorers {
 public:
  static void registerRestorer(const std::string& kind, KVNRequestRestorer restorer);
  static std::optional<KVNNetworkRequest> restore(const std::string& kind,
                                                  std::string_view payload);
};

class KORVEL_EXPORT KVNNetworkBackgroundRequestExecutor {
 public:
  virtual ~KVNNetworkBackgroundRequestExecutor() = default;

  // The identifier given at construction ("<bundle id>.backgroundBeacons").
  virtual const std::string& backgroundSessionIdentifier() const = 0;

  // Queues the request; returns at once. Safe from any thread. Never
  // throws: it is on the path of every report call, so an executor that
  // cannot queue a request (out of memory) logs and drops it.
  virtual void executeRequest(KVNNetworkRequest request) noexcept = 0;

  // Waits until every queued request has been delivered or given up, or the
  // deadline passes; true when nothing is left pending. While paused it does
  // not wait for held requests: false at once when any is queued.
  virtual bool flush(std::chrono::milliseconds deadline) = 0;

  // Holds every request (paused) or lets them go again; queued requests
  // stay queued and new ones are still accepted. An executor that cannot
  // hold requests ignores it. Safe from any thread.
  virtual void setPaused(bool /*paused*/) {}

  // Drops every request not yet handed to the network, from memory and from
  // whatever the executor stored, so none of them is ever sent, in this run
  // or a later one. A request already on the wire may still arrive. Returns
  // how many were dropped; an executor that keeps nothing returns 0. Safe
  // from any thread.
  virtual size_t purge() { return 0; }
};

// Whether the current configuration lets a request with this policy go out.
KORVEL_EXPORT bool KVNConfigurationPolicySatisfied(int configurationPolicy);

}  // namespace korvel
