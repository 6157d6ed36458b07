// A one-shot countdown for tests, on a mutex and a condition variable.
// std::latch waits through libstdc++'s atomic-wait pool, which in GCC 12's
// MinGW build can miss a wake-up: a test waiting on one hung under Wine.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace korvel::testing {

class Latch {
 public:
  explicit Latch(std::ptrdiff_t count) : count_(count) {}

  void count_down() {
    std::lock_guard lock(mutex_);
    if (count_ > 0 && --count_ == 0) reached_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    reached_.wait(lock, [this] { return count_ == 0; });
  }
  // False when the count did not reach zero in time.
  bool waitFor(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return reached_.wait_for(lock, timeout, [this] { return count_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable reached_;
  std::ptrdiff_t count_;
};

}  // namespace korvel::testing
