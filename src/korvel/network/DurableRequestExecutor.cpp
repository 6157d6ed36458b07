#include <korvel/network/internal/DurableRequestExecutor.h>

#include <pwd.h>
#include <unistd.h>

#include <fcntl.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include <korvel/platform/Env.h>
#include <korvel/platform/internal/Threads.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/KVNRequestReload.h>

namespace korvel::platform {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// How often requests held back by their configuration policy are looked at
// again; the configuration announces no changes.
constexpr auto kPolicyRecheckInterval = std::chrono::milliseconds(50);
// The age cap is applied from the oldest entry on at every sync; a full scan
// (entries restored out of order) runs this often.
constexpr auto kFullAgeScanInterval = std::chrono::minutes(1);
// While a host backs off, new reports wake no worker; a worker looks at
// them this often (they may be for another host).
constexpr auto kBackoffRecheckInterval = std::chrono::milliseconds(500);
// A stored request that is about to go out keeps its request object while
// fewer than this many are ready to send (no read-back on the healthy
// path); past that, and whenever a request has to wait, only its index is
// kept. Bounds the memory held whole, whatever the backlog.
constexpr size_t kKeptWhole = 64;
// Report calls hand over at most about this many requests before the writer
// is asked to take them: the list keeps its capacity, so a burst with nobody
// sending (paused, or every host backing off) never grows it further, and
// report calls never pay for moving it to a larger block.
constexpr size_t kHandoffBatch = 1024;
// Past this many restored requests the memory their payloads took is given
// back to the system.
constexpr size_t kRestoreTrimThreshold = 10'000;

// A reporting thread keeps a frame buffer of up to this many bytes.
constexpr size_t kKeptFrameCapacity = 64u << 10;

// Repeated log lines are summed up this often.
constexpr auto kRepeatedLogInterval = std::chrono::seconds(1);
// The file in the store's directory that keeps hosts' Retry-After times.
constexpr const char* kHostsFile = "hosts";
// The file that keeps the store's clock across runs, and how often the
// writer brings it up to date.
constexpr const char* kClockFile = "clock";
constexpr int64_t kClockSaveIntervalMillis = 60'000;

// "scheme://host:port" of a URL (the port only when given); the URL itself
// when it has no scheme.
std::string hostOf(const std::string& url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string::npos) return url.substr(0, url.find_first_of("/?#"));
  const size_t end = url.find_first_of("/?#", scheme + 3);
  std::string host = url.substr(0, end);
  // Without any userinfo: it is no part of the host.
  if (const size_t at = host.find('@', scheme + 3); at != std::string::npos) {
    host.erase(scheme + 3, at - scheme - 2);
  }
  return host;
}

std::string sanitizedComponent(const std::string& text) {
  std::string out;
  for (char c : text) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '-' || c == '_';
    out += plain ? c : '_';
  }
  if (out.empty() || out.front() == '.') out.insert(out.begin(), '_');
  return out;
}

int64_t wallMillis() { return static_cast<int64_t>(env().now() * 1000.0); }
int64_t monotonicMillis() { return static_cast<int64_t>(env().monotonicNanos() / 1'000'000); }

// The URL without its query, for log lines (the query carries the inid).
std::string withoutQuery(const std::string& url) { return url.substr(0, url.find('?')); }

std::string describe(const DeliveryResponse& response) {
  if (response.status != 0) return "HTTP " + std::to_string(response.status);
  return response.error.empty() ? std::string("no answer") : response.error;
}

Logger makeLogger() {
  return Logger(env().mainBundleIdentifier().value_or("Unknown bundle"), "Delivery");
}

}  // namespace

fs::path DurableRequestExecutor::defaultDirectory(const std::string& sessionIdentifier) {
  fs::path base;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') {
    base = xdg;
  } else {
    const char* home = std::getenv("HOME");
    std::string fromPasswd;
    if (home == nullptr || home[0] != '/') {
      struct passwd entry {};
      struct passwd* found = nullptr;
      char buffer[4096];
      if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
          found->pw_dir != nullptr) {
        fromPasswd = found->pw_dir;
      }
      home = fromPasswd.empty() ? nullptr : fromPasswd.c_str();
    }
    if (home == nullptr) return {};
    base = fs::path(home) / ".local" / "share";
  }
  return base / "korvel" / sanitizedComponent(sessionIdentifier);
}

DurableRequestExecutor::DurableRequestExecutor(std::string sessionIdentifier)
    : DurableRequestExecutor(std::move(sessionIdentifier), Options{}) {}

DurableRequestExecutor::DurableRequestExecutor(std::string sessionIdentifier, Options options)
    : identifier_(std::move(sessionIdentifier)), options_(std::move(options)), logger_(makeLogger()) {
  directory_ = options_.directory.empty() ? defaultDirectory(identifier_) : options_.directory;
  if (directory_.empty()) {
    logger_.log(LogLevel::Error, "no home directory: requests are kept in memory only");
  } else {
    RequestStoreOptions storeOptions;
    storeOptions.directory = directory_;
    storeOptions.segmentBytes = options_.segmentBytes;
    storeOptions.logger = logger_;
    // On the reporting thread: a flag and a signal, never mutex_, which
    // workers and the writer hold for longer than a report call may wait.
    storeOptions.segmentSwitched = [this] {
      segmentSwitched_.store(true, std::memory_order_release);
      writerWake_.signal();
    };
    // The writer syncs without mutex_; a burst handed over meanwhile is
    // taken between the sync's steps, not left to grow until it ends. Only
    // when mutex_ is free: the store may call this with a lock of its own
    // held, and must not wait for mutex_ then.
    storeOptions.betweenSyncSteps = [this] {
      if (!handoffsWaiting_.load(std::memory_order_acquire) || !mutex_.tryLock()) return;
      handoffsWaiting_.store(false, std::memory_order_relaxed);
      adoptHandoffs();
      mutex_.unlock();
    };
    store_ = openJournalRequestStore(storeOptions);
    if (!store_) logger_.log(LogLevel::Error, "requests are kept in memory only");
  }
  if (store_) epochBits_ = static_cast<uint64_t>(store_->epoch()) << 32;
  monotonicBaseMillis_ = monotonicMillis();
  clockBaseMillis_ = wallMillis();
  if (store_) loadClock();
  {
    MutexLock lock(mutex_);
    stats_.durable = store_ != nullptr;
    paused_ = options_.startPaused;
    refreshKeepWhole();
  }
  if (store_) loadHosts();

  writer_ = std::thread([this] { writerLoop(); });
  const int workers = std::max(1, options_.concurrency);
  workers_.reserve(static_cast<size_t>(workers));
  for (int i = 0; i < workers; ++i) workers_.emplace_back([this] { workerLoop(); });
}

