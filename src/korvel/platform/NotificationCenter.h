// The process notification centre: named notifications with an object
// payload, delivered synchronously on the posting thread.
//
// Thread safety: any thread may add, remove or post. Posting reads an
// immutable snapshot of the observer list, so observers may post, add or
// remove observers from inside their callback without deadlock. Once
// removeObserver() returns, the removed callback is not running on any other
// thread and will not be called again (a callback removing itself from inside
// its own call simply returns).
#pragma once

#include <korvel/export.h>

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/foundation/Mutex.h>

namespace korvel::platform {

struct KORVEL_EXPORT Notification {
  std::string_view name;
  const std::any& object;  // empty when the poster gave none
};

using ObserverToken = uint64_t;
using NotificationBlock = std::function<void(const Notification&)>;

class KORVEL_EXPORT NotificationCenter {
 public:
  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // Calls block for every notification named name; returns the token that
  // removes it.
  ObserverToken addObserver(std::string name, NotificationBlock block);
  void removeObserver(ObserverToken token);

  // Delivers to every observer of name registered when the post starts.
  void post(std::string_view name, std::any object = {});

  // Whether anyone observes name; lets posters skip building a payload.
  bool hasObservers(std::string_view name) const;

 private:
  struct Observer;
  using Snapshot = std::vector<std::shared_ptr<Observer>>;

  std::shared_ptr<const Snapshot> observers() const KORVEL_EXCLUDES(observersMutex_);
  // Replaces the observer list; the previous one is released outside the
  // lock.
  void publish(std::shared_ptr<const Snapshot> next) KORVEL_REQUIRES(writeMutex_)
      KORVEL_EXCLUDES(observersMutex_);

  // Serialises changes to the observer list; readers load the snapshot
  // without it.
  mutable Mutex writeMutex_;
  // Guards only the pointer: readers copy it under this short lock and then
  // walk the immutable list without any.
  mutable Mutex observersMutex_;
  std::shared_ptr<const Snapshot> observers_ KORVEL_GUARDED_BY(observersMutex_);
  ObserverToken nextToken_ KORVEL_GUARDED_BY(writeMutex_) = 1;
};

// Removes its observer when destroyed; movable.
class KORVEL_EXPORT ObserverRegistration {
 public:
  ObserverRegistration() = default;
  ObserverRegistration(NotificationCenter& center, ObserverToken token)
      : center_(&center), token_(token) {}
  ObserverRegistration(ObserverRegistration&& other) noexcept { *this = std::move(other); }
  ObserverRegistration& operator=(ObserverRegistration&& other) noexcept;
  ~ObserverRegistration() { reset(); }
  void reset();

 private:
  NotificationCenter* center_ = nullptr;
  ObserverToken token_ = 0;
};

}  // namespace korvel::platform
