// The background request executor that delivers for real and loses nothing.
//
// Caller's thread (executeRequest): the request's restoration payload is
// encoded and copied as one framed record into the memory-mapped journal
// (no fsync, no transaction), then handed to the workers through a hand-off
// list with a lock of its own, held for one push: a report call never waits
// for the queue's lock while workers or the writer hold it. The next thread
// that takes the queue's lock moves the list into the queue; a report call
// takes that lock only to wake a worker that sleeps with nothing to do. From
// the moment executeRequest returns the request survives a kill of the
// process at any instant; a power loss loses at most the last sync interval.
//
// What waits in memory is an index, not the request: id, priority, policy,
// attempts, age and where it waits. A stored request is read back from the
// journal and restored (KVNReloadRequest, which announces no creation
// again) when its turn to be sent comes, so memory stays flat with
// the backlog. Held whole are only requests without a restoration payload
// and, while nothing backs off, the ones about to go out, as long as the
// ready ones' stored frames come to no more than 128 KiB (the first of a
// burst).
//
// Senders (one thread whose libcurl transport keeps up to
// Options::concurrency requests on the wire through keep-alive
// connections; with a transport that sends one at a time, one thread while
// little is sent, up to Options::concurrency while a backlog waits, the
// extra ones ending after Options::idleSenderTimeout with nothing to send)
// take requests by priority (higher first, then submission
// order), hold back those whose configuration policy is not met, call the
// endpoint builder just before sending (so the URL reflects the configuration
// as it is then) and send one GET each.
//
// Answers: 2xx is delivered. 408, 429, 5xx, timeouts and broken exchanges
// are retried up to the request's backgroundSessionRetryCount; when the
// retries are used up the request is dropped with a log line. Other answers
// (400, 404, ...) drop the request at once, with a log line. When no
// connection can be made at all (offline, refused, unresolvable) the request
// waits without using up its retries: an offline device keeps its beacons
// until it is back or they exceed the age cap.
//
// Backoff is per endpoint host (scheme, host and port), shared by every
// request to it: after a refused connection, a timeout, a 5xx, 408 or 429,
// nothing goes to that host before its next attempt time, which grows
// exponentially with jitter (Options::retryBaseDelay doubling up to
// maxRetryDelay) and is never sooner than a Retry-After header asks
// (seconds or HTTP-date, up to maxRetryAfter). Then one request goes as a
// probe while the others wait; when it gets an answer the host is healthy
// again and its backlog goes out at full speed. A Retry-After is kept in the
// store's directory and honoured after a restart. While a host backs off,
// nothing wakes a sender but its probe time or a new report (whose request
// is held with the others when it is for that host). Requests whose
// endpoint cannot be built retry on their own, with the same delays.
//
// Size: a request whose restoration payload or URL exceeds
// Options::maxRequestBytes (64 KiB unless set) is dropped at once, with a log
// line and no retries: no collector takes a GET of that size.
//
// Writer thread: every Options::syncInterval it syncs the journal (group
// sync), records which requests are finished, compacts, applies the age cap
// and logs what the caps dropped, for as long as anything is unsynced or
// left to do; then it sleeps with no timer until work arrives (the age cap
// and the clock file wait for that next sync). Idle, the executor wakes
// the processor for nothing. At start it first restores the requests an
// earlier run left through KVNRequestRestorers::restore(kind, payload)
// (restoring a beacon decodes its record, which posts its creation
// notification once more) and queues them ahead of newer ones. A request that
// was delivered just before a kill may be sent again after the restart; it
// carries the same payload, so a beacon keeps its "clientbeaconuuid".
// Restored requests no restorer knows are kept (not sent) until the age cap
// removes them.
//
// Requests without a restoration payload cannot be stored: they are delivered
// the same way but live in memory only and are lost with the process.
//
// Bounds: at most Options::maxStoredRequests waiting requests, at most
// Options::maxStoredBytes of stored records (the oldest are dropped past
// either) and none older than Options::maxAge; each drop is counted in a log
// line.
//
// Age. A request's age is never read off the wall clock alone, which the
// user or a time service may set forward or back at any moment:
//  - In the run that made it, its age is measured on the monotonic clock
//    (Env::monotonicNanos): setting the wall clock forward drops nothing,
//    and requests made while it was behind are not taken for old once it is
//    corrected.
//  - Across runs only a stamp on disk can tell. Records are stamped with the
//    store's clock: the wall clock, but never earlier than the store's clock
//    at this run's start (kept in the directory's "clock" file, written at
//    a sync at most once a minute and at the end of a run) plus the
//    monotonic time since. It never runs backwards across runs, so a wall clock that was
//    behind (a device without a battery-backed clock that boots in 1970, a
//    clock set back) neither stamps records as older than they are nor makes
//    earlier runs' records look new again: each run's uptime still counts
//    towards their age, so they cannot be kept forever. A restored record's
//    age is the store's clock at restore minus its stamp, at least zero; from
//    then on it ages on the monotonic clock. The one case no clock can tell
//    apart is a wall clock that is ahead across a restart from a device that
//    was really off that long: both are taken for time that passed. A log line about a dropped request that repeats is written once, then
// at most once per second with the number of repeats. A journal or store that cannot be read is set aside with a
// log line and a fresh one started; when the directory cannot be used at all
// the executor still delivers, from memory only, and says so in the log.
//
// Store: the journal itself (segments plus delivered marks, compacted). An
// SQLite store was built and measured beside it on the same machine: the
// report call cost the same (the caller only appends to the journal in
// both); the journal kept each 25-parameter beacon in about 90% of the bytes
// SQLite needed (765 against 848), delivered faster (26.7k against 24.3k
// beacons/s) and does one fdatasync per sync interval where SQLite moved
// every record a second time through its WAL. It was removed so that no host
// links SQLite for a comparison.
//
// Thread safety: executeRequest, flush, setPaused and stats may be called
// from any thread. The destructor stops the workers (a transfer in progress
// is abandoned, and sent again at the next start) and syncs what is stored;
// nothing stored is lost by destroying the executor.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <korvel/network/internal/DeliveryTransport.h>
#include <korvel/foundation/KVNNetwork.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Logging.h>
#include <korvel/network/internal/FlatIndex.h>
#include <korvel/network/internal/RequestStore.h>

