// The windows the debug message center works with, kept behind a small seam.
//
// KVRDebugWindow is a window as the debug tools need it: hidden or not, a
// level, a top safe-area inset, and the views the tools put into it (only
// the waiting-for-configuration banner today). KVRDebugOverlayWindow is the
// transparent overlay above the application that shows the debug menu.
//
// The classes here are plain models that record what was asked of them. A
// host (or the overlay screens, later) derives from them and draws; it
// installs its overlay with KVRDebugOverlayWindow::setFactory() and tells
// where the application's main window is with
// KVRDebugWindow::setApplicationMainWindowProvider().
//
// Main thread only, except the two setters, which any thread may call.
#pragma once

#include <functional>
#include <memory>
#include <vector>

namespace korvel {

class KVRWaitingForConfigView;

class KVRDebugWindow {
 public:
  using ViewPtr = std::shared_ptr<KVRWaitingForConfigView>;

  static constexpr int kWindowLevelNormal = 0;

  KVRDebugWindow() = default;
  virtual ~KVRDebugWindow() = default;
  KVRDebugWindow(const KVRDebugWindow&) = delete;
  KVRDebugWindow& operator=(const KVRDebugWindow&) = delete;

  virtual bool isHidden() const { return hidden_; }
  virtual void setHidden(bool hidden) { hidden_ = hidden; }

  virtual int windowLevel() const { return level_; }
  virtual void setWindowLevel(int level) { level_ = level; }

  // The height the status bar or a notch takes at the top; 0 when none.
  virtual double safeAreaTopInset() const { return safeAreaTopInset_; }
  void setSafeAreaTopInset(double inset) { safeAreaTopInset_ = inset; }

  // Adds view above the others, pinned to the top, left and right edges
  // (moved to the front when it is already there).
  virtual void addSubviewPinnedToTop(const ViewPtr& view);
  virtual void removeSubview(const ViewPtr& view);
  virtual void bringSubviewToFront(const ViewPtr& view);
  virtual bool containsSubview(const ViewPtr& view) const;
  // Back to front.
  const std::vector<ViewPtr>& subviews() const { return subviews_; }

  // The application's main window, from the provider; null without one.
  static std::shared_ptr<KVRDebugWindow> applicationMainWindow();
  // Null forgets the provider.
  static void setApplicationMainWindowProvider(
      std::function<std::shared_ptr<KVRDebugWindow>()> provider);

 private:
  bool hidden_ = true;
  int level_ = kWindowLevelNormal;
  double safeAreaTopInset_ = 0;
  std::vector<ViewPtr> subviews_;
};

class KVRDebugOverlayWindow : public KVRDebugWindow {
 public:
  using Factory = std::function<std::shared_ptr<KVRDebugOverlayWindow>()>;

  // A new overlay window from the factory in force (the plain model below
  // unless a host installed its own).
  static std::shared_ptr<KVRDebugOverlayWindow> buildDebugOverlayWindow();
  // Null restores the plain model.
  static void setFactory(Factory factory);

  // Shows or hides the debug menu; each does nothing when the menu already
  // is in that state.
  virtual void presentDebugMenu() { debugMenuActive_ = true; }
  virtual void hideDebugMenu() { debugMenuActive_ = false; }
  bool debugMenuActive() const { return debugMenuActive_; }

 private:
  bool debugMenuActive_ = false;
};

}  // namespace korvel
