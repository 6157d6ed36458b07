// The durable executor's queue and index: where each waiting request is
// (ready by policy bucket, waiting on its own, held for a backing-off host,
// parked, in flight), the caps, and which request goes next. Everything here
// runs with mutex_ held.
#include <korvel/network/internal/DurableRequestExecutor.h>

#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/network/internal/DeliveryShared.h>

using korvel::platform::LogLevel;

namespace korvel::network::internal {

namespace fs = std::filesystem;
using namespace delivery;

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
  if (it->second.durable) {
    finished_.push_back(it->first);
    wakeIdleWriter();  // the store forgets it at the next sync
  }
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
    const QueueKey* best = nullptr;
    int bestBucket = -1;
    for (int b = 0; b < 3; ++b) {
      if (ready_[b].empty()) continue;
      const auto& first = ready_[b].begin()->first;
      if (best != nullptr && !(first < *best)) continue;
      if (b != 0 && !KVNConfigurationPolicySatisfied(b)) continue;
      best = &first;
      bestBucket = b;
    }
    if (best == nullptr) {
      noteHeldByPolicy();
      return false;
    }
    // Its policy lets it go: the next hold is worth a line again.
    if (bestBucket != 0) policyHoldLogged_ &= static_cast<uint8_t>(~(1u << bestBucket));
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

void DurableRequestExecutor::noteHeldByPolicy() {
  for (int b = 1; b < 3; ++b) {
    const uint8_t bit = static_cast<uint8_t>(1u << b);
    if (ready_[b].empty() || (policyHoldLogged_ & bit) != 0 || KVNConfigurationPolicySatisfied(b)) {
      continue;
    }
    policyHoldLogged_ |= bit;
    logger_.log(LogLevel::Error,
                std::to_string(ready_[b].size()) + " requests wait: the configuration " +
                    (b == 2 ? "has no beacon endpoint or no inid" : "is not configured") +
                    "; they go out once it allows (said once until then)");
  }
}

}  // namespace korvel::network::internal
