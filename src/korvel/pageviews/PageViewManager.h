// Times how long each page (screen) of the host is visible and hands one
// PageView per visible stretch to the host's reporter.
//
// Screens announce themselves (see PageViewTracking.h); the manager keeps a
// stack of open pages whose top is the page the user sees, and one clock: the
// launch time of the current visible stretch. Whenever that stretch ends
// (another page covers it, it closes, it is renamed, the app goes to the
// background) its duration is reported under the top page's name and
// parameters.
//
// Several rules are deliberately asymmetric and hosts rely on them:
//  - The first page pushed onto an empty stack counts from the last clock
//    restart (construction, the close of the previous last page, the last
//    return to the foreground), not from its own appearance.
//  - A rename of the top page splits its stretch (one view per name); a
//    change of its parameters does not (the whole stretch is later reported
//    with the new parameters).
//  - Going to the background reports the top page but does not restart the
//    clock; coming back restarts it. With no page open, going to the
//    background changes nothing at all.
//  - Closing a covered page reports nothing and leaves the clock alone.
//
// Misuse (closing an unknown page, renaming on an empty stack, changing the
// parameters of an unknown page) is logged on the "PageView" category and
// otherwise ignored.
//
// Threads: meant for the main thread, like the screens that drive it. The
// operations are nevertheless serialised internally, so a life-cycle
// notification posted from another thread cannot corrupt the stack; the
// reporter is called on the thread of the operation, before it returns.
#pragma once

#include <korvel/export.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <korvel/pageviews/PageID.h>
#include <korvel/pageviews/ReportingValue.h>
#include <korvel/platform/NotificationCenter.h>

namespace korvel {

// Implemented by the host, normally by forwarding to BeaconReporter.
class KORVEL_EXPORT PageViewReporter {
 public:
  virtual ~PageViewReporter() = default;
  // One finished visible stretch of a page. Called synchronously while the
  // manager holds its lock: it may read the manager, but should not throw
  // (an exception is caught and logged so that the stack stays consistent).
  virtual void report(const PageView& pageView) = 0;
};

class KORVEL_EXPORT PageViewManager {
 public:
  // Starts the clock and observes the application's did-enter-background
  // and will-enter-foreground notifications on the Env's notification
  // centre. Throws std::invalid_argument for a null reporter.
  PageViewManager(std::shared_ptr<PageViewReporter> reporter, bool isReportingEnabled);
  // Stops observing (waiting for a callback running on another thread) and
  // drops the stack without reporting the open page.
  ~PageViewManager();
  PageViewManager(const PageViewManager&) = delete;
  PageViewManager& operator=(const PageViewManager&) = delete;

  // A page became visible. A second appearance of an id already on the
  // stack is ignored.
  void trackPageAppeared(const PageID& id, const PageName& name,
                         const ReportingParameters& reportingParameters);
  // A page went away (from the top or from under other pages).
  void trackPageClosed(const PageID& id);
  // An open page got a new name.
  void trackPageNameChanged(const PageName& name, const PageID& id);
  // An open page's parameters changed.
  void trackPageViewReportingParametersChanged(const ReportingParameters& reportingParameters,
                                               const PageID& id);
  // The observer callbacks of the two life-cycle notifications; callable
  // directly as well.
  void trackAppBackgrounded();
  void trackAppForegrounded();

  // The top page's name; nothing when no page is open.
  std::optional<PageName> currentPageName() const;

  // While false every transition still happens but nothing is reported;
  // turning it on later does not report earlier stretches.
  bool isReportingEnabled() const { return isReportingEnabled_.load(std::memory_order_relaxed); }
  void setIsReportingEnabled(bool enabled) {
    isReportingEnabled_.store(enabled, std::memory_order_relaxed);
  }

 private:
  // The page stack, its lock and the clock; the reporter.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
  std::atomic<bool> isReportingEnabled_;

  platform::ObserverRegistration backgroundObserver_;
  platform::ObserverRegistration foregroundObserver_;
};

}  // namespace korvel