DurableRequestExecutor::~DurableRequestExecutor() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
  }
  cancel_ = true;
  workAvailable_.signalAll();
  for (auto& worker : workers_) worker.join();
  {
    MutexLock lock(mutex_);
    writerStopping_ = true;
  }
  writerWake_.signalAll();
  writer_.join();  // its last sync records everything finished
}

int DurableRequestExecutor::bucketOf(int policy) { return policy == 1 || policy == 2 ? policy : 0; }

void DurableRequestExecutor::executeRequest(KVNNetworkRequest request) noexcept try {
  const uint64_t id = epochBits_ | nextCounter_.fetch_add(1, std::memory_order_relaxed);
  const int64_t created = storeClockMillis();
  const int64_t born = monotonicMillis();
  bool durable = false;
  bool appendFailed = false;
  bool oversize = false;
  size_t bytes = 0;
  if (store_ && !request.restorationKind().empty() && request.restorationPayloadEncoder()) {
    // One buffer per thread, which the payload is encoded straight into:
    // the frame costs no allocation once warm. One that an unusually large
    // request grew is let go afterwards.
    thread_local std::string frame;
    frame.clear();
    try {
      beginFrame(frame, id, created, request.priority(), request.configurationPolicy(),
                 request.backgroundSessionRetryCount(), request.restorationKind());
      const size_t payloadAt = frame.size();
      request.restorationPayloadEncoder()(frame);
      // An encoder only appends; one that cut the frame is taken for one
      // that failed.
      if (frame.size() < payloadAt) throw std::length_error("payload encoder cut its buffer");
      const size_t payloadBytes = frame.size() - payloadAt;
      if (payloadBytes > options_.maxRequestBytes) {
        oversize = true;
        bytes = payloadBytes;
      } else {
        finishFrame(frame, 0);
        durable = store_->append(frame, id);
        bytes = frame.size();
      }
    } catch (...) {
      // An encoder that throws leaves the request in memory, like a full disk.
    }
    if (frame.capacity() > kKeptFrameCapacity) frame = std::string();
    appendFailed = !durable && !oversize;
  }
  if (oversize) {
    MutexLock lock(mutex_);
    ++stats_.droppedOversize;
    logRepeated("dropped a request of " + std::to_string(bytes) + " bytes: more than " +
                std::to_string(options_.maxRequestBytes) + " bytes are never sent");
    return;
  }

  Handoff handoff;
  handoff.id = id;
  handoff.appendFailed = appendFailed;
  Entry& entry = handoff.entry;
  entry.priority = request.priority();
  entry.policy = static_cast<int8_t>(bucketOf(request.configurationPolicy()));
  entry.retryCount = static_cast<int16_t>(
      std::clamp(request.backgroundSessionRetryCount(), 0, int{INT16_MAX}));
  entry.bornMillis = born;
  entry.durable = durable;
  entry.bytes = durable ? static_cast<uint32_t>(bytes) : 0;
  // A stored request that will have to wait is read back when its turn
  // comes: it is not kept in memory, and is freed here, on the caller's
  // thread, rather than by whichever thread queues it.
  if (!durable || keepWhole_.load(std::memory_order_relaxed)) {
    handoff.request = std::make_shared<const KVNNetworkRequest>(std::move(request));
  }
  std::shared_ptr<const KVNNetworkRequest> dropped;  // freed outside the lock
  bool wake;
  bool nudgeWriter;
  {
    MutexLock lock(handoffMutex_);
    // However many arrive before a worker or the writer looks, no more than
    // a few wait whole.
    if (durable && handoffs_.size() >= kKeptWhole) dropped = std::move(handoff.request);
    // Only the first request handed over wakes a worker: the worker takes
    // the whole list, and wakes more workers when there is more to send.
    wake = handoffs_.empty() && wakeableWorkers_ > 0;
    handoffs_.push_back(std::move(handoff));
    nudgeWriter = handoffs_.size() % kHandoffBatch == 0;
  }
  if (nudgeWriter) {
    handoffsWaiting_.store(true, std::memory_order_release);
    writerWake_.signal();
  }
  if (wake) {
    // A worker registered as asleep holds mutex_ until it waits: taking it
    // here makes sure the signal finds it waiting.
    MutexLock lock(mutex_);
    workAvailable_.signal();
  }
} catch (...) {
  // Out of memory queueing it: the request is dropped, and said so when the
  // line itself can be made.
  try {
    logger_.log(LogLevel::Error, "dropped a request that could not be queued");
  } catch (...) {
  }
}

