#include <korvel/platform/NotificationCenter.h>

#include <algorithm>
#include <new>
#include <thread>
#include <utility>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/foundation/internal/SharedSlot.h>

using korvel::foundation::internal::SharedSlot;
using korvel::foundation::internal::CondVar;
using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::platform {

// One registered observer. Calls into the block are counted so removal can
// wait until no other thread is inside it.
struct NotificationCenter::Observer {
  ObserverToken token;
  std::string name;
  NotificationBlock block;

  Mutex mutex;
  CondVar idle;
  bool removed KORVEL_GUARDED_BY(mutex) = false;
  int callsInFlight KORVEL_GUARDED_BY(mutex) = 0;
  // Threads currently inside the block (a block may be re-entered by a post
  // from inside itself, so a thread may appear more than once).
  std::vector<std::thread::id> callers KORVEL_GUARDED_BY(mutex);

  bool enter() {
    MutexLock lock(mutex);
    if (removed) return false;
    ++callsInFlight;
    callers.push_back(std::this_thread::get_id());
    return true;
  }

  void leave() {
    MutexLock lock(mutex);
    --callsInFlight;
    callers.erase(std::find(callers.begin(), callers.end(), std::this_thread::get_id()));
    if (callsInFlight == 0) idle.signalAll();
  }

  // Marks the observer removed and waits for calls on other threads to end.
  void retire() {
    MutexLock lock(mutex);
    removed = true;
    const auto self = std::this_thread::get_id();
    while (!std::all_of(callers.begin(), callers.end(),
                        [&](std::thread::id id) { return id == self; })) {
      idle.wait(mutex);
    }
  }
};

struct NotificationCenter::State {
  using Snapshot = std::vector<std::shared_ptr<Observer>>;

  std::shared_ptr<const Snapshot> current() const { return observers.load(); }
  // The previous list is released outside the slot's lock.
  void publish(std::shared_ptr<const Snapshot> next) KORVEL_REQUIRES(writeMutex) {
    observers.store(std::move(next));
  }

  // Serialises changes to the observer list; readers load the snapshot
  // without it.
  Mutex writeMutex;
  // Readers copy the pointer under the slot's short lock and then walk the
  // immutable list without any.
  SharedSlot<const Snapshot> observers{std::make_shared<const Snapshot>()};
  ObserverToken nextToken KORVEL_GUARDED_BY(writeMutex) = 1;
};

inline NotificationCenter::State& NotificationCenter::state() const noexcept {
  return *std::launder(reinterpret_cast<State*>(state_));
}

NotificationCenter::NotificationCenter() {
  static_assert(sizeof(State) <= kStateSize, "NotificationCenter::kStateSize is too small");
  static_assert(alignof(State) <= alignof(std::max_align_t));
  new (state_) State;
}

NotificationCenter::~NotificationCenter() { state().~State(); }

ObserverToken NotificationCenter::addObserver(std::string name, NotificationBlock block) {
  auto observer = std::make_shared<Observer>();
  observer->name = std::move(name);
  observer->block = std::move(block);

  State& s = state();
  MutexLock lock(s.writeMutex);
  observer->token = s.nextToken++;
  auto next = std::make_shared<State::Snapshot>(*s.current());
  next->push_back(observer);
  s.publish(std::move(next));
  return observer->token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
  std::shared_ptr<Observer> removed;
  {
    State& s = state();
    MutexLock lock(s.writeMutex);
    auto current = s.current();
    auto next = std::make_shared<State::Snapshot>();
    next->reserve(current->size());
    for (const auto& observer : *current) {
      if (observer->token == token) {
        removed = observer;
      } else {
        next->push_back(observer);
      }
    }
    if (!removed) return;
    s.publish(std::move(next));
  }
  // Outside the write lock: a callback running elsewhere may itself add or
  // remove observers while we wait for it to finish.
  removed->retire();
}

void NotificationCenter::post(std::string_view name, std::any object) {
  const auto snapshot = state().current();
  const Notification notification{name, object};
  for (const auto& observer : *snapshot) {
    if (observer->name != name) continue;
    if (!observer->enter()) continue;
    struct Leave {
      Observer& o;
      ~Leave() { o.leave(); }
    } leave{*observer};
    observer->block(notification);
  }
}

bool NotificationCenter::hasObservers(std::string_view name) const {
  const auto snapshot = state().current();
  return std::any_of(snapshot->begin(), snapshot->end(),
                     [&](const auto& observer) { return observer->name == name; });
}

ObserverRegistration& ObserverRegistration::operator=(ObserverRegistration&& other) noexcept {
  if (this != &other) {
    reset();
    center_ = std::exchange(other.center_, nullptr);
    token_ = std::exchange(other.token_, 0);
  }
  return *this;
}

void ObserverRegistration::reset() {
  if (center_ != nullptr) center_->removeObserver(token_);
  center_ = nullptr;
  token_ = 0;
}

}  // namespace korvel::platform
