// Mutexes the compiler checks. Every class that holds a lock names what the
// lock guards (KORVEL_GUARDED_BY) and which functions need it held
// (KORVEL_REQUIRES) or not held (KORVEL_EXCLUDES); clang's -Wthread-safety
// then proves, at build time, that each guarded field is only touched under
// its lock. Under other compilers the annotations compile to nothing.
//
// std::mutex carries no such annotations in libstdc++, so the library locks
// korvel::foundation::internal::Mutex (a std::mutex with them), holds it with MutexLock, and waits
// on CondVar. Any thread may use them; none of them is copyable or movable.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define KORVEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KORVEL_THREAD_ANNOTATION(x)
#endif

#define KORVEL_CAPABILITY(x) KORVEL_THREAD_ANNOTATION(capability(x))
#define KORVEL_SCOPED_CAPABILITY KORVEL_THREAD_ANNOTATION(scoped_lockable)
#define KORVEL_GUARDED_BY(x) KORVEL_THREAD_ANNOTATION(guarded_by(x))
#define KORVEL_PT_GUARDED_BY(x) KORVEL_THREAD_ANNOTATION(pt_guarded_by(x))
#define KORVEL_ACQUIRED_AFTER(...) KORVEL_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define KORVEL_ACQUIRED_BEFORE(...) KORVEL_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define KORVEL_REQUIRES(...) KORVEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KORVEL_ACQUIRE(...) KORVEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KORVEL_RELEASE(...) KORVEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KORVEL_TRY_ACQUIRE(...) KORVEL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define KORVEL_EXCLUDES(...) KORVEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KORVEL_ASSERT_CAPABILITY(x) KORVEL_THREAD_ANNOTATION(assert_capability(x))
#define KORVEL_RETURN_CAPABILITY(x) KORVEL_THREAD_ANNOTATION(lock_returned(x))
#define KORVEL_NO_THREAD_SAFETY_ANALYSIS KORVEL_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace korvel::foundation::internal {

class KORVEL_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() KORVEL_ACQUIRE() { mutex_.lock(); }
  void unlock() KORVEL_RELEASE() { mutex_.unlock(); }
  bool tryLock() KORVEL_TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  // Tells the analysis the caller holds the lock (where it cannot see it).
  void assertHeld() const KORVEL_ASSERT_CAPABILITY(this) {}

 private:
  friend class CondVar;
  std::mutex mutex_;
};

// Holds a Mutex for its scope.
class KORVEL_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) KORVEL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() KORVEL_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// A mutex the thread holding it may lock again, for a class whose callbacks
// may call back into it. The analysis checks each function on its own, so it
// cannot see the re-entry (which is the point); everything else is checked as
// for Mutex. Prefer Mutex: re-entry means a callback sees the state half-way
// through an operation.
class KORVEL_CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() KORVEL_ACQUIRE() { mutex_.lock(); }
  void unlock() KORVEL_RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

// Holds a RecursiveMutex for its scope.
class KORVEL_SCOPED_CAPABILITY RecursiveMutexLock {
 public:
  explicit RecursiveMutexLock(RecursiveMutex& mutex) KORVEL_ACQUIRE(mutex) : mutex_(mutex) {
    mutex_.lock();
  }
  ~RecursiveMutexLock() KORVEL_RELEASE() { mutex_.unlock(); }
  RecursiveMutexLock(const RecursiveMutexLock&) = delete;
  RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

 private:
  RecursiveMutex& mutex_;
};

// A condition variable waited on with a held Mutex (released while waiting,
// held again on return). Waits may wake spuriously: loop on the condition,
//   while (!ready_) condition_.wait(mutex_);
// which lets the analysis see the guarded fields read under the lock (a
// predicate lambda would be analysed as a function of its own).
class CondVar {
 public:
  CondVar() = default;
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  void wait(Mutex& mutex) KORVEL_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  // False when the deadline passed without a signal.
  template <typename Clock, typename Duration>
  bool waitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline)
      KORVEL_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    const bool signalled = condition_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return signalled;
  }
  template <typename Rep, typename Period>
  bool waitFor(Mutex& mutex, const std::chrono::duration<Rep, Period>& timeout)
      KORVEL_REQUIRES(mutex) {
    return waitUntil(mutex, std::chrono::steady_clock::now() + timeout);
  }

  void signal() { condition_.notify_one(); }
  void signalAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace korvel::foundation::internal