bool DurableRequestExecutor::flush(std::chrono::milliseconds deadline) {
  const auto until = Clock::now() + deadline;
  MutexLock lock(mutex_);
  adoptHandoffs();
  while (!drained()) {
    // Held requests do not leave while paused: no point waiting for them
    // once restoration and the requests on the wire are done.
    if (paused_ && restored_ && inFlight_ == 0) return false;
    if (!progress_.waitUntil(mutex_, until) && !drained()) return false;
  }
  const uint64_t wanted = syncStarted_ + 1;
  syncRequested_ = true;
  writerWake_.signal();
  while (syncCompleted_ < wanted) {
    if (!progress_.waitUntil(mutex_, until)) return syncCompleted_ >= wanted;
  }
  return true;
}

std::optional<StoreStats> DurableRequestExecutor::syncStore(std::chrono::milliseconds deadline) {
  const auto until = Clock::now() + deadline;
  MutexLock lock(mutex_);
  if (!store_) return std::nullopt;
  adoptHandoffs();
  // After restoration, so the figures include what an earlier run left.
  while (!restored_) {
    if (!progress_.waitUntil(mutex_, until) && !restored_) return std::nullopt;
  }
  const uint64_t wanted = syncStarted_ + 1;
  syncRequested_ = true;
  compactRequested_ = true;
  writerWake_.signal();
  while (syncCompleted_ < wanted) {
    if (!progress_.waitUntil(mutex_, until) && syncCompleted_ < wanted) return std::nullopt;
  }
  return lastStoreStats_;
}

void DurableRequestExecutor::setPaused(bool paused) {
  {
    MutexLock lock(mutex_);
    // What was reported before the switch is queued as it would have been
    // then (read back later if it had to wait).
    adoptHandoffs();
    paused_ = paused;
    refreshKeepWhole();
  }
  workAvailable_.signalAll();
}

size_t DurableRequestExecutor::purge() {
  MutexLock lock(mutex_);
  while (!restored_) progress_.wait(mutex_);
  adoptHandoffs();
  size_t purged = 0;
  for (auto it = entries_.begin(); it != entries_.end();) {
    Entry& e = it->second;
    if (e.state == State::InFlight) {
      // Already on the wire: it may still arrive, but whatever the answer
      // it is forgotten when the attempt ends, never queued again. The store
      // forgets it now, so that no restart sends it either.
      if (!e.cancelled) {
        e.cancelled = true;
        if (e.durable) finished_.push_back(it->first);
        e.durable = false;
        storedBytes_ -= e.bytes;
        e.bytes = 0;
        ++purged;
      }
      ++it;
      continue;
    }
    unlink(it);
    it = erase(it);
    ++purged;
  }
  if (drained()) progress_.signalAll();
  // The store forgets them (and compacts them away) before this returns.
  const uint64_t wanted = syncStarted_ + 1;
  syncRequested_ = true;
  compactRequested_ = true;
  writerWake_.signal();
  while (syncCompleted_ < wanted) progress_.wait(mutex_);
  logger_.log(LogLevel::Info, "purged " + std::to_string(purged) + " waiting requests");
  return purged;
}

DurableRequestExecutor::Stats DurableRequestExecutor::stats() {
  MutexLock lock(mutex_);
  adoptHandoffs();
  Stats s = stats_;
  s.waiting = entries_.size() - parked_;
  s.durable = stats_.durable && !appendsFailing_ && store_->durable();
  s.hostsBackingOff = hostsBackingOff_;
  return s;
}

// MARK: - Queue (mutex_ held)

void DurableRequestExecutor::adoptHandoffs() {
  {
    MutexLock lock(handoffMutex_);
    if (handoffs_.empty()) return;
    adopting_.swap(handoffs_);
  }
  // A stored request that has to wait is read back when its turn comes;
  // while few are ready it stays whole and goes out without a read.
  const bool keepWhole = hostsBackingOff_ == 0 && !paused_ &&
                         ready_[0].size() + ready_[1].size() + ready_[2].size() +
                                 adopting_.size() <=
                             kKeptWhole;
  for (Handoff& handoff : adopting_) {
    if (handoff.appendFailed) ++appendFailuresSinceLog_;
    if (handoff.entry.durable) {
      ++appendsSinceLog_;
      if (!keepWhole) handoff.request.reset();
    }
    enqueue(handoff.id, std::move(handoff.entry), std::move(handoff.request));
  }
  adopting_.clear();
  enforceCap();
  refreshKeepWhole();
}

void DurableRequestExecutor::refreshKeepWhole() {
  keepWhole_.store(hostsBackingOff_ == 0 && !paused_ &&
                       ready_[0].size() + ready_[1].size() + ready_[2].size() < kKeptWhole,
                   std::memory_order_relaxed);
}

bool DurableRequestExecutor::markAsleep(bool& wakeable) {
  MutexLock lock(handoffMutex_);
  if (!handoffs_.empty()) return false;
  // While paused or while a host backs off, reports wake no worker: the
  // worker wakes at the next attempt time, or when delivery resumes.
  wakeable = !paused_ && hostsBackingOff_ == 0;
  if (wakeable) ++wakeableWorkers_;
  return true;
}

void DurableRequestExecutor::markAwake(bool wakeable) {
  if (!wakeable) return;
  MutexLock lock(handoffMutex_);
  --wakeableWorkers_;
}

bool DurableRequestExecutor::drained() const {
  return restored_ && inFlight_ == 0 && entries_.size() == parked_;
}

