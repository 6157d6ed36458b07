// The collector's store: every request it receives, decoded, checked against
// what the library makes and kept in SQLite (in memory, or in a file), so
// that a developer's page and a host's CI can ask what arrived.
//
// Writes are queued and committed in batches by one writer thread; every
// query first waits until what was queued before it is written, so a query
// made after a beacon arrived always sees it.
//
// Each beacon gets a verdict:
//   good   nothing wrong
//   retry  a uuid already received with the same event and parameters (a
//          resend after a lost answer: counted and shown, not an error)
//   bad    one reason or more (unknown event, missing key, malformed
//          percent-encoding, creation time out of range, a uuid reused
//          with other parameters, an inid or app version that differs
//          from the session's earlier beacons)
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include <korvel/foundation/internal/Mutex.h>

struct sqlite3;

namespace korvel::tools {

struct CollectedBeacon;

// One request as it arrived, before it is checked.
struct ArrivedRequest {
  int64_t receivedMs = 0;  // milliseconds since 1970
  int status = 0;          // the collector's answer; 0 when dropped
  std::string target;      // path and query as requested
};

// What a list or count selects. Unset members select everything.
struct BeaconFilter {
  std::optional<std::string> event;
  std::optional<std::string> type;  // the "type" parameter
  std::optional<std::string> session;
  std::optional<std::string> uuid;
  // As read from the beacon's path (see Options::endpointTemplate).
  std::optional<std::string> inid;
  std::optional<std::string> appVersion;
  std::optional<std::string> verdict;  // "good", "retry" or "bad"
  std::optional<bool> good;            // good and retry, or bad only
  // key=value pairs every selected beacon holds (a key alone: holds the key).
  std::vector<std::pair<std::string, std::optional<std::string>>> params;
  std::optional<int64_t> sinceMs;  // received at or after
  std::optional<int64_t> untilMs;  // received before
  std::optional<int64_t> before;   // id below (the next page of a newest-first list)
  std::optional<int64_t> after;    // id above (oldest first: what came since)
  int limit = 100;

  static constexpr int kMaxLimit = 1000;

  // From URL query items: event, type, session (or sessionid), uuid,
  // inid and appversion (the path's), verdict, good (true/false), param (key=value or key; repeatable, and
  // any other item is taken as one), since, until (ms), before, after,
  // limit. nullopt with the reason in *error for a value that does not
  // parse.
  static std::optional<BeaconFilter> fromQuery(
      const std::multimap<std::string, std::string>& items, std::string* error);
};

class BeaconStore {
 public:
  struct Options {
    // Empty: in memory. A file is created 0600 if it does not exist.
    std::filesystem::path file;
    // How the beacon endpoint's path is laid out; "{inid}" and
    // "{appversion}" are read from the segments at their places (the
    // event is the segment after the template).
    std::string endpointTemplate = "/b/{inid}/{appversion}/{devicemodel}";
    // Creation times further ahead of the arrival than this are bad, and
    // so are those older than maxAge.
    std::chrono::seconds maxFutureSkew{300};
    std::chrono::seconds maxAge{std::chrono::hours(24 * 30)};
    // Events the host's web pages send through web-initiated beacons (the
    // library lets a page name its own event); any other event is bad.
    std::set<std::string> webEvents;
    // The oldest beacons are removed beyond this many.
    int64_t maxBeacons = 2'000'000;
  };

  // Opens the store; nullptr with the reason in *error when SQLite cannot
  // open or create it.
  static std::shared_ptr<BeaconStore> open(Options options, std::string* error);
  ~BeaconStore();
  BeaconStore(const BeaconStore&) = delete;
  BeaconStore& operator=(const BeaconStore&) = delete;

  // Queues one request; checked and written by the writer thread.
  void add(ArrivedRequest request);
  // Waits until everything queued before the call is written.
  void sync();

  // Newest first (oldest first when filter.after is set). Each beacon as
  // {"id","received","status","event","type","sessionid","uuid","created",
  //  "inid","appversion","verdict","reasons":[...],"retryof","target",
  //  "params":[[k,v],...]}; "next" is the id to pass as "before" for the
  // following page, null at the end.
  nlohmann::ordered_json list(const BeaconFilter& filter);
  int64_t count(const BeaconFilter& filter);
  // {"total","good","retry","bad","events":{event:{"total","types":{type:n}}}}
  nlohmann::ordered_json counts();
  // Every record of that uuid (the first and its resends), oldest first.
  nlohmann::ordered_json byUUID(const std::string& uuid);
  // Sessions, newest first: {"sessionid","first","last","beacons","bad"}.
  nlohmann::ordered_json sessions(int limit);
  // One session's beacons in arrival order, and its page views with their
  // durations: {"sessionid","beacons":[...],"pageviews":[{"id","screen",
  // "duration" (seconds, as sent), "received"}]}.
  nlohmann::ordered_json session(const std::string& sessionID);
  // Removes everything; the number of beacons removed. Ids are not reused.
  int64_t reset();
  // How many resets there were (a live page starts again when it changes).
  uint64_t resets() const;

  // The id of the newest written beacon (0 when none).
  int64_t lastID() const;
  // Waits until a beacon newer than id is written, or the timeout.
  void waitNewerThan(int64_t id, std::chrono::milliseconds timeout) const;

  // The events the library makes (from its beacon types), and the web ones.
  const std::set<std::string>& knownEvents() const { return knownEvents_; }

 private:
  explicit BeaconStore(Options options);
  bool prepare(std::string* error);
  void writerLoop();
  void write(const ArrivedRequest& request) KORVEL_REQUIRES(dbMutex_);
  nlohmann::ordered_json select(const std::string& where,
                                const std::vector<std::string>& bindings,
                                const std::string& tail);

  Options options_;
  std::set<std::string> knownEvents_;
  std::vector<std::string> templateSegments_;

  korvel::foundation::internal::Mutex dbMutex_;  // the connection is used by one thread at a time
  sqlite3* db_ KORVEL_PT_GUARDED_BY(dbMutex_) = nullptr;
  struct Writes;
  std::unique_ptr<Writes> writes_ KORVEL_PT_GUARDED_BY(dbMutex_);

  mutable korvel::foundation::internal::Mutex queueMutex_;
  mutable korvel::foundation::internal::CondVar queueChanged_;
  std::vector<ArrivedRequest> queue_ KORVEL_GUARDED_BY(queueMutex_);
  uint64_t queued_ KORVEL_GUARDED_BY(queueMutex_) = 0;
  uint64_t written_ KORVEL_GUARDED_BY(queueMutex_) = 0;
  int64_t lastID_ KORVEL_GUARDED_BY(queueMutex_) = 0;
  uint64_t resets_ KORVEL_GUARDED_BY(queueMutex_) = 0;
  bool stopping_ KORVEL_GUARDED_BY(queueMutex_) = false;
  std::thread writer_;
};

}  // namespace korvel::tools
