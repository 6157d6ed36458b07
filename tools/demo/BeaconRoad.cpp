#include "demo/BeaconRoad.h"

#include <algorithm>

using korvel::foundation::internal::MutexLock;

namespace korvel::demo {

namespace {

constexpr const char* kUUIDKey = "clientbeaconuuid";
constexpr const char* kCreatedKey = "clientcreationtimestamp";

std::string valueOf(const std::vector<std::pair<std::string, std::string>>& params,
                    const std::string& key) {
  for (const auto& [k, v] : params) {
    if (k == key) return v;
  }
  return {};
}

}  // namespace

double BeaconRoad::sinceCall() const {
  const auto from = callAt_.value_or(start_);
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - from).count();
}

void BeaconRoad::printRoadStep(const std::string& text) {
  std::fprintf(out_, "  %+9.3f ms  %s\n", sinceCall(), text.c_str());
  std::fflush(out_);
}

void BeaconRoad::hostCall(std::string description) {
  MutexLock lock(mutex_);
  if (roadUUID_) return;
  callAt_ = std::chrono::steady_clock::now();
  callDescription_ = std::move(description);
}

void BeaconRoad::recordMade(const std::string& uuid, const std::optional<std::string>& event) {
  MutexLock lock(mutex_);
  if (roadUUID_) return;
  roadUUID_ = uuid;
  std::fprintf(out_, "\nThe road of the first beacon:\n");
  if (callAt_) {
    std::fprintf(out_, "  %+9.3f ms  the host calls %s\n", 0.0, callDescription_.c_str());
  }
  printRoadStep("the record is made: event \"" + event.value_or("") + "\", uuid " + uuid);
}

void BeaconRoad::submitted(const std::string& className, const std::string& uuid,
                           std::set<std::string> commonKeys,
                           const std::string& journalDirectory) {
  MutexLock lock(mutex_);
  const size_t common = commonKeys.size();
  commonKeysByUUID_[uuid] = std::move(commonKeys);
  if (roadUUID_ != uuid || roadDone_) return;
  printRoadStep("the " + className + " (" + std::to_string(common) +
                " common parameters merged in) is appended to the delivery journal in " +
                journalDirectory + "; it survives a kill from here on");
}

void BeaconRoad::arrived(const std::string& target, int status, const std::string& event,
                         const std::vector<std::pair<std::string, std::string>>& params,
                         const std::string& verdict, const std::vector<std::string>& reasons) {
  MutexLock lock(mutex_);
  ++arrived_;
  const std::string uuid = valueOf(params, kUUIDKey);
  const std::string session = valueOf(params, "sessionid");
  const auto keys = commonKeysByUUID_.find(uuid);
  const std::set<std::string> common =
      keys != commonKeysByUUID_.end() ? keys->second : std::set<std::string>{};

  if (roadUUID_ == uuid && !roadDone_) {
    roadDone_ = true;
    printRoadStep("GET " + target);
    printRoadStep("the collector answers " + std::to_string(status) + " and decodes it:");
    size_t width = 0;
    for (const auto& [k, v] : params) width = std::max(width, k.size());
    std::fprintf(out_, "                 event  %s\n", event.c_str());
    for (const auto& [k, v] : params) {
      std::fprintf(out_, "                 %-*s  %s%s\n", static_cast<int>(width), k.c_str(),
                   v.c_str(), common.count(k) ? "   (common)" : "");
    }
    std::fprintf(out_, "                 checked: %s\n", verdict.c_str());
    std::fprintf(out_, "\nEvery beacon as it arrives (its own parameters; the common ones once "
                       "per session):\n");
  }

  if (!session.empty() && sessionCommon_.count(session) == 0) {
    auto& values = sessionCommon_[session];
    std::string line;
    for (const auto& [k, v] : params) {
      if (common.count(k) == 0 || k == "sessionid") continue;
      values[k] = v;
      line += "  " + k + "=" + v;
    }
    std::fprintf(out_, "  session %s, common:%s\n", session.c_str(),
                 line.empty() ? " (none)" : line.c_str());
  }

  const auto& sessionValues = sessionCommon_[session];
  std::string own;
  for (const auto& [k, v] : params) {
    if (k == kUUIDKey || k == kCreatedKey || k == "sessionid") continue;
    const auto known = sessionValues.find(k);
    if (common.count(k) && known != sessionValues.end() && known->second == v) continue;
    if (common.count(k) && known == sessionValues.end()) continue;
    own += (own.empty() ? "" : " ") + k + "=" + v;
  }
  std::string mark = verdict;
  if (!reasons.empty()) {
    mark += ":";
    for (const auto& r : reasons) mark += " " + r;
  }
  std::fprintf(out_, "  #%-3zu %-12s %-58s %s\n", arrived_, event.c_str(), own.c_str(),
               mark.c_str());
  std::fflush(out_);
}

size_t BeaconRoad::arrivedCount() const {
  MutexLock lock(mutex_);
  return arrived_;
}

}  // namespace korvel::demo