void DurableRequestExecutor::enqueue(uint64_t id, Entry entry,
                                     std::shared_ptr<const KVNNetworkRequest> request) {
  auto [it, inserted] = entries_.insert(id, std::move(entry));
  if (!inserted) return;
  if (request) whole_.emplace(id, std::move(request));
  storedBytes_ += it->second.bytes;
  if (it->second.state == State::Parked) {
    ++parked_;
    return;
  }
  makeReady(id, it->second);
}

void DurableRequestExecutor::makeReady(uint64_t id, Entry& entry) {
  entry.state = State::Ready;
  ready_[bucketOf(entry.policy)].insert({-entry.priority, id});
}

void DurableRequestExecutor::hold(uint64_t id, Entry& entry, int host) {
  if (entry.durable) whole_.erase(id);  // read back when the host is healthy
  entry.state = State::Held;
  entry.host = static_cast<int16_t>(host);
  hosts_[static_cast<size_t>(host)].held.insert({-entry.priority, id});
  ++held_;
}

void DurableRequestExecutor::unlink(Entries::iterator it) {
  Entry& e = it->second;
  switch (e.state) {
    case State::Ready:
      ready_[bucketOf(e.policy)].erase(std::make_pair(-e.priority, it->first));
      break;
    case State::Waiting: {
      // Few wait on their own (only requests without a host): a scan.
      for (auto w = waiting_.begin(); w != waiting_.end(); ++w) {
        if (w->second == it->first) {
          waiting_.erase(w);
          break;
        }
      }
      break;
    }
    case State::Held:
      hosts_[static_cast<size_t>(e.host)].held.erase(std::make_pair(-e.priority, it->first));
      --held_;
      break;
    case State::Parked:
      --parked_;
      break;
    case State::InFlight:
      break;
  }
}

// Forgets an entry that is no longer queued anywhere.
DurableRequestExecutor::Entries::iterator DurableRequestExecutor::erase(Entries::iterator it) {
  if (it->second.durable) finished_.push_back(it->first);
  storedBytes_ -= it->second.bytes;
  whole_.erase(it->first);
  return entries_.erase(it);
}

void DurableRequestExecutor::finish(Entries::iterator it) {
  erase(it);
  if (drained()) progress_.signalAll();
}

void DurableRequestExecutor::enforceCap() {
  if (entries_.size() <= options_.maxStoredRequests && storedBytes_ <= options_.maxStoredBytes) {
    return;
  }
  for (auto it = entries_.begin();
       it != entries_.end() &&
       (entries_.size() > options_.maxStoredRequests || storedBytes_ > options_.maxStoredBytes);) {
    if (it->second.state == State::InFlight) {
      ++it;
      continue;
    }
    unlink(it);
    it = erase(it);
    ++stats_.droppedOverCap;
    ++overCapSinceLog_;
  }
}

void DurableRequestExecutor::dropExpired(int64_t nowMillis, bool scanAll) {
  const int64_t cutoff =
      nowMillis - std::chrono::duration_cast<std::chrono::milliseconds>(options_.maxAge).count();
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (it->second.bornMillis >= cutoff) {
      // Identifiers grow with time: past the first young one, only a full
      // scan finds more.
      if (!scanAll) break;
      ++it;
      continue;
    }
    if (it->second.state == State::InFlight) {
      ++it;
      continue;
    }
    unlink(it);
    it = erase(it);
    ++stats_.droppedTooOld;
    ++tooOldSinceLog_;
  }
  if (drained()) progress_.signalAll();
}

void DurableRequestExecutor::promoteDue(Clock::time_point now) {
  while (!waiting_.empty() && waiting_.begin()->first <= now) {
    const uint64_t id = waiting_.begin()->second;
    waiting_.erase(waiting_.begin());
    auto it = entries_.find(id);
    if (it != entries_.end()) makeReady(id, it->second);
  }
}

bool DurableRequestExecutor::pickProbe(Clock::time_point now, uint64_t& id, int& host) {
  if (hostsBackingOff_ == 0) return false;
  for (size_t h = 0; h < hosts_.size(); ++h) {
    Host& candidate = hosts_[h];
    if (candidate.steps == 0 || candidate.probing || now < candidate.notBefore ||
        candidate.held.empty()) {
      continue;
    }
    // The first held request the configuration lets go.
    for (auto it = candidate.held.begin(); it != candidate.held.end(); ++it) {
      const Entry& e = entries_.at(it->first.second);
      if (e.policy != 0 && !KVNConfigurationPolicySatisfied(e.policy)) continue;
      id = it->first.second;
      candidate.held.erase(it);
      --held_;
      candidate.probing = true;
      host = static_cast<int>(h);
      return true;
    }
  }
  return false;
}

bool DurableRequestExecutor::pickReady(uint64_t& id) {
  for (;;) {
    const std::pair<int, uint64_t>* best = nullptr;
    int bestBucket = -1;
    for (int b = 0; b < 3; ++b) {
      if (ready_[b].empty()) continue;
      const auto& first = ready_[b].begin()->first;
      if (best != nullptr && !(first < *best)) continue;
      if (b != 0 && !KVNConfigurationPolicySatisfied(b)) continue;
      best = &first;
      bestBucket = b;
    }
    if (best == nullptr) return false;
    id = best->second;
    ready_[bestBucket].erase(ready_[bestBucket].begin());
    refreshKeepWhole();
    Entry& e = entries_.at(id);
    // Its host backs off: it waits there, without a look at its payload.
    if (e.host >= 0 && hosts_[static_cast<size_t>(e.host)].steps > 0) {
      hold(id, e, e.host);
      continue;
    }
    return true;
  }
}

