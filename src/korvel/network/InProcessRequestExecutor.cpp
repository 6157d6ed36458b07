#include <korvel/network/InProcessRequestExecutor.h>
#include <korvel/platform/internal/Threads.h>

#include <algorithm>
#include <deque>
#include <new>

#include <korvel/foundation/internal/Mutex.h>

#include <korvel/platform/Env.h>
#include <korvel/platform/Logging.h>

using korvel::foundation::internal::CondVar;
using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace {
// How often a request held back by its configuration policy is re-checked.
constexpr auto kPolicyRecheckInterval = std::chrono::milliseconds(50);
}  // namespace

struct InProcessRequestExecutor::State {
  // Queues request in priority order (higher first), FIFO within one.
  void enqueue(KVNNetworkRequest request) KORVEL_EXCLUDES(mutex) {
    MutexLock lock(mutex);
    auto at = std::find_if(queue.begin(), queue.end(), [&](const KVNNetworkRequest& r) {
      return r.priority() < request.priority();
    });
    queue.insert(at, std::move(request));
  }

  void stop() KORVEL_EXCLUDES(mutex) {
    MutexLock lock(mutex);
    stopping = true;
  }

  void dropQueued() KORVEL_EXCLUDES(mutex) {
    MutexLock lock(mutex);
    queue.clear();
    drained.signalAll();
  }

  bool flush(std::chrono::steady_clock::time_point until) KORVEL_EXCLUDES(mutex) {
    MutexLock lock(mutex);
    while (!(queue.empty() && inFlight == 0)) {
      if (!drained.waitUntil(mutex, until)) return queue.empty() && inFlight == 0;
    }
    return true;
  }

  // The worker's loop, until stop().
  void run(const Transport& transport) KORVEL_EXCLUDES(mutex) {
    mutex.lock();
    while (!stopping) {
      auto ready = std::find_if(queue.begin(), queue.end(), [](const KVNNetworkRequest& r) {
        return KVNConfigurationPolicySatisfied(r.configurationPolicy());
      });
      if (ready == queue.end()) {
        if (queue.empty()) {
          wake.wait(mutex);
        } else {
          wake.waitFor(mutex, kPolicyRecheckInterval);
        }
        continue;
      }
      KVNNetworkRequest request = std::move(*ready);
      queue.erase(ready);
      ++inFlight;
      mutex.unlock();

      if (auto endpoint = request.buildEndpoint()) {
        for (int attempt = 0; attempt <= std::max(0, request.backgroundSessionRetryCount());
             ++attempt) {
          if (transport(request, *endpoint)) break;
        }
      }

      mutex.lock();
      --inFlight;
      if (queue.empty() && inFlight == 0) drained.signalAll();
    }
    mutex.unlock();
  }

  Mutex mutex;
  CondVar wake;
  CondVar drained;
  std::deque<KVNNetworkRequest> queue KORVEL_GUARDED_BY(mutex);
  size_t inFlight KORVEL_GUARDED_BY(mutex) = 0;
  bool stopping KORVEL_GUARDED_BY(mutex) = false;
};

inline InProcessRequestExecutor::State& InProcessRequestExecutor::state() noexcept {
  return *std::launder(reinterpret_cast<State*>(state_));
}

InProcessRequestExecutor::InProcessRequestExecutor(std::string sessionIdentifier,
                                                   Transport transport)
    : identifier_(std::move(sessionIdentifier)), transport_(std::move(transport)) {
  static_assert(sizeof(State) <= kStateSize, "InProcessRequestExecutor::kStateSize is too small");
  static_assert(alignof(State) <= alignof(std::max_align_t));
  new (state_) State;
  worker_ = std::thread([this] {
    platform::internal::nameThisThread("korvel-send");
    state().run(transport_);
  });
}

InProcessRequestExecutor::~InProcessRequestExecutor() {
  stop();
  state().~State();
}

void InProcessRequestExecutor::stop() {
  state().stop();
  state().wake.signalAll();
  if (worker_.joinable()) worker_.join();
  state().dropQueued();
}

void InProcessRequestExecutor::executeRequest(KVNNetworkRequest request) noexcept {
  try {
    state().enqueue(std::move(request));
  } catch (...) {
    // Out of memory growing the queue: the request is dropped.
    try {
      platform::Logger(platform::env().mainBundleIdentifier().value_or("Unknown bundle"),
                       "Delivery")
          .log(platform::LogLevel::Error, "dropped a request that could not be queued");
    } catch (...) {
    }
    return;
  }
  state().wake.signal();
}

bool InProcessRequestExecutor::flush(std::chrono::milliseconds deadline) {
  return state().flush(std::chrono::steady_clock::now() + deadline);
}

}  // namespace korvel
