#include <korvel/network/DurableRequestExecutor.h>

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNConfiguration.h>

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
    storeOptions.segmentSwitched = [this] {
      {
        std::lock_guard lock(mutex_);
        syncRequested_ = true;
      }
      writerWake_.notify_one();
    };
    store_ = openJournalRequestStore(storeOptions);
    if (!store_) logger_.log(LogLevel::Error, "requests are kept in memory only");
  }
  if (store_) epochBits_ = static_cast<uint64_t>(store_->epoch()) << 32;
  stats_.durable = store_ != nullptr;
  paused_ = options_.startPaused;

  writer_ = std::thread([this] { writerLoop(); });
  const int workers = std::max(1, options_.concurrency);
  workers_.reserve(static_cast<size_t>(workers));
  for (int i = 0; i < workers; ++i) workers_.emplace_back([this] { workerLoop(); });
}

DurableRequestExecutor::~DurableRequestExecutor() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  cancel_ = true;
  workAvailable_.notify_all();
  for (auto& worker : workers_) worker.join();
  {
    std::lock_guard lock(mutex_);
    writerStopping_ = true;
  }
  writerWake_.notify_all();
  writer_.join();  // its last sync records everything finished
}

int DurableRequestExecutor::bucketOf(int policy) { return policy == 1 || policy == 2 ? policy : 0; }

void DurableRequestExecutor::executeRequest(KVNNetworkRequest request) noexcept try {
  const uint64_t id = epochBits_ | nextCounter_.fetch_add(1, std::memory_order_relaxed);
  const int64_t created = wallMillis();
  bool durable = false;
  bool appendFailed = false;
  if (store_ && !request.restorationKind().empty() && request.restorationPayloadEncoder()) {
    // One buffer per thread: the frame costs no allocation once warm.
    thread_local std::string frame;
    frame.clear();
    try {
      const std::string payload = request.restorationPayloadEncoder()();
      appendFrame(frame, id, created, request.priority(), request.configurationPolicy(),
                  request.backgroundSessionRetryCount(), request.restorationKind(), payload);
      durable = store_->append(frame, id);
    } catch (...) {
      // An encoder that throws leaves the request in memory, like a full disk.
    }
    appendFailed = !durable;
  }

  Entry entry;
  entry.priority = request.priority();
  entry.policy = request.configurationPolicy();
  entry.retryCount = std::max(0, request.backgroundSessionRetryCount());
  entry.createdMillis = created;
  entry.durable = durable;
  entry.request = std::make_shared<const KVNNetworkRequest>(std::move(request));
  bool wake;
  {
    std::lock_guard lock(mutex_);
    if (appendFailed) ++appendFailuresSinceLog_;
    enqueue(id, std::move(entry));
    enforceCap();
    // A futex wake costs the caller more than everything else here: only
    // wake a worker that is asleep, and none while paused. A worker that is
    // awake takes the request when it looks at the queue again.
    wake = !paused_ && sleepingWorkers_ > 0;
  }
  if (wake) workAvailable_.notify_one();
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
  std::unique_lock lock(mutex_);
  if (!progress_.wait_until(lock, until, [&] { return drained(); })) return false;
  const uint64_t wanted = syncStarted_ + 1;
  syncRequested_ = true;
  writerWake_.notify_one();
  return progress_.wait_until(lock, until, [&] { return syncCompleted_ >= wanted; });
}

std::optional<StoreStats> DurableRequestExecutor::syncStore(std::chrono::milliseconds deadline) {
  const auto until = Clock::now() + deadline;
  std::unique_lock lock(mutex_);
  if (!store_) return std::nullopt;
  // After restoration, so the figures include what an earlier run left.
  if (!progress_.wait_until(lock, until, [&] { return restored_; })) return std::nullopt;
  const uint64_t wanted = syncStarted_ + 1;
  syncRequested_ = true;
  compactRequested_ = true;
  writerWake_.notify_one();
  if (!progress_.wait_until(lock, until, [&] { return syncCompleted_ >= wanted; })) {
    return std::nullopt;
  }
  return lastStoreStats_;
}