int DurableRequestExecutor::hostIndex(const std::string& name) {
  for (size_t h = 0; h < hosts_.size(); ++h) {
    if (hosts_[h].name == name) return static_cast<int>(h);
  }
  // Hosts are few; past this many the oldest healthy one's slot is reused.
  constexpr size_t kMaxHosts = 64;
  if (hosts_.size() >= kMaxHosts) {
    for (size_t h = 0; h < hosts_.size(); ++h) {
      if (hosts_[h].steps == 0 && hosts_[h].held.empty()) {
        hosts_[h] = Host{};
        hosts_[h].name = name;
        // Entries that still name the slot only take its (healthy) state.
        return static_cast<int>(h);
      }
    }
  }
  hosts_.push_back(Host{});
  hosts_.back().name = name;
  return static_cast<int>(hosts_.size() - 1);
}

void DurableRequestExecutor::hostFailed(int index, bool probe, const DeliveryResponse& response,
                                        double jitter) {
  Host& host = hosts_[static_cast<size_t>(index)];
  const auto now = Clock::now();
  // Requests already on their way when the host failed add no step.
  if (host.steps == 0) {
    ++hostsBackingOff_;
    logger_.log(LogLevel::Info, "backing off from " + host.name + " after " + describe(response));
  }
  if (probe || host.steps == 0) ++host.steps;
  auto delay = retryDelay(host.steps, options_.retryBaseDelay, options_.maxRetryDelay, jitter);
  if (response.retryAfter) {
    if (auto asked = parseRetryAfter(*response.retryAfter, env().now())) {
      const auto honoured = std::min(*asked, options_.maxRetryAfter);
      delay = std::max(delay, honoured);
      host.retryAfterUntilMillis = wallMillis() + honoured.count();
      hostsDirty_ = true;
    }
  }
  host.notBefore = std::max(host.notBefore, now + delay);
  refreshKeepWhole();
}

void DurableRequestExecutor::hostAnswered(int index) {
  Host& host = hosts_[static_cast<size_t>(index)];
  if (host.steps == 0) return;
  host.steps = 0;
  --hostsBackingOff_;
  if (host.retryAfterUntilMillis != 0) {
    host.retryAfterUntilMillis = 0;
    hostsDirty_ = true;
  }
  const size_t count = host.held.size();
  // All at once: one by one, each would move the ready ones before it.
  std::vector<std::pair<std::pair<int, uint64_t>, NoValue>> goingOut[3];
  for (const auto& waiting : host.held) {
    const uint64_t id = waiting.first.second;
    Entry& entry = entries_.at(id);
    entry.state = State::Ready;
    goingOut[bucketOf(entry.policy)].emplace_back(waiting.first, NoValue{});
  }
  host.held.clear();
  for (int b = 0; b < 3; ++b) ready_[b].insertSorted(std::move(goingOut[b]));
  held_ -= count;
  refreshKeepWhole();
  logger_.log(LogLevel::Info, host.name + " answers again; " + std::to_string(count) +
                                  " waiting requests go out");
  workAvailable_.signalAll();
}

void DurableRequestExecutor::settle(uint64_t id, DeliveryVerdict verdict,
                                    const DeliveryResponse& response, const std::string& url,
                                    double jitter, int host, bool probe) {
  if (probe && host >= 0) hosts_[static_cast<size_t>(host)].probing = false;
  const bool abandoned = verdict == DeliveryVerdict::RetryUncounted && stopping_;
  if (host >= 0 && !abandoned) {
    if (verdict == DeliveryVerdict::Delivered || verdict == DeliveryVerdict::Drop) {
      hostAnswered(host);
    } else {
      hostFailed(host, probe, response, jitter);
    }
  }
  auto it = entries_.find(id);
  if (it == entries_.end()) return;
  Entry& e = it->second;
  if (e.cancelled) {
    if (verdict == DeliveryVerdict::Delivered) ++stats_.delivered;
    finish(it);
    return;
  }
  switch (verdict) {
    case DeliveryVerdict::Delivered:
      ++stats_.delivered;
      finish(it);
      return;
    case DeliveryVerdict::Drop:
      ++stats_.droppedByServer;
      logRepeated("dropped a request refused with " + describe(response) + ": GET " +
                  withoutQuery(url));
      finish(it);
      return;
    case DeliveryVerdict::Retry:
      if (++e.failures > e.retryCount) {
        ++stats_.droppedByServer;
        logRepeated("dropped a request after " + std::to_string(e.failures) +
                    " failed attempts, the last " + describe(response) + ": GET " +
                    withoutQuery(url));
        finish(it);
        return;
      }
      break;
    case DeliveryVerdict::RetryUncounted:
      if (abandoned) {  // by shutdown, not failed
        makeReady(id, e);
        return;
      }
      break;
  }
  if (host >= 0) {
    hold(id, e, host);
    return;
  }
  // No host to back off from: the request waits on its own.
  auto delay = retryDelay(++e.backoffSteps, options_.retryBaseDelay, options_.maxRetryDelay, jitter);
  if (e.durable) whole_.erase(id);
  e.state = State::Waiting;
  waiting_.emplace(Clock::now() + delay, id);
}

void DurableRequestExecutor::logRepeated(const std::string& line) {
  auto [it, first] = repeated_.try_emplace(line, 0);
  if (first) {
    logger_.log(LogLevel::Error, line);
  } else {
    ++it->second;
  }
}

// MARK: - Threads

std::shared_ptr<const KVNNetworkRequest> DurableRequestExecutor::readBack(uint64_t id) {
  auto stored = store_ ? store_->load(id) : std::nullopt;
  if (!stored) return nullptr;
  auto request = KVNReloadRequest(stored->kind, stored->payload);
  if (!request) return nullptr;
  request->setPriority(stored->priority);
  request->setConfigurationPolicy(stored->configurationPolicy);
  request->setBackgroundSessionRetryCount(stored->retryCount);
  return std::make_shared<const KVNNetworkRequest>(std::move(*request));
}

