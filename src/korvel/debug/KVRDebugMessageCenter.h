// The in-process debug hub of debug-enabled builds.
//
// The host allows it through a delegate; once allowed and started, the
// center listens to the library's and the host's debug notifications on the
// Env's notification centre:
//
//   KVRReliableNetworkingTaskSubmittedNotification   a beacon entry in the log
//     (object: std::shared_ptr<const KVRReliableNetworkingTask>)
//   KVRDebugMessageLogOpenedURLNotification          a URL entry (KVRURL)
//   KVRDebugMessageLogInAppUpsellOptionsNotification an upsell entry
//     (KVRParameters)
//   KVRDebugMessageDisplayingTagResultNotification   the tag result on screen
//     (std::shared_ptr<const KVRTagResultInfo>)
//   KVRDebugMessageDisplayingNoMatchNotification     a no-match on screen (a
//     KVRDate; any other object means now)
//   KVRDebugMessageClosedMatchResultNotification     no result on screen
//   KVNTaggingDebugResultContextNotification         the attempt's audio and
//     signature saved through KVRDebugDataPersister
//
// A log notification whose object is of another kind adds nothing. Only
// submitted beacons are logged (not merely created ones). None of this
// changes what is sent, and nothing observes anything until the host starts
// debugging.
//
// It also places the debug overlay's menu (KVRDebugOverlayWindow) and the
// waiting-for-configuration banner, which it shows while the detector says
// the application is still waiting for its configuration.
//
// Threads: notification handlers run on the posting thread; log appends are
// moved to the main queue. The shared center is made and dropped under a
// class-wide lock. Menu, window and banner work is main-thread only, and so
// is the last release of the center (stopDebugging() on the main thread).
#pragma once

#include <korvel/export.h>

#include <memory>
#include <string>
#include <vector>

#include <korvel/platform/NotificationCenter.h>

namespace korvel {

class KVRDebugLogsDataProvider;
class KVRDebugOverlayWindow;
class KVRDebugWindow;
class KVRTagResultInfo;
class KVRWaitingForConfigDetector;
class KVRWaitingForConfigView;
struct KVNTaggingDebugResultContext;

class KORVEL_EXPORT KVRDebugMessageCenterDelegate {
 public:
  virtual ~KVRDebugMessageCenterDelegate() = default;
  // Whether this build may run the debug center.
  virtual bool isDebugCenterAllowed() = 0;
};

class KORVEL_EXPORT KVRDebugMessageCenter : public std::enable_shared_from_this<KVRDebugMessageCenter> {
 public:
  // The shared center: made on first call while the delegate allows it;
  // null when no center exists and debugging is not allowed.
  static std::shared_ptr<KVRDebugMessageCenter> defaultCenter();
  // Drops the shared center. Once the last reference is gone its observers
  // are removed, the detector unregistered, the menu hidden and the banner
  // removed. Main thread.
  static void stopDebugging();

  // Held strongly.
  static void setDebugMessageCenterDelegate(std::shared_ptr<KVRDebugMessageCenterDelegate> d);
  static std::shared_ptr<KVRDebugMessageCenterDelegate> delegate();
  // The delegate's answer; false without a delegate.
  static bool isDebugCenterAllowed();

  ~KVRDebugMessageCenter();
  KVRDebugMessageCenter(const KVRDebugMessageCenter&) = delete;
  KVRDebugMessageCenter& operator=(const KVRDebugMessageCenter&) = delete;

  // Registers the seven observers and the configuration updates; does
  // nothing when already debugging. Any thread.
  void startDebugging();
  bool isDebugging() const;

  // The log, made on first use. Any thread.
  std::shared_ptr<KVRDebugLogsDataProvider> dataProvider();
  // The result on screen (a KVRNoMatchTagInfo for a no-match), or null.
  std::shared_ptr<const KVRTagResultInfo> tagResult() const;
  bool isShowingTagResult() const;

  // The debug menu in the overlay window. Main thread.
  void presentDebugMenu();
  void hideDebugMenu();
  void toggleDebugViewVisibility();
  bool showingDebugMenu() const { return showingDebugMenu_; }
  const std::shared_ptr<KVRDebugOverlayWindow>& debugWindow() const { return debugWindow_; }

  // The waiting-for-configuration banner, while loaded, and whether it is
  // in a window now. Main thread.
  const std::shared_ptr<KVRWaitingForConfigView>& waitingForConfigView() const {
    return waitingView_;
  }
  bool isShowingWaitingForConfigView() const;
  KVRWaitingForConfigDetector& waitingForConfigDetector() { return *detector_; }

  // Saves a tagging attempt's audio (as "<U>-caf") and its first attempt's
  // picked signature (as "<U>-sig"), U being the first tag's id or, without
  // tags, the no-match file name of the session's start date (logged as
  // "No Match unique ID during context notification: <U>"). Any thread.
  static void persistTaggingDebugContext(const KVNTaggingDebugResultContext& context);

 private:
  KVRDebugMessageCenter();

  void observe(platform::NotificationCenter& center, std::string_view name,
               void (KVRDebugMessageCenter::*handler)(const platform::Notification&));
  void displayingTagResult(const platform::Notification& n);
  void closedMatchResult(const platform::Notification& n);
  void displayingNoMatch(const platform::Notification& n);
  void taggingDebugContext(const platform::Notification& n);
  void taskSubmitted(const platform::Notification& n);
  void openedURL(const platform::Notification& n);
  void inAppUpsellOptions(const platform::Notification& n);

  // Main queue.
  void configurationWaitingChanged(bool stillWaiting);
  void placeWaitingView();
  void removeWaitingView();

  // What any thread reads or changes (the debugging switch, the tag result,
  // the log, the observers) and its lock.
  struct Impl;
  const std::unique_ptr<Impl> impl_;

  std::unique_ptr<KVRWaitingForConfigDetector> detector_;

  // Main thread only.
  bool showingDebugMenu_ = false;
  std::shared_ptr<KVRDebugOverlayWindow> debugWindow_;
  std::shared_ptr<KVRWaitingForConfigView> waitingView_;
  std::weak_ptr<KVRDebugWindow> waitingViewHost_;
};

}  // namespace korvel
