#include <korvel/network/InProcessRequestExecutor.h>

#include <algorithm>

namespace korvel {

namespace {
// How often a request held back by its configuration policy is re-checked.
constexpr auto kPolicyRecheckInterval = std::chrono::milliseconds(50);
}  // namespace

InProcessRequestExecutor::InProcessRequestExecutor(std::string sessionIdentifier,
                                                   Transport transport)
    : identifier_(std::move(sessionIdentifier)), transport_(std::move(transport)) {
  worker_ = std::thread([this] { run(); });
}

InProcessRequestExecutor::~InProcessRequestExecutor() { stop(); }

void InProcessRequestExecutor::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (worker_.joinable()) worker_.join();
  std::lock_guard lock(mutex_);
  queue_.clear();
  drained_.notify_all();
}

void InProcessRequestExecutor::executeRequest(KVNNetworkRequest request) {
  {
    std::lock_guard lock(mutex_);
    // Keep the queue ordered by priority (higher first), FIFO within one.
    auto at = std::find_if(queue_.begin(), queue_.end(), [&](const KVNNetworkRequest& r) {
      return r.priority() < request.priority();
    });
    queue_.insert(at, std::move(request));
  }
  wake_.notify_one();
}

bool InProcessRequestExecutor::flush(std::chrono::milliseconds deadline) {
  std::unique_lock lock(mutex_);
  return drained_.wait_for(lock, deadline, [&] { return queue_.empty() && inFlight_ == 0; });
}

void InProcessRequestExecutor::run() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    auto ready = std::find_if(queue_.begin(), queue_.end(), [](const KVNNetworkRequest& r) {
      return KVNConfigurationPolicySatisfied(r.configurationPolicy());
    });
    if (ready == queue_.end()) {
      if (queue_.empty()) {
        wake_.wait(lock);
      } else {
        wake_.wait_for(lock, kPolicyRecheckInterval);
      }
      continue;
    }
    KVNNetworkRequest request = std::move(*ready);
    queue_.erase(ready);
    ++inFlight_;
    lock.unlock();

    if (auto endpoint = request.buildEndpoint()) {
      for (int attempt = 0; attempt <= std::max(0, request.backgroundSessionRetryCount());
           ++attempt) {
        if (transport_(request, *endpoint)) break;
      }
    }

    lock.lock();
    --inFlight_;
    if (queue_.empty() && inFlight_ == 0) drained_.notify_all();
  }
}

}  // namespace korvel
