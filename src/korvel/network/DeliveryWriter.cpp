// The durable executor's writer thread: restores what earlier runs stored,
// then, while anything is unsynced or left to do, every sync interval syncs
// the journal, tells it what is finished,
// applies the age cap, writes the collapsed log lines and keeps the hosts'
// Retry-After times and the store's clock in the directory; with nothing
// left it sleeps until work arrives, with no timer. Requests the
// store refused (a full disk, the folder gone) are stored by it once the
// store takes appends again.
#include <korvel/network/internal/DurableRequestExecutor.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include <korvel/foundation/KVNRequestReload.h>
#include <korvel/network/internal/DeliveryShared.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/internal/Threads.h>

using korvel::platform::LogLevel;
using korvel::platform::internal::batchThisThread;
using korvel::platform::internal::nameThisThread;
using korvel::foundation::internal::MutexLock;

namespace korvel::network::internal {

using namespace delivery;

namespace {

// The age cap is applied from the oldest entry on at every sync; a full scan
// (entries restored out of order) runs this often.
constexpr auto kFullAgeScanInterval = std::chrono::minutes(1);
// Past this many restored requests the memory their payloads took is given
// back to the system.
constexpr size_t kRestoreTrimThreshold = 10'000;
// Repeated log lines are summed up this often.
constexpr auto kRepeatedLogInterval = std::chrono::seconds(1);
// The file in the store's directory that keeps hosts' Retry-After times.
constexpr const char* kHostsFile = "hosts";
// The file that keeps the store's clock across runs, and how often the
// writer brings it up to date.
constexpr const char* kClockFile = "clock";
constexpr int64_t kClockSaveIntervalMillis = 60'000;

}  // namespace

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
  const int64_t monotonicNow = monotonicMillis();
  const int64_t clockNow = storeClockMillis(monotonicNow);
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
      entry.bytes = static_cast<uint32_t>(frameBytes(s.kind, s.payload));
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
  // Read through the store, relative to its folder, following no link.
  const auto text = store_->readSmallFile(kHostsFile);
  if (!text) return;
  std::istringstream in(*text);
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
  return storeClockMillis(monotonicMillis());
}

int64_t DurableRequestExecutor::storeClockMillis(int64_t monotonicNow) const {
  return std::max(wallMillis(), clockBaseMillis_ + (monotonicNow - monotonicBaseMillis_));
}

void DurableRequestExecutor::loadClock() {
  const auto text = store_->readSmallFile(kClockFile);
  if (!text) return;
  char* end = nullptr;
  const long long stored = std::strtoll(text->c_str(), &end, 10);
  if (end == text->c_str()) return;
  clockBaseMillis_ = std::max<int64_t>(clockBaseMillis_, stored);
}

void DurableRequestExecutor::saveClock(int64_t millis) {
  store_->writeSmallFile(kClockFile, std::to_string(millis) + "\n");
}

void DurableRequestExecutor::saveHosts(const std::vector<std::pair<std::string, int64_t>>& hosts) {
  if (hosts.empty()) {
    store_->removeSmallFile(kHostsFile);
    return;
  }
  std::string text;
  for (const auto& [name, until] : hosts) text += name + " " + std::to_string(until) + "\n";
  store_->writeSmallFile(kHostsFile, text);
}

void DurableRequestExecutor::storeUnstored() {
  struct Pending {
    uint64_t id;
    int64_t bornMillis;
    std::shared_ptr<const KVNNetworkRequest> request;
  };
  std::vector<Pending> pending;
  {
    MutexLock lock(mutex_);
    for (uint64_t id : unstored_) {
      auto it = entries_.find(id);
      auto whole = whole_.find(id);
      // Delivered or dropped meanwhile: nothing to keep.
      if (it == entries_.end() || it->second.durable || whole == whole_.end()) continue;
      pending.push_back({id, it->second.bornMillis, whole->second});
    }
    unstored_.clear();
  }
  // Framed and appended without the queue's lock, as a report call does.
  std::string frame;
  std::vector<std::pair<uint64_t, uint32_t>> stored;
  size_t next = 0;
  for (; next < pending.size(); ++next) {
    const Pending& p = pending[next];
    size_t bytes = 0;
    if (storeRequest(*p.request, p.id, storeClockMillis(p.bornMillis), frame, bytes) !=
        Stored::Yes) {
      break;  // the store refuses again: the rest wait for the next sync
    }
    stored.emplace_back(p.id, static_cast<uint32_t>(bytes));
  }
  {
    MutexLock lock(mutex_);
    // None left: durable again, as when a report call's append works.
    if (next == pending.size() && !stored.empty()) appendsFailing_ = false;
    for (; next < pending.size(); ++next) unstored_.push_back(pending[next].id);
    for (const auto& [id, bytes] : stored) {
      auto it = entries_.find(id);
      if (it == entries_.end()) {
        // Finished while being stored: the store forgets it at the next sync.
        finished_.push_back(id);
        continue;
      }
      it->second.durable = true;
      it->second.bytes = bytes;
      storedBytes_ += bytes;
    }
  }
  if (!stored.empty()) {
    logger_.log(LogLevel::Info, "stored the " + std::to_string(stored.size()) +
                                    " requests kept in memory while the store could not take them; "
                                    "requests are durable again");
  }
}