void DurableRequestExecutor::setPaused(bool paused) {
  {
    std::lock_guard lock(mutex_);
    paused_ = paused;
  }
  workAvailable_.notify_all();
}

DurableRequestExecutor::Stats DurableRequestExecutor::stats() const {
  std::lock_guard lock(mutex_);
  Stats s = stats_;
  s.waiting = entries_.size() - parked_;
  return s;
}

// MARK: - Queue (mutex_ held)

bool DurableRequestExecutor::drained() const {
  return restored_ && inFlight_ == 0 && entries_.size() == parked_;
}

void DurableRequestExecutor::enqueue(uint64_t id, Entry entry) {
  auto [it, inserted] = entries_.emplace(id, std::move(entry));
  if (!inserted) return;
  if (it->second.state == State::Parked) {
    ++parked_;
    return;
  }
  makeReady(id, it->second);
}

void DurableRequestExecutor::makeReady(uint64_t id, Entry& entry) {
  entry.state = State::Ready;
  ready_[bucketOf(entry.policy)].emplace(-entry.priority, id);
}

void DurableRequestExecutor::unlink(Entries::iterator it) {
  Entry& e = it->second;
  switch (e.state) {
    case State::Ready:
      ready_[bucketOf(e.policy)].erase({-e.priority, it->first});
      break;
    case State::Waiting: {
      auto [first, last] = waiting_.equal_range(e.due);
      for (auto w = first; w != last; ++w) {
        if (w->second == it->first) {
          waiting_.erase(w);
          break;
        }
      }
      break;
    }
    case State::Parked:
      --parked_;
      break;
    case State::InFlight:
      break;
  }
}

void DurableRequestExecutor::finish(Entries::iterator it) {
  if (it->second.durable) finished_.push_back(it->first);
  entries_.erase(it);
  if (drained()) progress_.notify_all();
}

void DurableRequestExecutor::enforceCap() {
  if (entries_.size() <= options_.maxStoredRequests) return;
  for (auto it = entries_.begin();
       it != entries_.end() && entries_.size() > options_.maxStoredRequests;) {
    if (it->second.state == State::InFlight) {
      ++it;
      continue;
    }
    unlink(it);
    if (it->second.durable) finished_.push_back(it->first);
    it = entries_.erase(it);
    ++stats_.droppedOverCap;
    ++overCapSinceLog_;
  }
}

void DurableRequestExecutor::dropExpired(int64_t nowMillis, bool scanAll) {
  const int64_t cutoff =
      nowMillis - std::chrono::duration_cast<std::chrono::milliseconds>(options_.maxAge).count();
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (it->second.createdMillis >= cutoff) {
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
    if (it->second.durable) finished_.push_back(it->first);
    it = entries_.erase(it);
    ++stats_.droppedTooOld;
    ++tooOldSinceLog_;
  }
  if (drained()) progress_.notify_all();
}

void DurableRequestExecutor::promoteDue(Clock::time_point now) {
  while (!waiting_.empty() && waiting_.begin()->first <= now) {
    const uint64_t id = waiting_.begin()->second;
    waiting_.erase(waiting_.begin());
    auto it = entries_.find(id);
    if (it != entries_.end()) makeReady(id, it->second);
  }
}

bool DurableRequestExecutor::pickReady(uint64_t& id) {
  const std::pair<int, uint64_t>* best = nullptr;
  int bestBucket = -1;
  for (int b = 0; b < 3; ++b) {
    if (ready_[b].empty()) continue;
    const auto& first = *ready_[b].begin();
    if (best != nullptr && !(first < *best)) continue;
    if (b != 0 && !KVNConfigurationPolicySatisfied(b)) continue;
    best = &first;
    bestBucket = b;
  }
  if (best == nullptr) return false;
  id = best->second;
  ready_[bestBucket].erase(ready_[bestBucket].begin());
  return true;
}

