// Every record-created and record-submitted notification posted on a centre,
// in order, with the thread that posted it.
#pragma once

#include <any>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRReliableNetworkingTask.h>
#include <korvel/foundation/KVRParameters.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/NotificationCenter.h>

namespace korvel::testing {

class NotificationLog {
 public:
  struct Entry {
    std::string name;
    std::any object;
    std::thread::id thread;
  };

  explicit NotificationLog(platform::NotificationCenter& center) {
    for (auto name : {KVRReliableNetworkingTaskCreatedNotification,
                      KVRReliableNetworkingTaskSubmittedNotification}) {
      registrations_.emplace_back(
          center, center.addObserver(std::string(name), [this](const platform::Notification& n) {
            foundation::internal::MutexLock lock(mutex_);
            entries_.push_back({std::string(n.name), n.object, std::this_thread::get_id()});
          }));
    }
  }

  std::vector<Entry> entries() const {
    foundation::internal::MutexLock lock(mutex_);
    return entries_;
  }
  // The dictionaries the created notifications carried.
  std::vector<KVRParameters> created() const {
    std::vector<KVRParameters> out;
    for (auto& e : named(KVRReliableNetworkingTaskCreatedNotification)) {
      out.push_back(std::any_cast<KVRParameters>(e.object));
    }
    return out;
  }
  // The records the submitted notifications carried.
  std::vector<std::shared_ptr<const KVRReliableNetworkingTask>> submitted() const {
    std::vector<std::shared_ptr<const KVRReliableNetworkingTask>> out;
    for (auto& e : named(KVRReliableNetworkingTaskSubmittedNotification)) {
      out.push_back(std::any_cast<std::shared_ptr<const KVRReliableNetworkingTask>>(e.object));
    }
    return out;
  }

 private:
  std::vector<Entry> named(std::string_view name) const {
    std::vector<Entry> out;
    for (auto& e : entries()) {
      if (e.name == name) out.push_back(e);
    }
    return out;
  }

  mutable foundation::internal::Mutex mutex_;
  std::vector<Entry> entries_ KORVEL_GUARDED_BY(mutex_);
  std::vector<platform::ObserverRegistration> registrations_;
};

}  // namespace korvel::testing
