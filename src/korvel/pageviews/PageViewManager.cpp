#include <korvel/pageviews/PageViewManager.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include <korvel/beacon/KVRLogging.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/pageviews/FatalError.h>
#include <korvel/platform/Application.h>
#include <korvel/platform/Env.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::RecursiveMutex;
using korvel::foundation::internal::RecursiveMutexLock;

namespace korvel {

namespace {

void logMisuse(const char* message) { KVRLogging::pageViewLogger().log(message); }

}  // namespace

struct PageViewManager::Impl {
  struct Page {
    PageID id;
    PageName name;
    ReportingParameters reportingParameters;
  };

  explicit Impl(std::shared_ptr<PageViewReporter> pageViewReporter)
      : reporter(std::move(pageViewReporter)),
        currentPageLaunchTime(platform::env().monotonicNanos()) {}

  // Index of the page with id, searching from the top or from the bottom.
  std::optional<size_t> findFromTop(const PageID& id) const KORVEL_REQUIRES(mutex) {
    for (size_t i = pageStack.size(); i-- > 0;) {
      if (pageStack[i].id == id) return i;
    }
    return std::nullopt;
  }

  std::optional<size_t> findFromBottom(const PageID& id) const KORVEL_REQUIRES(mutex) {
    for (size_t i = 0; i < pageStack.size(); ++i) {
      if (pageStack[i].id == id) return i;
    }
    return std::nullopt;
  }

  // Reports the visible stretch of the top page, unless reporting is off or
  // the application is in the background.
  void reportTopPage(bool reportingEnabled) KORVEL_REQUIRES(mutex) {
    const uint64_t now = platform::env().monotonicNanos();
    if (now < currentPageLaunchTime) {
      // The clock is monotonic; a launch time ahead of it means the manager's
      // state is corrupt, and an unsigned difference would report centuries.
      fatalError("PageViewManager: the current page's launch time lies in the future (" +
                 std::to_string(currentPageLaunchTime) + " ns > now " + std::to_string(now) +
                 " ns)");
    }
    const double duration = static_cast<double>(now - currentPageLaunchTime) / 1000000000.0;
    if (!reportingEnabled || isBackgrounded) return;

    // A copy: the reporter may change the stack while it holds the view.
    const Page& top = pageStack.back();
    const PageView pageView{top.name, duration, top.reportingParameters};
    try {
      reporter->report(pageView);
    } catch (const std::exception& error) {
      KVRLogging::pageViewLogger().log(platform::LogLevel::Error,
                                       std::string("PageViewReporter failed: ") + error.what());
    } catch (...) {
      KVRLogging::pageViewLogger().log(platform::LogLevel::Error,
                                       "PageViewReporter failed with an unknown exception");
    }
  }

  void restartClock() KORVEL_REQUIRES(mutex) {
    // A fresh reading taken after any report call: time spent inside the
    // reporter belongs to no page.
    currentPageLaunchTime = platform::env().monotonicNanos();
  }

  // Recursive: the reporter may read the manager from inside report().
  mutable RecursiveMutex mutex;
  const std::shared_ptr<PageViewReporter> reporter;
  std::vector<Page> pageStack KORVEL_GUARDED_BY(mutex);  // back() is the visible page
  uint64_t currentPageLaunchTime KORVEL_GUARDED_BY(mutex);  // monotonic nanoseconds
  bool isBackgrounded KORVEL_GUARDED_BY(mutex) = false;
};

PageViewManager::PageViewManager(std::shared_ptr<PageViewReporter> reporter,
                                 bool isReportingEnabled)
    : impl_(std::make_unique<Impl>(std::move(reporter))), isReportingEnabled_(isReportingEnabled) {
  if (!impl_->reporter) throw std::invalid_argument("PageViewManager needs a PageViewReporter");

  // Registered last, so a notification can never see a half-built manager.
  auto& center = platform::env().notificationCenter();
  backgroundObserver_ = platform::ObserverRegistration(
      center, center.addObserver(std::string(platform::ApplicationDidEnterBackgroundNotification),
                                 [this](const platform::Notification&) { trackAppBackgrounded(); }));
  foregroundObserver_ = platform::ObserverRegistration(
      center, center.addObserver(std::string(platform::ApplicationWillEnterForegroundNotification),
                                 [this](const platform::Notification&) { trackAppForegrounded(); }));
}

PageViewManager::~PageViewManager() {
  // First, so that no callback can reach the members being torn down.
  backgroundObserver_.reset();
  foregroundObserver_.reset();
}

void PageViewManager::trackPageAppeared(const PageID& id, const PageName& name,
                                        const ReportingParameters& reportingParameters) {
  Impl& d = *impl_;
  RecursiveMutexLock lock(d.mutex);
  if (d.findFromTop(id)) return;
  if (!d.pageStack.empty()) {
    d.reportTopPage(isReportingEnabled());
    d.restartClock();
  }
  // The reporter may have pushed this id meanwhile; ids stay unique.
  if (d.findFromTop(id)) return;
  d.pageStack.push_back(Impl::Page{id, name, reportingParameters});
}

void PageViewManager::trackPageClosed(const PageID& id) {
  Impl& d = *impl_;
  RecursiveMutexLock lock(d.mutex);
  const auto index = d.findFromTop(id);
  if (!index) {
    logMisuse("Cannot track closed page: Missing page on page stack");
    return;
  }
  if (*index == d.pageStack.size() - 1) {
    d.reportTopPage(isReportingEnabled());
    d.restartClock();
  }
  // Looked up again: the reporter may have changed the stack.
  if (const auto current = d.findFromTop(id)) {
    d.pageStack.erase(d.pageStack.begin() + static_cast<std::ptrdiff_t>(*current));
  }
}

void PageViewManager::trackPageNameChanged(const PageName& name, const PageID& id) {
  Impl& d = *impl_;
  RecursiveMutexLock lock(d.mutex);
  if (d.pageStack.empty()) {
    logMisuse("Cannot track page name change: Page stack is empty");
    return;
  }
  if (d.pageStack.back().id == id) {
    d.reportTopPage(isReportingEnabled());
    d.restartClock();
  }
  // A page that is not on a non-empty stack is silently left alone.
  if (const auto index = d.findFromBottom(id)) d.pageStack[*index].name = name;
}

void PageViewManager::trackPageViewReportingParametersChanged(
    const ReportingParameters& reportingParameters, const PageID& id) {
  Impl& d = *impl_;
  RecursiveMutexLock lock(d.mutex);
  const auto index = d.findFromBottom(id);
  if (!index) {
    logMisuse("Cannot track page view reporting parameters change: Page is not in the stack");
    return;
  }
  d.pageStack[*index].reportingParameters = reportingParameters;
}

void PageViewManager::trackAppBackgrounded() {
  Impl& d = *impl_;
  RecursiveMutexLock lock(d.mutex);
  if (d.pageStack.empty()) return;
  // Reported under the old flag, so a repeated notification reports nothing.
  d.reportTopPage(isReportingEnabled());
  d.isBackgrounded = true;
}

void PageViewManager::trackAppForegrounded() {
  Impl& d = *impl_;
  RecursiveMutexLock lock(d.mutex);
  d.restartClock();
  d.isBackgrounded = false;
}

std::optional<PageName> PageViewManager::currentPageName() const {
  const Impl& d = *impl_;
  RecursiveMutexLock lock(d.mutex);
  if (d.pageStack.empty()) return std::nullopt;
  return d.pageStack.back().name;
}

}  // namespace korvel
