// The windows the debug message center works with, kept behind a small seam.
//
// KVRDebugWindow is a window as the debug tools need it: hidden or not, a
// level, a top safe-area inset, and the views the tools put into it (only
// the waiting-for-configuration banner today). KVRDebugOverlayWindow is the
// transparent overlay above the application that shows the debug menu: a
// window covering the main screen whose root view controller is the
// KVRDebugOverlayViewController with the six debug pages.
//
// A host installs its own overlay subclass with KVRDebugOverlayWindow::
// setFactory() (the menu is set up on whatever the factory makes) and tells
// where the application's main window is with
// KVRDebugWindow::setApplicationMainWindowProvider(). A renderer routes each
// mouse or touch event through hitTest(): a view means the overlay takes
// the event, null means it belongs to the application underneath.
//
// Main thread only, except the static setters, which any thread may call.
#pragma once

#include <korvel/export.h>

#include <functional>
#include <memory>
#include <vector>

#include <korvel/ui/UI.h>
#include <korvel/ui/ViewNode.h>

namespace korvel {

class KVRDebugOverlayViewController;
class KVRWaitingForConfigView;

class KORVEL_EXPORT KVRDebugWindow {
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

class KORVEL_EXPORT KVRDebugOverlayWindow : public KVRDebugWindow {
 public:
  using Factory = std::function<std::shared_ptr<KVRDebugOverlayWindow>()>;

  // A new overlay window, from the factory in force (a plain overlay unless
  // a host installed its own), with the debug menu set up.
  static std::shared_ptr<KVRDebugOverlayWindow> buildDebugOverlayWindow();
  // Null restores the plain overlay.
  static void setFactory(Factory factory);

  // Where every overlay built from now on presents alerts, share sheets and
  // mail (a host's renderer installs one); held strongly. Null drops it.
  static void setDefaultPresenter(std::shared_ptr<ui::Presenter> presenter);
  static std::shared_ptr<ui::Presenter> defaultPresenter();

  // A window with the main screen's bounds and no menu yet.
  KVRDebugOverlayWindow();
  ~KVRDebugOverlayWindow() override;

  // Makes the pages (on the default debug message center's log, or on an
  // empty log without a center) and an overlay view controller over them,
  // installed as the root view controller with its view pinned to the
  // window's edges. Does nothing when the menu is set up already.
  void setUpDebugMenu();
  // The root view controller; null until the menu is set up.
  const std::shared_ptr<KVRDebugOverlayViewController>& debugOverlayViewController() const {
    return overlayViewController_;
  }

  // The window as a view (frame = its bounds on the screen); the root view
  // controller's view is its only subview.
  const std::shared_ptr<ui::ViewNode>& windowView() const { return windowView_; }
  ui::Rect frame() const { return windowView_->frame(); }
  // The root view follows (the main screen changed size, say).
  void setFrame(const ui::Rect& frame) { windowView_->setFrame(frame); }

  // The view under point (screen coordinates) that takes the touch: null
  // when the window is hidden, or when the hit is the window itself or the
  // root view (an empty part of the overlay), so the touch falls through to
  // the application.
  virtual std::shared_ptr<ui::ViewNode> hitTest(ui::Point point);
  bool takesTouchAt(ui::Point point) { return hitTest(point) != nullptr; }

  // Shows or hides the debug menu; each does nothing when the menu already
  // is in that state.
  virtual void presentDebugMenu();
  virtual void hideDebugMenu();
  bool debugMenuActive() const { return debugMenuActive_; }

  // Where this window's pages present (the default presenter unless set).
  std::shared_ptr<ui::Presenter> presenter() const { return presenter_; }
  void setPresenter(std::shared_ptr<ui::Presenter> presenter);

 private:
  bool debugMenuActive_ = false;
  std::shared_ptr<ui::ViewNode> windowView_;
  std::shared_ptr<KVRDebugOverlayViewController> overlayViewController_;
  std::shared_ptr<ui::Presenter> presenter_;
};

}  // namespace korvel
