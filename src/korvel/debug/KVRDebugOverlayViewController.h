// The debug overlay's content: the debug pages side by side (one shown at a
// time, with before/after navigation and a page indicator), a title label
// with the current page's title, a close button, a dimming background and a
// passive-mode button.
//
// View tree (all frames in the overlay's coordinates, which are the
// window's and so the screen's):
//
//   view()                 KVRCustomTouchPointView, pinned to the window
//     backgroundView()     full size; black at 30 % while active
//     pageView()           the panel with the title, pages, page indicator
//                          and close button
//     passiveButtonView()  the passive/active button
//
// Only the overlay view's touchable views take touches: the page view and
// the passive button while active, the passive button alone while passive,
// nothing while hidden, so everything else reaches the application. A
// renderer sets the frames of pageView() and passiveButtonView() to what it
// drew (layoutForBounds() gives a default layout).
//
// Main thread only.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <vector>

#include <korvel/ui/UI.h>
#include <korvel/ui/ViewNode.h>
#include <korvel/ui/Widgets.h>

namespace korvel {

class KVRDebugLogsDataProvider;

// A view that takes a touch only inside the frame of one of its touchable
// views (frames in its own coordinates: its direct subviews').
class KORVEL_EXPORT KVRCustomTouchPointView : public ui::ViewNode {
 public:
  using ViewNode::ViewNode;

  const std::vector<std::shared_ptr<ui::ViewNode>>& touchableViews() const {
    return touchableViews_;
  }
  // Adding a view twice keeps one.
  void addTouchableView(const std::shared_ptr<ui::ViewNode>& view);
  void removeTouchableView(const std::shared_ptr<ui::ViewNode>& view);
  bool isTouchable(const std::shared_ptr<ui::ViewNode>& view) const;

  bool pointInside(ui::Point point) const override;

 private:
  std::vector<std::shared_ptr<ui::ViewNode>> touchableViews_;
};

class KORVEL_EXPORT KVRDebugOverlayViewController : public ui::ViewController {
 public:
  static constexpr const char* kPassiveButtonTitle = "Passive";  // shown while active
  static constexpr const char* kActiveButtonTitle = "Active";    // shown while passive
  static constexpr const char* kCloseButtonTitle = "Close";
  static constexpr const char* kCloseButtonImage = "xmark";
  // Opacity of the page view while passive.
  static constexpr double kPassiveAlpha = 0.7;
  // Opacity of the black background while active.
  static constexpr double kBackgroundDimming = 0.3;

  KVRDebugOverlayViewController(std::shared_ptr<KVRDebugLogsDataProvider> dataProvider,
                                std::vector<std::shared_ptr<ui::ViewController>> pages);
  ~KVRDebugOverlayViewController() override;

  const std::shared_ptr<KVRDebugLogsDataProvider>& dataProvider() const { return dataProvider_; }
  const std::vector<std::shared_ptr<ui::ViewController>>& debugViewControllers() const {
    return pages_;
  }

  // --- Views -------------------------------------------------------------
  const std::shared_ptr<KVRCustomTouchPointView>& view() const { return view_; }
  const std::shared_ptr<ui::ViewNode>& backgroundView() const { return backgroundView_; }
  const std::shared_ptr<ui::ViewNode>& pageView() const { return pageView_; }
  const std::shared_ptr<ui::ViewNode>& passiveButtonView() const {
    return passiveButtonView_;
  }
  ui::Button& passiveButton() { return passiveButton_; }
  ui::Button& closeButton() { return closeButton_; }
  ui::Label& titleLabel() { return titleLabel_; }
  // Frames for an overlay of this size: the page view inset from the edges
  // below the passive button, which sits at the top left.
  void layoutForBounds(const ui::Rect& bounds);

  // --- Paging ------------------------------------------------------------
  // The page before or after page; null at either end (pages do not wrap).
  std::shared_ptr<ui::ViewController> viewControllerBefore(
      const ui::ViewController& page) const;
  std::shared_ptr<ui::ViewController> viewControllerAfter(
      const ui::ViewController& page) const;
  // The page indicator.
  size_t presentationCount() const { return pages_.size(); }
  size_t presentationIndex() const { return currentIndex_; }
  // Null without pages.
  std::shared_ptr<ui::ViewController> currentViewController() const;
  // Shows the page at index (ignored past the end) and puts its title in
  // the title label; while the overlay is shown, the former page disappears
  // and the new one appears.
  void setCurrentPage(size_t index, bool animated);
  // The user swipes; false at either end.
  bool showNextPage();
  bool showPreviousPage();

  // --- Showing ------------------------------------------------------------
  // Picks the page (the tag information when the debug message center shows
  // a tag result, else the beacon log), shows the background and the
  // active panel, makes the page view and the passive button touchable and
  // tells the pages that the overlay is visible. The passive mode and the
  // passive button's title are left as they were.
  void showDebugView();
  // Hides it all again: nothing of the overlay takes touches.
  void hideDebugView();
  bool isDebugViewShown() const { return shown_; }

  bool passiveMode() const { return passiveMode_; }
  // Active: the panel at 70 % takes no touches (the application underneath
  // can be used), the background clears and the button reads "Active".
  // Passive: back to full opacity, dimmed background, "Passive".
  void passiveButtonTapped();
  // Asks the debug message center to hide the debug menu, on the next turn
  // of the main queue (the menu's teardown destroys this controller).
  void closeButtonTapped();

  // Hands presenter to every page that presents (held weakly by them).
  void setPresenter(const std::shared_ptr<ui::Presenter>& presenter);

 private:
  void tellPagesOverlayIsVisible(bool visible);

  std::shared_ptr<KVRDebugLogsDataProvider> dataProvider_;
  std::vector<std::shared_ptr<ui::ViewController>> pages_;
  size_t currentIndex_ = 0;
  bool shown_ = false;
  bool passiveMode_ = false;

  std::shared_ptr<KVRCustomTouchPointView> view_;
  std::shared_ptr<ui::ViewNode> backgroundView_;
  std::shared_ptr<ui::ViewNode> pageView_;
  std::shared_ptr<ui::ViewNode> passiveButtonView_;
  ui::Button passiveButton_{kPassiveButtonTitle};
  ui::Button closeButton_{kCloseButtonTitle};
  ui::Label titleLabel_;
};

}  // namespace korvel
