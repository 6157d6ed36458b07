#include <korvel/pageviews/PageViewManager.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include <korvel/beacon/KVRLogging.h>
#include <korvel/pageviews/FatalError.h>
#include <korvel/platform/Application.h>
#include <korvel/platform/Env.h>

namespace korvel {

namespace {

void logMisuse(const char* message) { KVRLogging::pageViewLogger().log(message); }

}  // namespace

PageViewManager::PageViewManager(std::shared_ptr<PageViewReporter> reporter,
                                 bool isReportingEnabled)
    : reporter_(std::move(reporter)),
      currentPageLaunchTime_(platform::env().monotonicNanos()),
      isReportingEnabled_(isReportingEnabled) {
  if (!reporter_) throw std::invalid_argument("PageViewManager needs a PageViewReporter");

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
  RecursiveMutexLock lock(mutex_);
  if (findFromTop(id)) return;
  if (!pageStack_.empty()) {
    reportTopPage();
    restartClock();
  }
  // The reporter may have pushed this id meanwhile; ids stay unique.
  if (findFromTop(id)) return;
  pageStack_.push_back(Page{id, name, reportingParameters});
}

void PageViewManager::trackPageClosed(const PageID& id) {
  RecursiveMutexLock lock(mutex_);
  const auto index = findFromTop(id);
  if (!index) {
    logMisuse("Cannot track closed page: Missing page on page stack");
    return;
  }
  if (*index == pageStack_.size() - 1) {
    reportTopPage();
    restartClock();
  }
  // Looked up again: the reporter may have changed the stack.
  if (const auto current = findFromTop(id)) {
    pageStack_.erase(pageStack_.begin() + static_cast<std::ptrdiff_t>(*current));
  }
}

void PageViewManager::trackPageNameChanged(const PageName& name, const PageID& id) {
  RecursiveMutexLock lock(mutex_);
  if (pageStack_.empty()) {
    logMisuse("Cannot track page name change: Page stack is empty");
    return;
  }
  if (pageStack_.back().id == id) {
    reportTopPage();
    restartClock();
  }
  // A page that is not on a non-empty stack is silently left alone.
  if (const auto index = findFromBottom(id)) pageStack_[*index].name = name;
}

void PageViewManager::trackPageViewReportingParametersChanged(
    const ReportingParameters& reportingParameters, const PageID& id) {
  RecursiveMutexLock lock(mutex_);
  const auto index = findFromBottom(id);
  if (!index) {
    logMisuse("Cannot track page view reporting parameters change: Page is not in the stack");
    return;
  }
  pageStack_[*index].reportingParameters = reportingParameters;
}

void PageViewManager::trackAppBackgrounded() {
  RecursiveMutexLock lock(mutex_);
  if (pageStack_.empty()) return;
  // Reported under the old flag, so a repeated notification reports nothing.
  reportTopPage();
  isBackgrounded_ = true;
}

void PageViewManager::trackAppForegrounded() {
  RecursiveMutexLock lock(mutex_);
  restartClock();
  isBackgrounded_ = false;
}

std::optional<PageName> PageViewManager::currentPageName() const {
  RecursiveMutexLock lock(mutex_);
  if (pageStack_.empty()) return std::nullopt;
  return pageStack_.back().name;
}

std::optional<size_t> PageViewManager::findFromTop(const PageID& id) const {
  for (size_t i = pageStack_.size(); i-- > 0;) {
    if (pageStack_[i].id == id) return i;
  }
  return std::nullopt;
}

std::optional<size_t> PageViewManager::findFromBottom(const PageID& id) const {
  for (size_t i = 0; i < pageStack_.size(); ++i) {
    if (pageStack_[i].id == id) return i;
  }
  return std::nullopt;
}

void PageViewManager::reportTopPage() {
  const uint64_t now = platform::env().monotonicNanos();
  if (now < currentPageLaunchTime_) {
    // The clock is monotonic; a launch time ahead of it means the manager's
    // state is corrupt, and an unsigned difference would report centuries.
    fatalError("PageViewManager: the current page's launch time lies in the future (" +
               std::to_string(currentPageLaunchTime_) + " ns > now " + std::to_string(now) +
               " ns)");
  }
  const double duration = static_cast<double>(now - currentPageLaunchTime_) / 1000000000.0;
  if (!isReportingEnabled() || isBackgrounded_) return;

  // A copy: the reporter may change the stack while it holds the view.
  const Page& top = pageStack_.back();
  const PageView pageView{top.name, duration, top.reportingParameters};
  try {
    reporter_->report(pageView);
  } catch (const std::exception& error) {
    KVRLogging::pageViewLogger().log(platform::LogLevel::Error,
                                     std::string("PageViewReporter failed: ") + error.what());
  } catch (...) {
    KVRLogging::pageViewLogger().log(platform::LogLevel::Error,
                                     "PageViewReporter failed with an unknown exception");
  }
}

void PageViewManager::restartClock() {
  // A fresh reading taken after any report call: time spent inside the
  // reporter belongs to no page.
  currentPageLaunchTime_ = platform::env().monotonicNanos();
}

}  // namespace korvel
