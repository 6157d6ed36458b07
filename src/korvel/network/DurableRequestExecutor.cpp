// The durable executor's construction and its public calls: a report call's
// append and hand-off, flush, pause, purge and figures. The queue is in
// DeliveryQueue.cpp, the workers in DeliveryWorkers.cpp, the writer thread
// in DeliveryWriter.cpp.
#include <korvel/network/internal/DurableRequestExecutor.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include <korvel/network/internal/DeliveryShared.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/internal/System.h>

using korvel::platform::env;
using korvel::platform::LogLevel;
using korvel::platform::Logger;
using korvel::foundation::internal::MutexLock;

namespace korvel::network::internal {

namespace fs = std::filesystem;
using namespace delivery;

namespace {

// Report calls hand over at most about this many requests before the writer
// is asked to take them, so that a burst with nobody sending (paused, or
// every host backing off) does not grow the list.
constexpr size_t kHandoffBatch = 1024;

// A reporting thread keeps a frame buffer of up to this many bytes.
constexpr size_t kKeptFrameCapacity = 64u << 10;

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

Logger makeLogger() {
  return Logger(env().mainBundleIdentifier().value_or("Unknown bundle"), "Delivery");
}

}  // namespace

fs::path DurableRequestExecutor::defaultDirectory(const std::string& sessionIdentifier) {
  const fs::path base = platform::internal::userDataFolder();
  if (base.empty()) return {};
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
    auto opened = openJournalRequestStoreWithReason(storeOptions);
    store_ = std::move(opened.store);
    storeFailure_ = std::move(opened.failure);
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
  // One sender; more start under a backlog (startSender).
  MutexLock lock(mutex_);
  startSender();
}

DurableRequestExecutor::~DurableRequestExecutor() {
  std::vector<std::thread> workers;
  {
    MutexLock lock(mutex_);
    stopping_ = true;  // no sender starts from now on
    workers.swap(workers_);
  }
  cancel_ = true;
  workAvailable_.signalAll();
  for (auto& worker : workers) worker.join();
  {
    MutexLock lock(mutex_);
    writerStopping_ = true;
  }
  writerWake_.signalAll();
  writer_.join();  // its last sync records everything finished
}

int DurableRequestExecutor::bucketOf(int policy) { return policy == 1 || policy == 2 ? policy : 0; }

DurableRequestExecutor::Stored DurableRequestExecutor::storeRequest(
    const KVNNetworkRequest& request, uint64_t id, int64_t createdMillis, std::string& frame,
    size_t& bytes) {
  frame.clear();
  try {
    beginFrame(frame, id, createdMillis, request.priority(), request.configurationPolicy(),
               request.backgroundSessionRetryCount(), request.restorationKind());
    const size_t payloadAt = frame.size();
    request.restorationPayloadEncoder()(frame);
    // An encoder only appends; one that cut the frame is taken for one
    // that failed.
    if (frame.size() < payloadAt) return Stored::No;
    const size_t payloadBytes = frame.size() - payloadAt;
    if (payloadBytes > options_.maxRequestBytes) {
      bytes = payloadBytes;
      return Stored::Oversize;
    }
    finishFrame(frame, 0);
    bytes = frame.size();
    return store_->append(frame, id) ? Stored::Yes : Stored::No;
  } catch (...) {
    // An encoder that throws leaves the request in memory, like a full disk.
    return Stored::No;
  }
}

void DurableRequestExecutor::executeRequest(KVNNetworkRequest request) noexcept try {
  const uint64_t id = epochBits_ | nextCounter_.fetch_add(1, std::memory_order_relaxed);
  // One monotonic reading serves both the age and the stored stamp.
  const int64_t born = monotonicMillis();
  const int64_t created = storeClockMillis(born);
  bool durable = false;
  bool appendFailed = false;
  bool oversize = false;
  size_t bytes = 0;
  if (store_ && !request.restorationKind().empty() && request.restorationPayloadEncoder()) {
    // One buffer per thread, which the payload is encoded straight into:
    // the frame costs no allocation once warm. One that an unusually large
    // request grew is let go afterwards.
    thread_local std::string frame;
    switch (storeRequest(request, id, created, frame, bytes)) {
      case Stored::Yes: durable = true; break;
      case Stored::Oversize: oversize = true; break;
      case Stored::No: appendFailed = true; break;
    }
    if (frame.capacity() > kKeptFrameCapacity) frame = std::string();
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
  Entry& entry = handoff.entry;
  entry.refused = appendFailed;
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
  std::shared_ptr<const KVNNetworkRequest> whole;
  if (!durable || keepWhole_.load(std::memory_order_relaxed)) {
    whole = std::make_shared<const KVNNetworkRequest>(std::move(request));
  }
  std::shared_ptr<const KVNNetworkRequest> dropped;  // freed outside the lock
  bool wake;
  bool wakeWriter;
  bool nudgeWriter;
  {
    MutexLock lock(handoffMutex_);
    // However many arrive before a worker or the writer looks, no more
    // than kKeptWholeBytes of them wait whole.
    if (durable && whole) {
      if (handoffKeptBytes_ + bytes > kKeptWholeBytes) {
        dropped = std::move(whole);
      } else {
        handoffKeptBytes_ += bytes;
      }
    }
    // Only the first request handed over wakes a worker: the worker takes
    // the whole list, and wakes more workers when there is more to send.
    wake = handoffs_.empty() && wakeableWorkers_ > 0;
    // A writer asleep with nothing to sync syncs this one within the
    // interval; only the first report after such a sleep sees the flag.
    wakeWriter = writerIdle_.load(std::memory_order_relaxed);
    handoffs_.push_back(handoff);
    if (whole) handoffsWhole_.emplace_back(id, std::move(whole));
    nudgeWriter = handoffs_.size() % kHandoffBatch == 0;
  }
  if (nudgeWriter) {
    handoffsWaiting_.store(true, std::memory_order_release);
    writerWake_.signal();
  }
  if (wake || wakeWriter) {
    // A worker or the writer registered as asleep holds mutex_ until it
    // waits: taking it here makes sure the signal finds it waiting.
    MutexLock lock(mutex_);
    if (wake) workAvailable_.signal();
    if (wakeWriter) wakeIdleWriter();
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
  s.senders = sendersRunning_;
  s.syncs = syncCompleted_;
  s.writerIdle = writerIdle_.load(std::memory_order_relaxed);
  return s;
}

// MARK: - Hand-off (mutex_ held)

void DurableRequestExecutor::adoptHandoffs() {
  {
    MutexLock lock(handoffMutex_);
    if (handoffs_.empty()) return;
    adopting_.swap(handoffs_);
    adoptingWhole_.swap(handoffsWhole_);
    handoffKeptBytes_ = 0;
  }
  // A stored request that has to wait is read back when its turn comes;
  // while the ready ones come to few bytes it stays whole and goes out
  // without a read: the first of a burst, up to kKeptWholeBytes.
  const bool mayKeep = hostsBackingOff_ == 0 && !paused_;
  size_t keptBytes = readyFrameBytes();
  auto whole = adoptingWhole_.begin();
  for (Handoff& handoff : adopting_) {
    std::shared_ptr<const KVNNetworkRequest> request;
    if (whole != adoptingWhole_.end() && whole->first == handoff.id) request = std::move((whole++)->second);
    if (handoff.entry.refused) {
      handoff.entry.refused = false;
      ++appendFailuresSinceLog_;
      unstored_.push_back(handoff.id);
    }
    if (handoff.entry.durable) {
      ++appendsSinceLog_;
      if (request && mayKeep && keptBytes + handoff.entry.bytes <= kKeptWholeBytes) {
        keptBytes += handoff.entry.bytes;
      } else {
        request.reset();
      }
    }
    enqueue(handoff.id, handoff.entry, std::move(request));
  }
  adopting_.clear();
  adoptingWhole_.clear();
  enforceCap();
  refreshKeepWhole();
}

size_t DurableRequestExecutor::readyFrameBytes() const {
  const size_t ready = ready_[0].size() + ready_[1].size() + ready_[2].size();
  if (ready == 0 || entries_.empty()) return 0;
  return static_cast<size_t>(storedBytes_ / entries_.size()) * ready;
}

void DurableRequestExecutor::refreshKeepWhole() {
  keepWhole_.store(hostsBackingOff_ == 0 && !paused_ && readyFrameBytes() < kKeptWholeBytes,
                   std::memory_order_relaxed);
}

bool DurableRequestExecutor::markAsleep(bool& wakeable) {
  MutexLock lock(handoffMutex_);
  if (!handoffs_.empty()) return false;
  // While paused, reports wake no worker: delivery resuming does. While a
  // host backs off they do (the new requests may be for another host); the
  // ones for that host are held without a connection.
  wakeable = !paused_;
  if (wakeable) ++wakeableWorkers_;
  return true;
}

void DurableRequestExecutor::markAwake(bool wakeable) {
  if (!wakeable) return;
  MutexLock lock(handoffMutex_);
  --wakeableWorkers_;
}

}  // namespace korvel::network::internal