void DurableRequestExecutor::settle(uint64_t id, DeliveryVerdict verdict,
                                    const DeliveryResponse& response, const std::string& url,
                                    double jitter) {
  auto it = entries_.find(id);
  if (it == entries_.end()) return;
  Entry& e = it->second;
  switch (verdict) {
    case DeliveryVerdict::Delivered:
      ++stats_.delivered;
      finish(it);
      return;
    case DeliveryVerdict::Drop:
      ++stats_.droppedByServer;
      logger_.log(LogLevel::Error, "dropped a request refused with " + describe(response) + ": GET " +
                                       withoutQuery(url));
      finish(it);
      return;
    case DeliveryVerdict::Retry:
      if (++e.failures > e.retryCount) {
        ++stats_.droppedByServer;
        logger_.log(LogLevel::Error, "dropped a request after " + std::to_string(e.failures) +
                                         " failed attempts, the last " + describe(response) +
                                         ": GET " + withoutQuery(url));
        finish(it);
        return;
      }
      break;
    case DeliveryVerdict::RetryUncounted:
      if (stopping_) {  // abandoned by shutdown, not failed
        makeReady(id, e);
        return;
      }
      break;
  }
  auto delay = retryDelay(++e.backoffSteps, options_.retryBaseDelay, options_.maxRetryDelay, jitter);
  if (response.retryAfter) {
    if (auto asked = parseRetryAfter(*response.retryAfter, env().now())) {
      delay = std::max(delay, std::min(*asked, options_.maxRetryAfter));
    }
  }
  e.state = State::Waiting;
  e.due = Clock::now() + delay;
  waiting_.emplace(e.due, id);
}

// MARK: - Threads

