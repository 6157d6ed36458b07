// How the demo prints what it sends: the first beacon's road step by step
// with the time of each step (the host's call, the record and its uuid, the
// journal append, the GET and its answer, the collector's decoded view),
// then one line per beacon. A session's common parameters are printed once,
// when its first beacon arrives; a beacon's line shows only its own
// parameters (and a common one whose value changed).
//
// Thread safe: records are made on the reporting threads, beacons arrive on
// the collector's.
#pragma once

#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <korvel/foundation/internal/Mutex.h>

namespace korvel::demo {

class BeaconRoad {
 public:
  explicit BeaconRoad(std::FILE* out) : out_(out) {}

  // The host is about to make the call described (the road's first step,
  // when it makes the first beacon).
  void hostCall(std::string description);
  // A record was made (its creation notification): its uuid and event.
  void recordMade(const std::string& uuid, const std::optional<std::string>& event);
  // The record was handed to the executor (its journal holds it): its
  // class and the keys of its common parameters.
  void submitted(const std::string& className, const std::string& uuid,
                 std::set<std::string> commonKeys, const std::string& journalDirectory);
  // The collector answered status to the GET of target, decoded as params;
  // verdict and reasons are the store's.
  void arrived(const std::string& target, int status, const std::string& event,
               const std::vector<std::pair<std::string, std::string>>& params,
               const std::string& verdict, const std::vector<std::string>& reasons);

  size_t arrivedCount() const;

 private:
  double sinceCall() const KORVEL_REQUIRES(mutex_);
  void printRoadStep(const std::string& text) KORVEL_REQUIRES(mutex_);

  std::FILE* out_;
  mutable korvel::foundation::internal::Mutex mutex_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::optional<std::chrono::steady_clock::time_point> callAt_ KORVEL_GUARDED_BY(mutex_);
  std::string callDescription_ KORVEL_GUARDED_BY(mutex_);
  std::optional<std::string> roadUUID_ KORVEL_GUARDED_BY(mutex_);  // the first record's
  bool roadDone_ KORVEL_GUARDED_BY(mutex_) = false;
  std::map<std::string, std::set<std::string>> commonKeysByUUID_ KORVEL_GUARDED_BY(mutex_);
  // Per session, the common values its first beacon carried.
  std::map<std::string, std::map<std::string, std::string>> sessionCommon_
      KORVEL_GUARDED_BY(mutex_);
  size_t arrived_ KORVEL_GUARDED_BY(mutex_) = 0;
};

}  // namespace korvel::demo