namespace korvel::network::internal {

class DurableRequestExecutor final : public KVNNetworkBackgroundRequestExecutor {
 public:
  // What became of requests, for an observer.
  struct Event {
    enum class Outcome : uint8_t { Delivered, WillRetry, Dropped };
    Outcome outcome = Outcome::Delivered;
    std::string reason;  // the answer ("HTTP 204", "HTTP 404", a transport error) or the cap
    // The beacon's uuid (its URL's clientbeaconuuid) when the request was
    // sent; empty for the caps' and the age's drops.
    std::string uuid;
    uint64_t count = 1;  // requests it stands for (the caps' drops come summed)
  };

  struct Options {
    // Empty: defaultDirectory(sessionIdentifier).
    std::filesystem::path directory;
    size_t maxStoredRequests = 10'000;
    // Bytes of stored records (each as framed in the journal).
    uint64_t maxStoredBytes = 64ull << 20;
    // A request whose payload or URL is longer is dropped at once.
    size_t maxRequestBytes = 64 * 1024;
    std::chrono::seconds maxAge = std::chrono::hours(24 * 7);
    std::chrono::milliseconds retryBaseDelay{1'000};
    std::chrono::milliseconds maxRetryDelay{5 * 60'000};
    std::chrono::milliseconds maxRetryAfter{60 * 60'000};
    // Requests on the wire at once at most. libcurl's transport carries
    // them all on one sender thread; with a transport that sends one at a
    // time, one sender runs while little is sent, more (up to this many)
    // start while a backlog waits, and each extra one ends after
    // idleSenderTimeout with nothing to send.
    int concurrency = 4;
    std::chrono::milliseconds idleSenderTimeout{5'000};
    // The group-sync window: the most a power loss can take.
    std::chrono::milliseconds syncInterval{200};
    std::chrono::milliseconds requestTimeout{30'000};
    uint64_t segmentBytes = 1u << 20;
    // Queue and store but do not send until setPaused(false).
    bool startPaused = false;
    // Empty: the system's HTTP stack (makeSystemTransport).
    DeliveryTransportFactory transport;
    // Told what became of each request that was sent (delivered, will be
    // retried, dropped) and of those the caps and the age dropped; called on
    // a worker or the writer thread, without the executor's locks. Purged
    // requests are not reported.
    std::function<void(const Event&)> observer;
  };

  struct Stats {
    uint64_t delivered = 0;
    uint64_t droppedByServer = 0;  // refused (4xx) or retries used up
    uint64_t droppedOverCap = 0;
    uint64_t droppedTooOld = 0;
    uint64_t droppedOversize = 0;
    uint64_t leftUnreadable = 0;  // could not be read back: left in the store for the next start
    uint64_t attempts = 0;
    uint64_t restored = 0;
    uint64_t waiting = 0;  // queued, in flight or between retries
    // False while requests cannot be stored (no usable directory, or
    // appends failing): they are kept in memory only.
    bool durable = false;
    size_t hostsBackingOff = 0;
    size_t senders = 0;  // sender threads running
    uint64_t syncs = 0;  // the writer's syncs so far
    // The writer sleeps with no timer: nothing is unsynced and no duty is
    // left until work arrives.
    bool writerIdle = false;
  };

  // $XDG_DATA_HOME (or ~/.local/share), then "korvel/<session identifier>".
  static std::filesystem::path defaultDirectory(const std::string& sessionIdentifier);

  explicit DurableRequestExecutor(std::string sessionIdentifier);
  DurableRequestExecutor(std::string sessionIdentifier, Options options);
  ~DurableRequestExecutor() override;
  DurableRequestExecutor(const DurableRequestExecutor&) = delete;
  DurableRequestExecutor& operator=(const DurableRequestExecutor&) = delete;

  const std::string& backgroundSessionIdentifier() const override { return identifier_; }
  void executeRequest(KVNNetworkRequest request) noexcept override;
  // Waits for every request to be delivered or given up, and for the store
  // to have recorded it; false when the deadline came first.
  bool flush(std::chrono::milliseconds deadline) override;

  void setPaused(bool paused) override;
  // Also waits for the requests an earlier run stored to be restored (so
  // they are dropped too) and for the store to record the drop.
  size_t purge() override KORVEL_EXCLUDES(mutex_);
  // Not const: it first queues what report calls handed over, so the
  // figures include them.
  Stats stats() KORVEL_EXCLUDES(mutex_);
  const std::filesystem::path& directory() const { return directory_; }
  // Why the store could not be opened (empty when it was, or was not asked
  // for); set once by the constructor.
  const std::string& storeFailure() const { return storeFailure_; }
  const Options& options() const { return options_; }

  // Syncs and compacts the store now and gives its figures (measurements,
  // tests); nothing when it is not done before the deadline or there is no
  // store.
  std::optional<StoreStats> syncStore(std::chrono::milliseconds deadline);

 private:
  enum class State : uint8_t { Ready, Waiting, InFlight, Parked, Held };

  // One waiting request: its index entry, 24 bytes. The request itself is
  // in whole_ when kept in memory, else read back from the journal when sent.
  struct Entry {
    // Monotonic milliseconds (Env::monotonicNanos) when it was made; for a
    // restored request, now minus the age its stamp gives. 48 bits hold
    // some 4,000 years either way.
    int64_t bornMillis : 48 = 0;
    int64_t host : 16 = -1;  // index into hosts_ once its URL was built
    int32_t priority = 1;
    uint32_t bytes = 0;     // its stored record
    int16_t retryCount = 0;
    int16_t failures = 0;   // counted against retryCount
    int16_t backoffSteps = 0;  // for requests without a host
    State state = State::Ready;
    uint8_t policy : 2 = 0;  // its bucket: 0, 1 or 2
    bool durable : 1 = false;
    // Purged while on the wire: forgotten when its attempt ends, never
    // queued again.
    bool cancelled : 1 = false;
    // Handed over after the store refused it (a full disk, the folder
    // gone): the writer stores it once it can.
    bool refused : 1 = false;
  };
  // A backlog of 100,000 costs this times 100,000, and more: keep it small.
  static_assert(sizeof(Entry) == 24);
  using Entries = FlatIndex<uint64_t, Entry>;
  // (-priority, id), first out first: twelve bytes a waiting request.
  using QueueKey = std::pair<int32_t, PackedId>;
  static_assert(sizeof(QueueKey) == 12);
  using Queue = FlatIndex<QueueKey, NoValue>;

  // An endpoint host and its backoff.
  struct Host {
    std::string name;  // "scheme://host:port"
    int steps = 0;     // failures in a row; 0 when healthy
    bool probing = false;
    std::chrono::steady_clock::time_point notBefore{};
    int64_t retryAfterUntilMillis = 0;  // wall clock; kept across restarts
    Queue held;  // waiting for it
  };

  static int bucketOf(int policy);

  // One request a sender's transport has on the wire.
  struct Flight {
    uint64_t id = 0;
    int host = -1;       // index into hosts_
    int probeHost = -1;  // the host it probes, when it is one's probe
    std::string url;
    bool used = false;   // handed out and not answered yet
  };
  class SenderFeed;

  void workerLoop() KORVEL_EXCLUDES(mutex_);
  // Takes the next request to send and makes it ready (its URL built, its
  // host's backoff applied): true when it goes to the transport. Requests
  // settled without a transfer (unreadable, held while their host backs
  // off, oversize, without an endpoint) are settled on the way; false when
  // nothing is left to send now, or when settleBudget requests were settled
  // on the way and more may follow (yielded: the sender has answers to
  // tend). mutex_ is let go meanwhile.
  bool nextFlight(Flight& flight, double jitter, size_t settleBudget, bool& yielded)
      KORVEL_REQUIRES(mutex_);
  // Settles the answer to a request nextFlight handed out.
  void landFlight(Flight& flight, DeliveryVerdict verdict, const DeliveryResponse& response,
                  double jitter) KORVEL_REQUIRES(mutex_);
  // Sender threads at most: enough for Options::concurrency requests at
  // once with transports that each carry transportParallelism_.
  size_t maxSenders() const KORVEL_REQUIRES(mutex_);
  // Starts one more sender thread (none once stopping); false when it
  // could not be started. Joins the senders that ended.
  bool startSender() KORVEL_REQUIRES(mutex_);
  void writerLoop() KORVEL_EXCLUDES(mutex_);
  // Whether the writer has something to do at a sync (besides the store's
  // own work): finished requests, appends, log lines, files to write.
  bool writerHasWork() const KORVEL_REQUIRES(mutex_);
  // The writer sleeps, with no timer, until wakeIdleWriter, a flush or the
  // end; false when requests were handed over meanwhile (no sleep then).
  bool sleepUntilWork() KORVEL_REQUIRES(mutex_) KORVEL_EXCLUDES(handoffMutex_);
  // Wakes the writer when it sleeps with nothing to do; whoever gives it
  // work calls this.
  void wakeIdleWriter() KORVEL_REQUIRES(mutex_);
  void restoreStored() KORVEL_EXCLUDES(mutex_);
  // A stored request read back and restored; nothing when it cannot be.
  std::shared_ptr<const KVNNetworkRequest> readBack(uint64_t id) KORVEL_EXCLUDES(mutex_);
  void loadHosts() KORVEL_EXCLUDES(mutex_);
  // The store's clock (see Age above), in milliseconds since 1970.
  int64_t storeClockMillis() const;
  // The same, from a monotonic reading the caller already took.
  int64_t storeClockMillis(int64_t monotonicNow) const;
  void loadClock();
  void saveClock(int64_t millis);
  void saveHosts(const std::vector<std::pair<std::string, int64_t>>& hosts);

  // A request handed over by a report call, not yet in the queue: 32 bytes,
  // as many as a burst that nobody takes for a while. The few requests
  // kept whole wait beside them, in the same order.
  struct Handoff {
    uint64_t id = 0;
    Entry entry;
  };
  using KeptWhole = std::pair<uint64_t, std::shared_ptr<const KVNNetworkRequest>>;

  enum class Stored : uint8_t { Yes, No, Oversize };
  // Frames the request into frame (a buffer the caller keeps) and appends
  // it to the store; bytes is the frame's size (the payload's when
  // oversize). Never throws.
  Stored storeRequest(const KVNNetworkRequest& request, uint64_t id, int64_t createdMillis,
                      std::string& frame, size_t& bytes);
  // The writer, once the store takes appends again: stores the requests
  // that were queued in memory only while it could not.
  void storeUnstored() KORVEL_EXCLUDES(mutex_);

  // Moves what report calls handed over into the queue.
  void adoptHandoffs() KORVEL_REQUIRES(mutex_) KORVEL_EXCLUDES(handoffMutex_);
  // Tells report calls whether a stored request may wait whole (see
  // keepWhole_); called wherever its inputs change.
  void refreshKeepWhole() KORVEL_REQUIRES(mutex_);
  // The frame bytes the ready requests come to, as far as the queue's
  // average frame tells.
  size_t readyFrameBytes() const KORVEL_REQUIRES(mutex_);
  // Registers the calling worker as asleep, so that the next report wakes
  // it (wakeable: not while paused or while a host backs off); false when
  // requests were handed over meanwhile (no sleep then).
  bool markAsleep(bool& wakeable) KORVEL_REQUIRES(mutex_) KORVEL_EXCLUDES(handoffMutex_);
  void markAwake(bool wakeable) KORVEL_EXCLUDES(handoffMutex_);
  void enqueue(uint64_t id, Entry entry,
               std::shared_ptr<const KVNNetworkRequest> request = nullptr) KORVEL_REQUIRES(mutex_);
  void makeReady(uint64_t id, Entry& entry) KORVEL_REQUIRES(mutex_);
  void hold(uint64_t id, Entry& entry, int host) KORVEL_REQUIRES(mutex_);
  void unlink(Entries::iterator it) KORVEL_REQUIRES(mutex_);
  Entries::iterator erase(Entries::iterator it) KORVEL_REQUIRES(mutex_);
  void finish(Entries::iterator it) KORVEL_REQUIRES(mutex_);
  void enforceCap() KORVEL_REQUIRES(mutex_);
  void dropExpired(int64_t nowMillis, bool scanAll) KORVEL_REQUIRES(mutex_);
  void promoteDue(std::chrono::steady_clock::time_point now) KORVEL_REQUIRES(mutex_);
  bool pickProbe(std::chrono::steady_clock::time_point now, uint64_t& id, int& host)
      KORVEL_REQUIRES(mutex_);
  bool pickReady(uint64_t& id) KORVEL_REQUIRES(mutex_);
  // Whether requests are ready that their configuration policy lets go.
  bool moreReady() const KORVEL_REQUIRES(mutex_);
  // Logs, once per stretch, that ready requests wait for their
  // configuration policy (an endpoint and an inid, or a configuration).
  void noteHeldByPolicy() KORVEL_REQUIRES(mutex_);
  int hostIndex(const std::string& name) KORVEL_REQUIRES(mutex_);
  void hostFailed(int host, bool probe, const DeliveryResponse& response, double jitter)
      KORVEL_REQUIRES(mutex_);
  void hostAnswered(int host) KORVEL_REQUIRES(mutex_);
  void settle(uint64_t id, DeliveryVerdict verdict, const DeliveryResponse& response,
              const std::string& url, double jitter, int host, bool probe) KORVEL_REQUIRES(mutex_);
  void logRepeated(const std::string& line) KORVEL_REQUIRES(mutex_);
  // Queues an event for the observer (when there is one); deliverEvents
  // hands the queued ones over with mutex_ let go meanwhile.
  void observe(Event::Outcome outcome, std::string reason, const std::string& url)
      KORVEL_REQUIRES(mutex_);
  void deliverEvents() KORVEL_REQUIRES(mutex_);
  bool drained() const KORVEL_REQUIRES(mutex_);

  const std::string identifier_;
  const Options options_;
  const platform::Logger logger_;
  std::filesystem::path directory_;
  std::string storeFailure_;
  std::unique_ptr<RequestStore> store_;
  uint64_t epochBits_ = 0;
  // The store's clock at start, and the monotonic time then; set before any
  // thread starts, read without a lock.
  int64_t clockBaseMillis_ = 0;
  int64_t monotonicBaseMillis_ = 0;
  std::atomic<uint32_t> nextCounter_{0};
  std::atomic<bool> cancel_{false};

  mutable foundation::internal::Mutex mutex_;
  foundation::internal::CondVar workAvailable_;
  foundation::internal::CondVar writerWake_;
  foundation::internal::CondVar progress_;  // drained, or a sync completed
  Entries entries_ KORVEL_GUARDED_BY(mutex_);
  // The requests kept in memory, by id: every one without a stored copy,
  // and stored ones while few wait (sent then without a read).
  std::unordered_map<uint64_t, std::shared_ptr<const KVNNetworkRequest>> whole_
      KORVEL_GUARDED_BY(mutex_);
  Queue ready_[3] KORVEL_GUARDED_BY(mutex_);  // by policy bucket
  std::multimap<std::chrono::steady_clock::time_point, uint64_t> waiting_ KORVEL_GUARDED_BY(mutex_);
  std::vector<Host> hosts_ KORVEL_GUARDED_BY(mutex_);
  size_t hostsBackingOff_ KORVEL_GUARDED_BY(mutex_) = 0;
  bool hostsDirty_ KORVEL_GUARDED_BY(mutex_) = false;
  size_t parked_ KORVEL_GUARDED_BY(mutex_) = 0;
  size_t held_ KORVEL_GUARDED_BY(mutex_) = 0;
  size_t inFlight_ KORVEL_GUARDED_BY(mutex_) = 0;
  size_t sleepingWorkers_ KORVEL_GUARDED_BY(mutex_) = 0;
  uint64_t storedBytes_ KORVEL_GUARDED_BY(mutex_) = 0;
  bool paused_ KORVEL_GUARDED_BY(mutex_) = false;
  bool restored_ KORVEL_GUARDED_BY(mutex_) = false;
  bool stopping_ KORVEL_GUARDED_BY(mutex_) = false;
  bool writerStopping_ KORVEL_GUARDED_BY(mutex_) = false;
  bool syncRequested_ KORVEL_GUARDED_BY(mutex_) = false;
  bool compactRequested_ KORVEL_GUARDED_BY(mutex_) = false;
  bool appendsFailing_ KORVEL_GUARDED_BY(mutex_) = false;
  uint64_t syncStarted_ KORVEL_GUARDED_BY(mutex_) = 0;
  uint64_t syncCompleted_ KORVEL_GUARDED_BY(mutex_) = 0;
  std::optional<StoreStats> lastStoreStats_ KORVEL_GUARDED_BY(mutex_);
  // Requests queued in memory only because the store refused them (a full
  // disk, the folder gone); the writer stores them once it can. Ids already
  // finished are skipped then.
  std::vector<uint64_t> unstored_ KORVEL_GUARDED_BY(mutex_);
  // Durable ids for the writer to forget.
  std::vector<uint64_t> finished_ KORVEL_GUARDED_BY(mutex_);
  uint64_t overCapSinceLog_ KORVEL_GUARDED_BY(mutex_) = 0;
  uint64_t tooOldSinceLog_ KORVEL_GUARDED_BY(mutex_) = 0;
  uint64_t appendFailuresSinceLog_ KORVEL_GUARDED_BY(mutex_) = 0;
  uint64_t appendsSinceLog_ KORVEL_GUARDED_BY(mutex_) = 0;
  // Log lines written once and repeated since, by text.
  std::map<std::string, uint64_t> repeated_ KORVEL_GUARDED_BY(mutex_);
  Stats stats_ KORVEL_GUARDED_BY(mutex_);
  std::vector<Event> events_ KORVEL_GUARDED_BY(mutex_);
  // Policy buckets whose hold was logged (bit per bucket), until one of their
  // requests goes out.
  uint8_t policyHoldLogged_ KORVEL_GUARDED_BY(mutex_) = 0;

  // Taken after mutex_ when both are held.
  foundation::internal::Mutex handoffMutex_ KORVEL_ACQUIRED_AFTER(mutex_);
  std::vector<Handoff> handoffs_ KORVEL_GUARDED_BY(handoffMutex_);
  std::vector<KeptWhole> handoffsWhole_ KORVEL_GUARDED_BY(handoffMutex_);
  // Workers asleep that a report should wake (not while paused or backing
  // off); each sleeps on workAvailable_ with mutex_.
  size_t wakeableWorkers_ KORVEL_GUARDED_BY(handoffMutex_) = 0;
  // The other side of handoffs_, swapped with it (keeps both capacities).
  std::vector<Handoff> adopting_ KORVEL_GUARDED_BY(mutex_);
  std::vector<KeptWhole> adoptingWhole_ KORVEL_GUARDED_BY(mutex_);
  // Frame bytes of the stored requests in handoffs_ that were kept whole;
  // report calls keep no more than kKeptWholeBytes there.
  size_t handoffKeptBytes_ KORVEL_GUARDED_BY(handoffMutex_) = 0;
  // Whether a report call keeps a stored request whole (few are ready, not
  // paused, no host backing off) or leaves it to be read back: a hint read
  // without a lock, written under mutex_. A stale hint costs memory for a
  // moment or one read, never correctness.
  std::atomic<bool> keepWhole_{true};
  // Set by a report call whose append moved the journal to a new segment:
  // the writer should sync (and make new spares) soon.
  std::atomic<bool> segmentSwitched_{false};
  // Set by a report call that found many requests handed over and not yet
  // taken: the writer takes them into the queue now.
  std::atomic<bool> handoffsWaiting_{false};

  // Set by the writer (under mutex_ and handoffMutex_) while it sleeps with
  // no timer; cleared by whoever wakes it.
  std::atomic<bool> writerIdle_{false};

  // Sender threads, running or ended and not joined yet.
  std::vector<std::thread> workers_ KORVEL_GUARDED_BY(mutex_);
  std::vector<std::thread::id> endedSenders_ KORVEL_GUARDED_BY(mutex_);
  size_t sendersRunning_ KORVEL_GUARDED_BY(mutex_) = 0;
  // Requests one sender's transport carries at once; 0 until the first
  // sender made its transport.
  size_t transportParallelism_ KORVEL_GUARDED_BY(mutex_) = 0;
  std::thread writer_;
};

}  // namespace korvel::network::internal