bool DurableRequestExecutor::writerHasWork() const {
  return !finished_.empty() || appendsSinceLog_ > 0 || appendFailuresSinceLog_ > 0 ||
         !unstored_.empty() || hostsDirty_ || overCapSinceLog_ > 0 || tooOldSinceLog_ > 0 ||
         !repeated_.empty() || segmentSwitched_.load(std::memory_order_acquire) ||
         handoffsWaiting_.load(std::memory_order_acquire);
}

bool DurableRequestExecutor::sleepUntilWork() {
  {
    // Checked and set under the hand-off lock: a report call that hands a
    // request over after this sees the flag and wakes the writer.
    MutexLock lock(handoffMutex_);
    if (!handoffs_.empty()) return false;
    writerIdle_.store(true, std::memory_order_relaxed);
  }
  while (writerIdle_.load(std::memory_order_relaxed) && !writerStopping_ && !syncRequested_) {
    writerWake_.wait(mutex_);
  }
  writerIdle_.store(false, std::memory_order_relaxed);
  return true;
}

void DurableRequestExecutor::wakeIdleWriter() {
  if (writerIdle_.exchange(false, std::memory_order_relaxed)) writerWake_.signal();
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
  // The first pass makes the journal's spare segment, whatever comes.
  bool storeSettled = false;
  mutex_.lock();
  for (;;) {
    // Nothing unsynced and no duty left: no timer, the writer sleeps until
    // work arrives (a report, a finished request, a log line, a flush).
    if (storeSettled && !writerStopping_ && !syncRequested_ && !writerHasWork() &&
        sleepUntilWork()) {
      // Repeats of a line written while it slept are summed a full
      // interval from now.
      lastRepeatedLog = Clock::now();
    }
    const auto until = Clock::now() + options_.syncInterval;
    while (!writerStopping_ && !syncRequested_) {
      // A switch signalled between this check and the wait is seen at the
      // next interval: the hint only brings the sync forward.
      if (segmentSwitched_.exchange(false, std::memory_order_acquire)) break;
      if (handoffsWaiting_.exchange(false, std::memory_order_acquire)) {
        // A burst between syncs: its requests go into the queue, and their
        // appends into the store's index, a batch at a time rather than all
        // at the next sync.
        adoptHandoffs();
        if (store_) {
          mutex_.unlock();
          store_->takeAppends();
          mutex_.lock();
        }
      }
      if (!writerWake_.waitUntil(mutex_, until)) break;
    }
    adoptHandoffs();  // counts their appends and applies the caps to them
    // Reports wake only a sender that sleeps: a backlog that arrived while
    // every sender was on the wire gets another sender here.
    if (!paused_ && sleepingWorkers_ == 0 && moreReady() && sendersRunning_ < maxSenders()) {
      startSender();
    }
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
    const bool unstored = !unstored_.empty();
    mutex_.unlock();

    std::optional<StoreStats> storeStats;
    if (store_) {
      store_->sync(finished);
      if (unstored && store_->durable()) storeUnstored();
      if (compact) store_->compact();
      if (compact) storeStats = store_->stats();
      storeSettled = store_->settled();
    } else {
      storeSettled = true;
    }
    if (hosts && store_) saveHosts(*hosts);
    // Brought up to date at a sync, never on a timer of its own: a run
    // that idles for long still moves it at its end.
    if (store_ && (stop || monotonicMillis() - lastClockSave >= kClockSaveIntervalMillis)) {
      lastClockSave = monotonicMillis();
      saveClock(storeClockMillis());
    }
    for (const auto& line : repeatedLines) logger_.log(LogLevel::Error, line);
    if (options_.observer && (overCap > 0 || tooOld > 0)) {
      auto dropped = [this](uint64_t count, std::string reason) {
        Event event;
        event.outcome = Event::Outcome::Dropped;
        event.reason = std::move(reason);
        event.count = count;
        try {
          options_.observer(event);
        } catch (...) {
          // The observer's failure is its own.
        }
      };
      if (overCap > 0) dropped(overCap, "over the stored requests' count or bytes");
      if (tooOld > 0) dropped(tooOld, "older than the age cap");
    }
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

}  // namespace korvel::network::internal