void DurableRequestExecutor::workerLoop() {
  std::unique_ptr<DeliveryTransport> transport =
      options_.transport
          ? options_.transport(cancel_)
          : makeCurlTransport(cancel_, CurlTransportOptions{options_.requestTimeout,
                                                            std::min(options_.requestTimeout,
                                                                     std::chrono::milliseconds(10'000))});
  std::minstd_rand random(std::random_device{}());
  std::uniform_real_distribution<double> unit(0.0, 1.0);

  std::unique_lock lock(mutex_);
  while (!stopping_) {
    const auto now = Clock::now();
    promoteDue(now);
    uint64_t id = 0;
    if (!paused_ && pickReady(id)) {
      Entry& entry = entries_.at(id);
      entry.state = State::InFlight;
      ++inFlight_;
      ++stats_.attempts;
      const auto request = entry.request;
      lock.unlock();

      DeliveryResponse response;
      DeliveryVerdict verdict;
      std::string url;
      if (auto endpoint = request->buildEndpoint()) {
        url = endpoint->urlString();
        response = transport ? transport->get(url) : DeliveryResponse{};
        verdict = classifyDelivery(response);
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

      lock.lock();
      --inFlight_;
      settle(id, verdict, response, url, jitter);
      continue;
    }

    // Nothing to send now: sleep until a retry is due, a policy may have
    // changed, or new work arrives.
    std::optional<Clock::time_point> wake;
    if (!waiting_.empty()) wake = waiting_.begin()->first;
    const bool heldByPolicy = !paused_ && (!ready_[1].empty() || !ready_[2].empty());
    if (heldByPolicy) {
      const auto recheck = now + kPolicyRecheckInterval;
      wake = wake ? std::min(*wake, recheck) : recheck;
    }
    ++sleepingWorkers_;
    if (wake) {
      workAvailable_.wait_until(lock, *wake);
    } else {
      workAvailable_.wait(lock);
    }
    --sleepingWorkers_;
  }
}

void DurableRequestExecutor::restoreStored() {
  std::vector<StoredRequest> stored = store_->recover();
  size_t unknown = 0;
  std::vector<std::pair<uint64_t, Entry>> restored;
  restored.reserve(stored.size());
  size_t examined = 0;
  for (auto& s : stored) {
    if (examined++ % 64 == 0) {
      std::lock_guard lock(mutex_);
      if (writerStopping_) break;  // the rest stays stored for the next start
    }
    Entry entry;
    entry.priority = s.priority;
    entry.policy = s.configurationPolicy;
    entry.retryCount = std::max(0, s.retryCount);
    entry.createdMillis = s.createdMillis;
    entry.durable = true;
    if (auto request = KVNRequestRestorers::restore(s.kind, s.payload)) {
      // Sent as it was first asked for.
      request->setPriority(s.priority);
      request->setConfigurationPolicy(s.configurationPolicy);
      request->setBackgroundSessionRetryCount(s.retryCount);
      entry.request = std::make_shared<const KVNNetworkRequest>(std::move(*request));
    } else {
      entry.state = State::Parked;
      ++unknown;
    }
    restored.emplace_back(s.id, std::move(entry));
  }
  if (unknown > 0) {
    logger_.log(LogLevel::Error, std::to_string(unknown) +
                                     " stored requests could not be restored; they are kept "
                                     "until they exceed the age cap");
  }
  {
    std::lock_guard lock(mutex_);
    for (auto& [id, entry] : restored) enqueue(id, std::move(entry));
    stats_.restored = restored.size() - unknown;
    enforceCap();
    dropExpired(wallMillis(), true);
    restored_ = true;
    if (drained()) progress_.notify_all();
  }
  workAvailable_.notify_all();
}

void DurableRequestExecutor::writerLoop() {
  if (store_) {
    restoreStored();
  } else {
    std::lock_guard lock(mutex_);
    restored_ = true;
    progress_.notify_all();
  }

  auto lastFullScan = Clock::now();
  std::unique_lock lock(mutex_);
  for (;;) {
    writerWake_.wait_for(lock, options_.syncInterval,
                         [&] { return writerStopping_ || syncRequested_; });
    const bool stop = writerStopping_;
    const bool compact = compactRequested_;
    syncRequested_ = false;
    compactRequested_ = false;

    const auto now = Clock::now();
    const bool fullScan = now - lastFullScan >= kFullAgeScanInterval;
    if (fullScan) lastFullScan = now;
    dropExpired(wallMillis(), fullScan);

    std::vector<uint64_t> finished;
    finished.swap(finished_);
    const uint64_t overCap = std::exchange(overCapSinceLog_, 0);
    const uint64_t tooOld = std::exchange(tooOldSinceLog_, 0);
    const uint64_t appendFailures = std::exchange(appendFailuresSinceLog_, 0);
    const uint64_t generation = ++syncStarted_;
    lock.unlock();

    std::optional<StoreStats> storeStats;
    if (store_) {
      store_->sync(finished);
      if (compact) store_->compact();
      if (compact) storeStats = store_->stats();
    }
    if (overCap > 0) {
      logger_.log(LogLevel::Error, "dropped the " + std::to_string(overCap) +
                                       " oldest requests: more than " +
                                       std::to_string(options_.maxStoredRequests) +
                                       " were waiting");
    }
    if (tooOld > 0) {
      logger_.log(LogLevel::Error, "dropped " + std::to_string(tooOld) +
                                       " requests older than " +
                                       std::to_string(options_.maxAge.count()) + " s");
    }
    if (appendFailures > 0) {
      logger_.log(LogLevel::Error, std::to_string(appendFailures) +
                                       " requests could not be stored and are kept in memory only");
    }

    lock.lock();
    if (storeStats) lastStoreStats_ = storeStats;
    syncCompleted_ = generation;
    progress_.notify_all();
    if (stop) break;
  }
}

}  // namespace korvel::platform
