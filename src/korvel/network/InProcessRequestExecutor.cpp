#include <korvel/network/InProcessRequestExecutor.h>
#include <korvel/platform/internal/Threads.h>

#include <algorithm>

#include <korvel/platform/Env.h>
#include <korvel/platform/Logging.h>

namespace korvel {

namespace {
// How often a request held back by its configuration policy is re-checked.
constexpr auto kPolicyRecheckInterval = std::chrono::milliseconds(50);
}  // namespace

InProcessRequestExecutor::InProcessRequestExecutor(std::string sessionIdentifier,
                                                   Transport transport)
    : identifier_(std::move(sessionIdentifier)), transport_(std::move(transport)) {
  worker_ = std::thread([this] {
    platform::nameThisThread("korvel-send");
    run();
  });
}

InProcessRequestExecutor::~InProcessRequestExecutor() { stop(); }

void InProcessRequestExecutor::stop() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.signalAll();
  if (worker_.joinable()) worker_.join();
  MutexLock lock(mutex_);
  queue_.clear();
  drained_.signalAll();
}

void InProcessRequestExecutor::executeRequest(KVNNetworkRequest request) noexcept {
  try {
    MutexLock lock(mutex_);
    // Keep the queue ordered by priority (higher first), FIFO within one.
    auto at = std::find_if(queue_.begin(), queue_.end(), [&](const KVNNetworkRequest& r) {
      return r.priority() < request.priority();
    });
    queue_.insert(at, std::move(request));
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
  wake_.signal();
}

bool InProcessRequestExecutor::flush(std::chrono::milliseconds deadline) {
  const auto until = std::chrono::steady_clock::now() + deadline;
  MutexLock lock(mutex_);
  while (!(queue_.empty() && inFlight_ == 0)) {
    if (!drained_.waitUntil(mutex_, until)) return queue_.empty() && inFlight_ == 0;
  }
  return true;
}

void InProcessRequestExecutor::run() {
  mutex_.lock();
  while (!stopping_) {
    auto ready = std::find_if(queue_.begin(), queue_.end(), [](const KVNNetworkRequest& r) {
      return KVNConfigurationPolicySatisfied(r.configurationPolicy());
    });
    if (ready == queue_.end()) {
      if (queue_.empty()) {
        wake_.wait(mutex_);
      } else {
        wake_.waitFor(mutex_, kPolicyRecheckInterval);
      }
      continue;
    }
    KVNNetworkRequest request = std::move(*ready);
    queue_.erase(ready);
    ++inFlight_;
    mutex_.unlock();

    if (auto endpoint = request.buildEndpoint()) {
      for (int attempt = 0; attempt <= std::max(0, request.backgroundSessionRetryCount());
           ++attempt) {
        if (transport_(request, *endpoint)) break;
      }
    }

    mutex_.lock();
    --inFlight_;
    if (queue_.empty() && inFlight_ == 0) drained_.signalAll();
  }
  mutex_.unlock();
}

}  // namespace korvel
