#pragma once

#include <memory>
#include <utility>

#include <korvel/foundation/internal/Mutex.h>

namespace korvel::foundation::internal {

// A shared_ptr many threads read while one occasionally replaces it: the
// holder of an immutable snapshot. Readers copy the pointer under a short
// lock and then use the snapshot without any.
//
// std::atomic<std::shared_ptr> would say the same, but libstdc++ 12 releases
// its internal lock with relaxed ordering, so ThreadSanitizer (rightly, by
// the letter of the memory model) reports the reference-count updates as
// races. An uncontended mutex costs about the same here and is plainly
// correct.
template <class T>
class SharedSlot {
 public:
  SharedSlot() = default;
  explicit SharedSlot(std::shared_ptr<T> value) { store(std::move(value)); }
  SharedSlot(const SharedSlot&) = delete;
  SharedSlot& operator=(const SharedSlot&) = delete;

  std::shared_ptr<T> load() const {
    MutexLock lock(mutex_);
    return value_;
  }

  // The value, made by make() (under the lock, so once) when there is none:
  // for process-wide instances made on first use and replaceable by tests.
  template <class Make>
  std::shared_ptr<T> loadOrMake(Make make) {
    MutexLock lock(mutex_);
    if (!value_) value_ = make();
    return value_;
  }

  void store(std::shared_ptr<T> value) {
    {
      MutexLock lock(mutex_);
      value_.swap(value);
    }
    // value now holds the previous pointer; if this was its last owner it is
    // destroyed here, outside the lock, so a destructor may use the slot.
  }

 private:
  mutable Mutex mutex_;
  std::shared_ptr<T> value_ KORVEL_GUARDED_BY(mutex_);
};

}  // namespace korvel::foundation::internal
