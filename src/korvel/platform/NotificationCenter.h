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
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>


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
  // The observer list, its locks and the next token (State, defined with the
  // code) live in place inside the object: a post, made for every beacon
  // sent, costs neither an allocation nor a pointer to follow to reach them.
  // The storage's size and alignment are part of the ABI; the code checks
  // that State fits.
  struct State;
  static constexpr std::size_t kStateSize = 160;
  State& state() const noexcept;
  alignas(std::max_align_t) mutable unsigned char state_[kStateSize];
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
