// A beacon collector on the loopback interface: accepts the library's GET
// beacons, decodes each one (event = last path component, query items in
// order) and keeps or hands it on. It can misbehave on purpose (fail, delay
// or drop the first requests) so delivery can be tested against it.
//
// Used by the korvel-collector tool, the demo, the integration tests and the
// delivery benchmark; one instance serves any number of connections.
#pragma once

#include <chrono>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <korvel/foundation/internal/Mutex.h>

namespace korvel::tools {

class BeaconStore;
class ConfigurationEndpoint;

struct CollectedBeacon {
  std::string event;  // last path component, decoded
  std::string path;   // the path as requested, without the query
  std::vector<std::pair<std::string, std::string>> params;  // decoded, in order
  // Percent escapes that were not one (a "%" without two hex digits after
  // it), as they appeared; they are kept undecoded.
  std::vector<std::string> malformed;

  std::optional<std::string> value(std::string_view key) const;
  // {"event":...,"path":...,"params":[[k,v],...]} on one line.
  std::string toJsonLine() const;

  // Decodes a request target ("/b/x/userevent?a=1&b=2"): percent escapes in
  // path and query, "+" as a space in the query.
  static CollectedBeacon decode(std::string_view target);
};

// One request as it arrived, whatever the answer.
struct CollectedRequest {
  std::chrono::steady_clock::time_point at;
  int status = 0;  // 0 when the connection was dropped
  std::string target;
};

class BeaconCollector {
 public:
  struct Options {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: an ephemeral port
    // The first dropFirst requests are cut off (the connection closes before
    // a complete answer), the next failFirst get failStatus (with a
    // Retry-After header when retryAfter is set); every request waits delay
    // first.
    int dropFirst = 0;
    int failFirst = 0;
    int failStatus = 500;
    std::optional<std::string> retryAfter;
    // Past those, every failEvery-th request (0: none) gets failStatus too.
    int failEvery = 0;
    std::chrono::milliseconds delay{0};
    // Keep accepted beacons in memory (beacons(), waitForBeacons()).
    bool keepBeacons = true;
    // Called for every accepted beacon, one call at a time.
    std::function<void(const CollectedBeacon&)> onBeacon;
    // When set, GET /configuration/v1/configure is answered by it (not
    // counted as a beacon; see ConfigurationEndpoint.h).
    std::shared_ptr<ConfigurationEndpoint> configuration;
    // When set, every request is checked and kept in it, and the inspector
    // (its page and JSON API, see InspectorRoutes.h) is served on the same
    // port: "/" and "/api/..." are then not taken as beacons.
    std::shared_ptr<BeaconStore> store;
    // Its threads run below normal CPU priority: a collector that shares the
    // cores of the program it measures stands in for a server elsewhere.
    bool backgroundPriority = false;
  };

  BeaconCollector();
  explicit BeaconCollector(Options options);
  ~BeaconCollector();
  BeaconCollector(const BeaconCollector&) = delete;
  BeaconCollector& operator=(const BeaconCollector&) = delete;

  // Binds and starts serving; false when the address cannot be bound.
  bool start();
  void stop();
  int port() const { return port_; }
  // "http://127.0.0.1:<port>"
  std::string baseURL() const;

  // Changes the misbehaviour for the requests that come from now on.
  void failNext(int count, int status, std::optional<std::string> retryAfter = std::nullopt);
  void dropNext(int count);

  std::vector<CollectedBeacon> beacons() const;
  std::vector<CollectedRequest> requests() const;
  size_t beaconCount() const;
  size_t requestCount() const;
  // Waits until at least count beacons were accepted; false at the deadline.
  bool waitForBeacons(size_t count, std::chrono::milliseconds deadline) const;

 private:
  struct Server;
  // What a beacon request is answered: dropped, or its status (204, or a
  // failure with its Retry-After).
  struct Answer {
    bool drop = false;
    int status = 204;
    std::optional<std::string> retryAfter;
  };

  // Decides a beacon request's answer, stores and counts it and hands it on.
  Answer answerBeacon(const std::string& target);

  Options options_;
  std::unique_ptr<Server> server_;
  std::thread thread_;
  int port_ = 0;
  std::atomic<bool> stopping_{false};

  mutable korvel::foundation::internal::Mutex mutex_;
  mutable korvel::foundation::internal::CondVar arrived_;
  korvel::foundation::internal::Mutex callbackMutex_;  // held while onBeacon runs: one call at a time
  int dropLeft_ KORVEL_GUARDED_BY(mutex_) = 0;
  int failLeft_ KORVEL_GUARDED_BY(mutex_) = 0;
  int failStatus_ KORVEL_GUARDED_BY(mutex_) = 500;
  std::optional<std::string> retryAfter_ KORVEL_GUARDED_BY(mutex_);
  std::vector<CollectedBeacon> beacons_ KORVEL_GUARDED_BY(mutex_);
  size_t beaconCount_ KORVEL_GUARDED_BY(mutex_) = 0;
  // The smallest count a waitForBeacons waits for; SIZE_MAX when none.
  mutable size_t wakeAt_ KORVEL_GUARDED_BY(mutex_) = SIZE_MAX;
  size_t requestCount_ KORVEL_GUARDED_BY(mutex_) = 0;
  uint64_t answered_ KORVEL_GUARDED_BY(mutex_) = 0;  // requests past the first failures, for failEvery
  std::vector<CollectedRequest> requests_ KORVEL_GUARDED_BY(mutex_);
};

}  // namespace korvel::tools