void DurableRequestExecutor::workerLoop() {
  nameThisThread("korvel-send");
  lowerThisThreadPriority();
  std::unique_ptr<DeliveryTransport> transport =
      options_.transport
          ? options_.transport(cancel_)
          : makeCurlTransport(cancel_, CurlTransportOptions{options_.requestTimeout,
                                                            std::min(options_.requestTimeout,
                                                                     std::chrono::milliseconds(10'000))});
  std::minstd_rand random(std::random_device{}());
  std::uniform_real_distribution<double> unit(0.0, 1.0);

  mutex_.lock();
  while (!stopping_) {
    adoptHandoffs();
    const auto now = Clock::now();
    promoteDue(now);
    uint64_t id = 0;
    int probeHost = -1;
    if (!paused_ && (pickProbe(now, id, probeHost) || pickReady(id))) {
      Entry& entry = entries_.at(id);
      entry.state = State::InFlight;
      ++inFlight_;
      // Reports wake one worker; it wakes the next while there is more.
      if (sleepingWorkers_ > 0 && ready_[0].size() + ready_[1].size() + ready_[2].size() > 0) {
        workAvailable_.signal();
      }
      std::shared_ptr<const KVNNetworkRequest> request;
      if (auto kept = whole_.find(id); kept != whole_.end()) request = kept->second;
      const bool stored = entry.durable && !request;
      mutex_.unlock();

      if (stored) request = readBack(id);
      DeliveryResponse response;
      DeliveryVerdict verdict;
      std::string url;
      int host = -1;
      bool urlTooLong = false;
      std::optional<KVNEndpoint> endpoint;
      if (request) endpoint = request->buildEndpoint();
      if (!request) {
        mutex_.lock();
        --inFlight_;
        auto it = entries_.find(id);
        if (it != entries_.end()) {
          ++stats_.droppedUnreadable;
          logRepeated("dropped a stored request that could not be read back from the journal");
          finish(it);
        }
        if (probeHost >= 0) hosts_[static_cast<size_t>(probeHost)].probing = false;
        continue;
      }
      if (endpoint) {
        url = endpoint->urlString();
        mutex_.lock();
        host = hostIndex(hostOf(url));
        Host& h = hosts_[static_cast<size_t>(host)];
        entries_.at(id).host = static_cast<int16_t>(host);
        if (probeHost >= 0 && probeHost != host) {
          // Picked as another host's probe, but its URL now names this one.
          hosts_[static_cast<size_t>(probeHost)].probing = false;
          probeHost = -1;
        }
        if (h.steps > 0 && probeHost != host) {
          if (h.probing || Clock::now() < h.notBefore) {
            // The host backs off: no connection; it waits with the others
            // (unless it was purged meanwhile).
            --inFlight_;
            auto it = entries_.find(id);
            if (it->second.cancelled) {
              finish(it);
            } else {
              hold(id, it->second, host);
            }
            continue;
          }
          h.probing = true;
          probeHost = host;
        }
        urlTooLong = url.size() > options_.maxRequestBytes;
        if (!urlTooLong) ++stats_.attempts;
        mutex_.unlock();
        if (urlTooLong) {
          verdict = DeliveryVerdict::Drop;
        } else {
          response = transport ? transport->get(url) : DeliveryResponse{};
          verdict = classifyDelivery(response);
        }
      } else if (!KVNConfigurationPolicySatisfied(request->configurationPolicy())) {
        // The configuration changed under it: wait for the policy again.
        response.error = "configuration no longer allows it";
        verdict = DeliveryVerdict::RetryUncounted;
      } else {
        response.reachedServer = true;
        response.error = "no endpoint URL";
        verdict = DeliveryVerdict::Retry;
      }
      const double jitter = unit(random);

      mutex_.lock();
      --inFlight_;
      if (probeHost >= 0 && probeHost != host) {
        hosts_[static_cast<size_t>(probeHost)].probing = false;
        probeHost = -1;
      }
      if (urlTooLong) {
        if (probeHost >= 0) hosts_[static_cast<size_t>(probeHost)].probing = false;
        auto it = entries_.find(id);
        if (it != entries_.end()) {
          ++stats_.droppedOversize;
          logRepeated("dropped a request whose URL has " + std::to_string(url.size()) +
                      " bytes: more than " + std::to_string(options_.maxRequestBytes) +
                      " bytes are never sent");
          finish(it);
        }
        continue;
      }
      settle(id, verdict, response, url, jitter, host, probeHost >= 0);
      continue;
    }

    // Nothing to send now: sleep until a retry or a host's probe is due, a
    // policy may have changed, or new work arrives.
    std::optional<Clock::time_point> wake;
    auto wakeBy = [&wake](Clock::time_point at) { wake = wake ? std::min(*wake, at) : at; };
    if (!waiting_.empty()) wakeBy(waiting_.begin()->first);
    if (hostsBackingOff_ > 0) {
      // New reports wake no worker now: the next probe time does, or, while
      // a probe is on its way, a short recheck.
      std::optional<Clock::time_point> probeAt;
      for (const Host& h : hosts_) {
        if (h.steps > 0 && !h.probing && h.notBefore > now) {
          probeAt = probeAt ? std::min(*probeAt, h.notBefore) : h.notBefore;
        }
      }
      wakeBy(probeAt ? *probeAt : now + kPolicyRecheckInterval);
      wakeBy(now + kBackoffRecheckInterval);
    }
    if (!paused_ && (!ready_[1].empty() || !ready_[2].empty())) {
      wakeBy(now + kPolicyRecheckInterval);
    }
    bool wakeable = false;
    if (!markAsleep(wakeable)) continue;  // handed over meanwhile
    ++sleepingWorkers_;
    if (wake) {
      workAvailable_.waitUntil(mutex_, *wake);
    } else {
      workAvailable_.wait(mutex_);
    }
    --sleepingWorkers_;
    markAwake(wakeable);
  }
  mutex_.unlock();
}

void DurableRequestExecutor::restoreStored() {
  // In batches, with the marks of what went out meanwhile synced between
  // them: a kill during a long restore sends little twice. Only one batch's
  // payloads are held at a time; the queue keeps the index alone.
  constexpr size_t kBatch = 1024;
  size_t unknown = 0;
  size_t seen = 0;
  // Past the age cap already: dropped before anything could send them. A
  // stamp ahead of the store's clock counts as made now.
  const int64_t maxAgeMillis =
      std::chrono::duration_cast<std::chrono::milliseconds>(options_.maxAge).count();
  const int64_t clockNow = storeClockMillis();
  const int64_t monotonicNow = monotonicMillis();
  // Kept across batches (their capacity with them), let go at the end.
  std::vector<std::pair<uint64_t, Entry>> batchEntries;
  std::vector<uint64_t> expired;
  std::vector<uint64_t> finished;
  store_->recoverInBatches(&cancel_, kBatch, [&](std::vector<StoredRequest>& batch) {
    if (cancel_) return false;
    seen += batch.size();
    batchEntries.clear();
    expired.clear();
    size_t batchUnknown = 0;
    for (StoredRequest& s : batch) {
      const int64_t age = std::max<int64_t>(0, clockNow - s.createdMillis);
      if (age > maxAgeMillis) {
        expired.push_back(s.id);
        continue;
      }
      Entry entry;
      entry.priority = s.priority;
      entry.policy = static_cast<int8_t>(bucketOf(s.configurationPolicy));
      entry.retryCount = static_cast<int16_t>(std::clamp(s.retryCount, 0, int{INT16_MAX}));
      entry.bornMillis = monotonicNow - age;
      entry.durable = true;
      entry.bytes = static_cast<uint32_t>(kFrameHeaderBytes + kFrameFixedBodyBytes + s.kind.size() +
                                          s.payload.size());
      // Restored once here (as every earlier run's request is), then only
      // its index is kept: the request is read back when it is sent.
      if (!KVNRequestRestorers::restore(s.kind, s.payload)) {
        entry.state = State::Parked;
        ++batchUnknown;
      }
      batchEntries.emplace_back(s.id, std::move(entry));
    }
    unknown += batchUnknown;
    {
      MutexLock lock(mutex_);
      if (writerStopping_) return false;  // the rest stays stored for the next start
      for (auto& [id, entry] : batchEntries) enqueue(id, std::move(entry));
      stats_.restored += batchEntries.size() - batchUnknown;
      stats_.droppedTooOld += expired.size();
      tooOldSinceLog_ += expired.size();
      finished_.insert(finished_.end(), expired.begin(), expired.end());
      enforceCap();
      finished.clear();
      finished.swap(finished_);
    }
    workAvailable_.signalAll();
    store_->sync(finished);
    return true;
  });
  if (unknown > 0) {
    logger_.log(LogLevel::Error, std::to_string(unknown) +
                                     " stored requests could not be restored; they are kept "
                                     "until they exceed the age cap");
  }
  {
    MutexLock lock(mutex_);
    dropExpired(monotonicMillis(), true);
    restored_ = true;
    // A long restore grew the queue's side tables: give back what a
    // backlog no longer needs.
    finished_.shrink_to_fit();
    if (drained()) progress_.signalAll();
  }
  workAvailable_.signalAll();
#if defined(__GLIBC__)
  // The payloads read back are freed, but glibc keeps the pages they took
  // (between the index's blocks, its heap cannot shrink from the top): a
  // large restore would leave the process several times larger than the
  // one that queued the same backlog. Once, after restoring.
  if (seen >= kRestoreTrimThreshold) malloc_trim(0);
#endif
}

void DurableRequestExecutor::loadHosts() {
  std::ifstream in(directory_ / kHostsFile);
  std::string name;
  int64_t until = 0;
  const int64_t nowMillis = wallMillis();
  const auto now = Clock::now();
  MutexLock lock(mutex_);
  while (in >> name >> until) {
    if (until <= nowMillis) continue;
    const auto left = std::min(std::chrono::milliseconds(until - nowMillis), options_.maxRetryAfter);
    Host& host = hosts_[static_cast<size_t>(hostIndex(name))];
    if (host.steps == 0) ++hostsBackingOff_;
    host.steps = 1;
    host.notBefore = now + left;
    host.retryAfterUntilMillis = until;
    logger_.log(LogLevel::Info, name + " asked for no requests before " + std::to_string(left.count() / 1000) +
                                    " s from now; waiting until then");
  }
  refreshKeepWhole();
}

int64_t DurableRequestExecutor::storeClockMillis() const {
  return std::max(wallMillis(), clockBaseMillis_ + (monotonicMillis() - monotonicBaseMillis_));
}

void DurableRequestExecutor::loadClock() {
  const fs::path path = directory_ / kClockFile;
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  char text[32] = {};
  const ssize_t got = ::read(fd, text, sizeof text - 1);
  ::close(fd);
  if (got <= 0) return;
  char* end = nullptr;
  const long long stored = std::strtoll(text, &end, 10);
  if (end == text) return;
  clockBaseMillis_ = std::max<int64_t>(clockBaseMillis_, stored);
}

void DurableRequestExecutor::saveClock(int64_t millis) {
  const std::string text = std::to_string(millis) + "\n";
  const fs::path temporary = directory_ / "clock.tmp";
  const int fd =
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return;
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  if (written) ::rename(temporary.c_str(), (directory_ / kClockFile).c_str());
}

void DurableRequestExecutor::saveHosts(const std::vector<std::pair<std::string, int64_t>>& hosts) {
  const fs::path path = directory_ / kHostsFile;
  if (hosts.empty()) {
    ::unlink(path.c_str());
    return;
  }
  std::string text;
  for (const auto& [name, until] : hosts) text += name + " " + std::to_string(until) + "\n";
  const fs::path temporary = directory_ / "hosts.tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return;
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  if (written) ::rename(temporary.c_str(), path.c_str());
}

void DurableRequestExecutor::writerLoop() {
  // Not lowered, since report calls rely on it for new journal segments;
  // but batch, so that a sync finishing or a segment switch that wakes it
  // does not take the core from a report call half-way through.
  nameThisThread("korvel-journal");
  batchThisThread();
  if (store_) {
    restoreStored();
  } else {
    MutexLock lock(mutex_);
    restored_ = true;
    progress_.signalAll();
  }

  // The store's clock is kept from the start on: a run killed early still
  // moves it forward.
  if (store_) saveClock(storeClockMillis());
  int64_t lastClockSave = monotonicMillis();
  auto lastFullScan = Clock::now();
  auto lastRepeatedLog = Clock::now();
  mutex_.lock();
  for (;;) {
    const auto until = Clock::now() + options_.syncInterval;
    while (!writerStopping_ && !syncRequested_) {
      // A switch signalled between this check and the wait is seen at the
      // next interval: the hint only brings the sync forward.
      if (segmentSwitched_.exchange(false, std::memory_order_acquire)) break;
      if (handoffsWaiting_.exchange(false, std::memory_order_acquire)) adoptHandoffs();
      if (!writerWake_.waitUntil(mutex_, until)) break;
    }
    adoptHandoffs();  // counts their appends and applies the caps to them
    const bool stop = writerStopping_;
    const bool compact = compactRequested_;
    syncRequested_ = false;
    compactRequested_ = false;

    const auto now = Clock::now();
    const bool fullScan = now - lastFullScan >= kFullAgeScanInterval;
    if (fullScan) lastFullScan = now;
    dropExpired(monotonicMillis(), fullScan);

    std::vector<uint64_t> finished;
    finished.swap(finished_);
    const uint64_t overCap = std::exchange(overCapSinceLog_, 0);
    const uint64_t tooOld = std::exchange(tooOldSinceLog_, 0);
    const uint64_t appendFailures = std::exchange(appendFailuresSinceLog_, 0);
    const uint64_t appends = std::exchange(appendsSinceLog_, 0);
    // Appends fail (a full disk, a broken segment): not durable until one
    // works again.
    const bool wasFailing = appendsFailing_;
    if (appendFailures > 0) appendsFailing_ = true;
    if (appendFailures == 0 && appends > 0) appendsFailing_ = false;
    const bool nowFailing = appendsFailing_;
    std::vector<std::string> repeatedLines;
    if (stop || now - lastRepeatedLog >= kRepeatedLogInterval) {
      lastRepeatedLog = now;
      for (auto it = repeated_.begin(); it != repeated_.end();) {
        if (it->second == 0) {
          it = repeated_.erase(it);
          continue;
        }
        repeatedLines.push_back(it->first + " (and " + std::to_string(it->second) +
                                " more like it)");
        it->second = 0;
        ++it;
      }
    }
    std::optional<std::vector<std::pair<std::string, int64_t>>> hosts;
    if (hostsDirty_ && store_) {
      hostsDirty_ = false;
      hosts.emplace();
      for (const Host& h : hosts_) {
        if (h.retryAfterUntilMillis > 0) hosts->emplace_back(h.name, h.retryAfterUntilMillis);
      }
    }
    const uint64_t generation = ++syncStarted_;
    mutex_.unlock();

    std::optional<StoreStats> storeStats;
    if (store_) {
      store_->sync(finished);
      if (compact) store_->compact();
      if (compact) storeStats = store_->stats();
    }
    if (hosts) saveHosts(*hosts);
    if (store_ && (stop || monotonicMillis() - lastClockSave >= kClockSaveIntervalMillis)) {
      lastClockSave = monotonicMillis();
      saveClock(storeClockMillis());
    }
    for (const auto& line : repeatedLines) logger_.log(LogLevel::Error, line);
    if (overCap > 0) {
      logger_.log(LogLevel::Error, "dropped the " + std::to_string(overCap) +
                                       " oldest requests: more than " +
                                       std::to_string(options_.maxStoredRequests) +
                                       " were waiting, or more than " +
                                       std::to_string(options_.maxStoredBytes) + " bytes");
    }
    if (tooOld > 0) {
      logger_.log(LogLevel::Error, "dropped " + std::to_string(tooOld) +
                                       " requests older than " +
                                       std::to_string(options_.maxAge.count()) + " s");
    }
    if (nowFailing && !wasFailing) {
      logger_.log(LogLevel::Error, std::to_string(appendFailures) +
                                       " requests could not be stored: not durable, requests are "
                                       "kept in memory only until the store takes them again");
    } else if (!nowFailing && wasFailing) {
      logger_.log(LogLevel::Info, "requests are stored again: durable");
    }

    mutex_.lock();
    if (storeStats) lastStoreStats_ = storeStats;
    syncCompleted_ = generation;
    progress_.signalAll();
    if (stop) break;
  }
  mutex_.unlock();
}

}  // namespace korvel::platform
