// The durable executor's workers and backoff: a worker takes the next
// request, builds its URL, sends it and settles the answer (delivered,
// retried, held while its host backs off, dropped); per-host backoff and
// probes.
#include <korvel/network/internal/DurableRequestExecutor.h>

#include <algorithm>
#include <deque>
#include <optional>
#include <random>
#include <thread>
#include <utility>

#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/KVNRequestReload.h>
#include <korvel/network/internal/DeliveryShared.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/internal/Threads.h>

using korvel::platform::LogLevel;
using korvel::platform::env;
using korvel::platform::internal::lowerThisThreadPriority;
using korvel::platform::internal::nameThisThread;

namespace korvel::network::internal {

namespace fs = std::filesystem;
using namespace delivery;

namespace {

// How often requests held back by their configuration policy are looked at
// again; the configuration announces no changes.
constexpr auto kPolicyRecheckInterval = std::chrono::milliseconds(50);

// Requests one look at the queue settles without a transfer (held for a
// backing-off host, unreadable, oversize) while the sender has others on
// the wire, before it lets their answers in.
constexpr size_t kSettledPerLookOnTheWire = 16;

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

// The URL without its query, for log lines (the query carries the inid).
std::string withoutQuery(const std::string& url) { return url.substr(0, url.find('?')); }

// Where no transport could be made: nothing answers.
class Unreachable final : public DeliveryTransport {
 public:
  DeliveryResponse get(const std::string&) override { return DeliveryResponse{}; }
};

std::string describe(const DeliveryResponse& response) {
  if (response.status != 0) return "HTTP " + std::to_string(response.status);
  return response.error.empty() ? std::string("no answer") : response.error;
}

}  // namespace

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
      wakeIdleWriter();
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
    wakeIdleWriter();
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
      observe(Event::Outcome::Delivered, describe(response), url);
      finish(it);
      return;
    case DeliveryVerdict::Drop:
      ++stats_.droppedByServer;
      observe(Event::Outcome::Dropped, "refused with " + describe(response), url);
      logRepeated("dropped a request refused with " + describe(response) + ": GET " +
                  withoutQuery(url));
      finish(it);
      return;
    case DeliveryVerdict::Retry:
      if (++e.failures > e.retryCount) {
        ++stats_.droppedByServer;
        observe(Event::Outcome::Dropped,
                "retries used up, the last " + describe(response), url);
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
  observe(Event::Outcome::WillRetry, describe(response), url);
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

void DurableRequestExecutor::observe(Event::Outcome outcome, std::string reason,
                                     const std::string& url) {
  if (!options_.observer) return;
  Event event;
  event.outcome = outcome;
  event.reason = std::move(reason);
  // The beacon's uuid, as its URL carries it.
  constexpr std::string_view kKey = "clientbeaconuuid=";
  const size_t query = url.find('?');
  for (size_t at = query; at != std::string::npos && at + 1 < url.size();
       at = url.find('&', at + 1)) {
    if (url.compare(at + 1, kKey.size(), kKey) == 0) {
      const size_t begin = at + 1 + kKey.size();
      event.uuid = url.substr(begin, url.find('&', begin) - begin);
      break;
    }
  }
  events_.push_back(std::move(event));
}

void DurableRequestExecutor::deliverEvents() {
  if (events_.empty()) return;
  std::vector<Event> events;
  events.swap(events_);
  mutex_.unlock();
  for (const Event& event : events) {
    try {
      options_.observer(event);
    } catch (...) {
      // The observer's failure is its own.
    }
  }
  mutex_.lock();
}

void DurableRequestExecutor::logRepeated(const std::string& line) {
  auto [it, first] = repeated_.try_emplace(line, 0);
  wakeIdleWriter();  // it sums the repeats up
  if (first) {
    logger_.log(LogLevel::Error, line);
  } else {
    ++it->second;
  }
}

// MARK: - Workers

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

// What a sender's transport sends: each request it asks for is taken from
// the queue and made ready (nextFlight), each answer settled (landFlight),
// every call with mutex_ taken for its length.
class DurableRequestExecutor::SenderFeed final : public DeliveryFeed {
 public:
  explicit SenderFeed(DurableRequestExecutor& executor)
      : executor_(executor), random_(std::random_device{}()) {}

  bool next(DeliveryJob& job) override {
    size_t slot = 0;
    while (slot < flights_.size() && flights_[slot].used) ++slot;
    if (slot == flights_.size()) flights_.emplace_back();
    Flight& flight = flights_[slot];
    // With answers to tend on the wire, a look that only settles requests
    // (reads them back to find they wait for a host that backs off) stops
    // early: a restored backlog of thousands would keep a probe's answer
    // waiting for all of them.
    const bool onTheWire = std::any_of(flights_.begin(), flights_.end(),
                                       [](const Flight& f) { return f.used; });
    executor_.mutex_.lock();
    const bool taken = executor_.nextFlight(flight, unit_(random_),
                                            onTheWire ? kSettledPerLookOnTheWire : SIZE_MAX,
                                            yielded_);
    executor_.mutex_.unlock();
    if (!taken) return false;
    flight.used = true;
    tookAny_ = true;
    job.tag = slot;
    job.url = &flight.url;
    return true;
  }

  bool askAgainSoon() const override { return yielded_; }

  void done(uint64_t tag, DeliveryResponse response) override {
    if (tag >= flights_.size() || !flights_[tag].used) return;  // not one it handed out
    Flight& flight = flights_[tag];
    const double jitter = unit_(random_);
    executor_.mutex_.lock();
    executor_.landFlight(flight, classifyDelivery(response), response, jitter);
    executor_.mutex_.unlock();
    flight.used = false;
  }

  // Whether any request went to the transport since the last call.
  bool tookAny() { return std::exchange(tookAny_, false); }

 private:
  DurableRequestExecutor& executor_;
  std::deque<Flight> flights_;  // by tag; a deque keeps the URLs handed out where they are
  std::minstd_rand random_;
  std::uniform_real_distribution<double> unit_{0.0, 1.0};
  bool tookAny_ = false;
  bool yielded_ = false;  // the last look stopped early
};

bool DurableRequestExecutor::nextFlight(Flight& flight, double jitter, size_t settleBudget,
                                        bool& yielded) {
  yielded = false;
  for (size_t settled = 0;; ++settled) {
    if (settled == settleBudget) {
      yielded = true;
      return false;
    }
    deliverEvents();
    if (stopping_) return false;
    adoptHandoffs();
    const auto now = Clock::now();
    promoteDue(now);
    uint64_t id = 0;
    int probeHost = -1;
    if (paused_ || !(pickProbe(now, id, probeHost) || pickReady(id))) return false;
    Entry& entry = entries_.at(id);
    entry.state = State::InFlight;
    ++inFlight_;
    // Reports wake one sender; it wakes the next while there is more, or,
    // when none sleeps, starts one (a backlog), up to the concurrency.
    if (moreReady()) {
      if (sleepingWorkers_ > 0) {
        workAvailable_.signal();
      } else if (sendersRunning_ < maxSenders()) {
        startSender();
      }
    }
    std::shared_ptr<const KVNNetworkRequest> request;
    if (auto kept = whole_.find(id); kept != whole_.end()) request = kept->second;
    const bool stored = entry.durable && !request;
    mutex_.unlock();

    if (stored) request = readBack(id);
    std::optional<KVNEndpoint> endpoint;
    if (request) endpoint = request->buildEndpoint();
    if (!request) {
      mutex_.lock();
      --inFlight_;
      auto it = entries_.find(id);
      if (it != entries_.end()) {
        // A read error (no descriptor to be had, an unreadable file) is
        // no reason to delete it: it leaves this run's queue but stays
        // stored, and the next start restores it.
        ++stats_.leftUnreadable;
        logRepeated("a stored request could not be read back from the journal; it stays "
                    "stored for the next start");
        it->second.durable = false;  // finishing it must not forget it in the store
        finish(it);
      }
      if (probeHost >= 0) hosts_[static_cast<size_t>(probeHost)].probing = false;
      continue;
    }
    flight.id = id;
    flight.host = -1;
    flight.probeHost = probeHost;
    flight.url.clear();
    if (!endpoint) {
      // Settled without a transfer: the configuration changed under it (it
      // waits for its policy again), or it has no URL.
      DeliveryResponse response;
      DeliveryVerdict verdict;
      if (!KVNConfigurationPolicySatisfied(request->configurationPolicy())) {
        response.error = "configuration no longer allows it";
        verdict = DeliveryVerdict::RetryUncounted;
      } else {
        response.reachedServer = true;
        response.error = "no endpoint URL";
        verdict = DeliveryVerdict::Retry;
      }
      mutex_.lock();
      landFlight(flight, verdict, response, jitter);
      continue;
    }
    flight.url = endpoint->urlString();
    request.reset();
    mutex_.lock();
    const int host = hostIndex(hostOf(flight.url));
    flight.host = host;
    Host& h = hosts_[static_cast<size_t>(host)];
    entries_.at(id).host = static_cast<int16_t>(host);
    if (probeHost >= 0 && probeHost != host) {
      // Picked as another host's probe, but its URL now names this one.
      hosts_[static_cast<size_t>(probeHost)].probing = false;
      probeHost = -1;
    }
    if (h.steps > 0 && probeHost != host) {
      // The host backs off: no connection; it waits with the others
      // (unless it was purged meanwhile). When the probe fell due while
      // this URL was built, the first of those waiting goes as the probe,
      // not this one that only now learnt its host.
      if (h.probing || Clock::now() < h.notBefore || !h.held.empty()) {
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
    flight.probeHost = probeHost;
    if (flight.url.size() > options_.maxRequestBytes) {
      --inFlight_;
      if (probeHost >= 0) hosts_[static_cast<size_t>(probeHost)].probing = false;
      auto it = entries_.find(id);
      if (it != entries_.end()) {
        ++stats_.droppedOversize;
        observe(Event::Outcome::Dropped, "URL longer than " +
                                             std::to_string(options_.maxRequestBytes) +
                                             " bytes", flight.url);
        logRepeated("dropped a request whose URL has " + std::to_string(flight.url.size()) +
                    " bytes: more than " + std::to_string(options_.maxRequestBytes) +
                    " bytes are never sent");
        finish(it);
      }
      continue;
    }
    ++stats_.attempts;
    return true;
  }
}

void DurableRequestExecutor::landFlight(Flight& flight, DeliveryVerdict verdict,
                                        const DeliveryResponse& response, double jitter) {
  --inFlight_;
  int probeHost = flight.probeHost;
  if (probeHost >= 0 && probeHost != flight.host) {
    hosts_[static_cast<size_t>(probeHost)].probing = false;
    probeHost = -1;
  }
  settle(flight.id, verdict, response, flight.url, jitter, flight.host, probeHost >= 0);
}

size_t DurableRequestExecutor::maxSenders() const {
  // Until the first sender made its transport, nobody knows how much one
  // carries: no second one yet.
  if (transportParallelism_ == 0) return 1;
  const size_t concurrency = static_cast<size_t>(std::max(1, options_.concurrency));
  return std::max<size_t>(1, (concurrency + transportParallelism_ - 1) / transportParallelism_);
}

void DurableRequestExecutor::workerLoop() {
  nameThisThread("korvel-send");
  lowerThisThreadPriority();
  // The system's transport carries the whole concurrency on this one
  // sender (libcurl's multi interface); one that carries less gets more
  // senders under a backlog.
  const size_t concurrency = static_cast<size_t>(std::max(1, options_.concurrency));
  std::unique_ptr<DeliveryTransport> transport =
      options_.transport
          ? options_.transport(cancel_)
          : makeSystemTransport(cancel_, TransportOptions{options_.requestTimeout,
                                                          std::min(options_.requestTimeout,
                                                                   std::chrono::milliseconds(10'000)),
                                                          concurrency});
  if (!transport) transport = std::make_unique<Unreachable>();
  SenderFeed feed(*this);

  // Since when this sender found nothing to send; an extra one ends after
  // the idle timeout.
  Clock::time_point idleSince{};
  bool idle = false;
  bool ended = false;
  mutex_.lock();
  transportParallelism_ = std::clamp<size_t>(transport->parallelism(), 1, concurrency);
  while (!stopping_) {
    mutex_.unlock();
    transport->send(feed);
    mutex_.lock();
    if (feed.tookAny()) idle = false;
    if (stopping_) break;

    // Nothing to send now (the feed's last look found nothing): sleep until
    // a retry or a host's probe is due, a policy may have changed, or new
    // work arrives.
    const auto now = Clock::now();
    std::optional<Clock::time_point> wake;
    auto wakeBy = [&wake](Clock::time_point at) { wake = wake ? std::min(*wake, at) : at; };
    if (!waiting_.empty()) wakeBy(waiting_.begin()->first);
    // A host that backs off with requests held wakes a sender at its probe
    // time (or soon, when its probe is due but the configuration holds its
    // requests back). A probe on its way needs no timer: its sender looks
    // again when it ends, and new reports wake a sender themselves.
    for (const Host& h : hosts_) {
      if (h.steps == 0 || h.probing || h.held.empty()) continue;
      wakeBy(h.notBefore > now ? h.notBefore : now + kPolicyRecheckInterval);
    }
    if (!paused_ && (!ready_[1].empty() || !ready_[2].empty())) {
      wakeBy(now + kPolicyRecheckInterval);
    }
    if (sendersRunning_ > 1) {
      // An extra sender with nothing to send ends after the idle timeout.
      if (!idle) idleSince = now;
      idle = true;
      if (now - idleSince >= options_.idleSenderTimeout) {
        // Counted out now, while mutex_ is held: deliverEvents below lets
        // it go, and another idle sender deciding meanwhile must see this
        // one gone, or both would end and leave none.
        --sendersRunning_;
        ended = true;
        break;
      }
      wakeBy(idleSince + options_.idleSenderTimeout);
    }
    // Reports handed over after the feed's last look wake no sender while
    // this one is awake; the writer (or a figures call) may have queued
    // them meanwhile. They are sent now, not after the next report.
    if (!paused_ && moreReady()) continue;
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
  deliverEvents();
  if (ended) {
    // Listed for startSender (or the destructor) to join; mutex_ is not
    // taken again by this thread.
    endedSenders_.push_back(std::this_thread::get_id());
  }
  mutex_.unlock();
}

bool DurableRequestExecutor::moreReady() const {
  if (!ready_[0].empty()) return true;
  for (int b = 1; b < 3; ++b) {
    if (!ready_[b].empty() && KVNConfigurationPolicySatisfied(b)) return true;
  }
  return false;
}

bool DurableRequestExecutor::startSender() {
  if (stopping_) return false;
  if (!endedSenders_.empty()) {
    // Each let go of mutex_ for the last time before it was listed: the
    // joins wait for no more than its exit.
    for (auto it = workers_.begin(); it != workers_.end();) {
      if (std::find(endedSenders_.begin(), endedSenders_.end(), it->get_id()) !=
          endedSenders_.end()) {
        it->join();
        it = workers_.erase(it);
      } else {
        ++it;
      }
    }
    endedSenders_.clear();
  }
  try {
    workers_.emplace_back([this] { workerLoop(); });
  } catch (...) {
    // No thread to be had: the running senders carry on.
    return false;
  }
  ++sendersRunning_;
  return true;
}

}  // namespace korvel::network::internal
