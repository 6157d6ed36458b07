// Tells a waiting screen, once a second, whether the application is still
// waiting for its first configuration, and the banner view shown meanwhile.
//
// The detector polls on the main queue: registering stores the callback and
// starts polling; the callback is called once at once and then every second
// with stillWaiting = !KVRDebugConfiguration::sharedInstance().isConfigured().
// It keeps polling after the configuration arrived (reporting false each
// second) until unregisterForConfigUpdates(); the callback is kept after
// unregistering, so startPolling() resumes with it.
//
// Any method may be called from any thread; the callback always runs on the
// main queue (UIEnv::mainQueue()). Destroying the detector stops its polling.
#pragma once

#include <korvel/export.h>

#include <functional>
#include <memory>

#include <korvel/ui/Widgets.h>

namespace korvel {

class KORVEL_EXPORT KVRWaitingForConfigDetector {
 public:
  // stillWaiting is true while no configuration is present.
  using Callback = std::function<void(bool stillWaiting)>;

  KVRWaitingForConfigDetector();
  ~KVRWaitingForConfigDetector();
  KVRWaitingForConfigDetector(const KVRWaitingForConfigDetector&) = delete;
  KVRWaitingForConfigDetector& operator=(const KVRWaitingForConfigDetector&) = delete;

  // Stores callback (replacing an earlier one) and calls startPolling().
  // An empty callback is a programming error: it is logged and never called.
  void registerForConfigUpdates(Callback callback);
  // Stops the poll timer (and a start still queued on the main queue). The
  // callback is kept.
  void unregisterForConfigUpdates();
  // On the main queue, asynchronously: replaces any running timer with a
  // 1.0-second repeating one that calls poll(), then calls the callback once
  // at once.
  void startPolling();
  // Calls the callback, if there is one, with the current waiting state.
  // Called by the timer; callable directly on the main thread.
  void poll();

  // Whether a poll timer is scheduled now.
  bool isPolling() const;
  // Whether a callback is stored.
  bool hasCallback() const;

  // The poll period in seconds.
  static constexpr double kPollInterval = 1.0;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// The banner shown while the application waits for its configuration. A host
// renders it; its outlets are plain widget states.
class KORVEL_EXPORT KVRWaitingForConfigView {
 public:
  // The view as its interface file makes it: awakeFromNib() already ran, so
  // the activity indicator is animating.
  static std::unique_ptr<KVRWaitingForConfigView> loadFromInterfaceFile();

  KVRWaitingForConfigView() = default;
  virtual ~KVRWaitingForConfigView() = default;
  KVRWaitingForConfigView(const KVRWaitingForConfigView&) = delete;
  KVRWaitingForConfigView& operator=(const KVRWaitingForConfigView&) = delete;

  // Called once the view was loaded from its interface file: starts the
  // activity indicator.
  virtual void awakeFromNib();

  // Offset of the title from the top edge, in points (the owner sets it to
  // the window's top safe-area inset, or 20).
  double titleTopConstraint = 0;
  ui::ActivityIndicator activityIndicator;
  ui::Label titleView{"Waiting for configuration…"};
};

}  // namespace korvel
