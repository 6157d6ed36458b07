// A reporter that keeps the page views it is given, and the texts the page
// view manager logs when asked about a page it does not have.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/pageviews/PageViewManager.h>

namespace korvel {

inline void PrintTo(const PageView& v, std::ostream* os) { *os << v.toJSONString(); }

namespace testing {

inline const char* const kClosedMiss = "Cannot track closed page: Missing page on page stack";
inline const char* const kRenameMiss = "Cannot track page name change: Page stack is empty";
inline const char* const kParametersMiss =
    "Cannot track page view reporting parameters change: Page is not in the stack";

class RecordingReporter : public PageViewReporter {
 public:
  std::function<void(const PageView&)> onReport;  // runs first, set before any report
  void report(const PageView& pageView) override {
    if (onReport) onReport(pageView);
    foundation::internal::MutexLock lock(mutex_);
    views_.push_back(pageView);
  }
  // The views reported since the last call.
  std::vector<PageView> take() {
    foundation::internal::MutexLock lock(mutex_);
    return std::exchange(views_, {});
  }

 private:
  foundation::internal::Mutex mutex_;
  std::vector<PageView> views_ KORVEL_GUARDED_BY(mutex_);
};

inline PageView view(const std::string& name, double seconds,
                     ReportingParameters parameters = {}) {
  return PageView{PageName(name), seconds, std::move(parameters)};
}

}  // namespace testing
}  // namespace korvel
