#include <korvel/debug/KVRDebugOverlayViewController.h>

#include <algorithm>

#include <korvel/debug/KVRDebugLogsDataProvider.h>
#include <korvel/debug/KVRDebugMessageCenter.h>
#include <korvel/debug/KVRDebugTableViewController.h>
#include <korvel/platform/Env.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/UIEnv.h>

namespace korvel {

namespace {

// Default layout, in points.
constexpr double kMargin = 16;
constexpr double kButtonWidth = 88;
constexpr double kButtonHeight = 32;

}  // namespace

// MARK: - Custom touch point view

void KVRCustomTouchPointView::addTouchableView(const std::shared_ptr<ui::ViewNode>& view) {
  if (view && !isTouchable(view)) touchableViews_.push_back(view);
}

void KVRCustomTouchPointView::removeTouchableView(const std::shared_ptr<ui::ViewNode>& view) {
  std::erase(touchableViews_, view);
}

bool KVRCustomTouchPointView::isTouchable(const std::shared_ptr<ui::ViewNode>& view) const {
  return std::find(touchableViews_.begin(), touchableViews_.end(), view) != touchableViews_.end();
}

bool KVRCustomTouchPointView::pointInside(ui::Point point) const {
  return std::any_of(touchableViews_.begin(), touchableViews_.end(),
                     [point](const auto& view) { return view->frame().contains(point); });
}

// MARK: - Overlay view controller

KVRDebugOverlayViewController::KVRDebugOverlayViewController(
    std::shared_ptr<KVRDebugLogsDataProvider> dataProvider,
    std::vector<std::shared_ptr<ui::ViewController>> pages)
    : dataProvider_(std::move(dataProvider)),
      view_(std::make_shared<KVRCustomTouchPointView>("overlay")),
      backgroundView_(std::make_shared<ui::ViewNode>("background")),
      pageView_(std::make_shared<ui::ViewNode>("pages")),
      passiveButtonView_(std::make_shared<ui::ViewNode>("passiveButton")) {
  std::erase(pages, nullptr);
  pages_ = std::move(pages);

  view_->addSubview(backgroundView_);
  backgroundView_->setPinnedToSuperviewEdges(true);
  view_->addSubview(pageView_);
  view_->addSubview(passiveButtonView_);

  closeButton_.setImageSystemName(kCloseButtonImage);
  passiveButton_.action = [this] { passiveButtonTapped(); };
  closeButton_.action = [this] { closeButtonTapped(); };

  // As it comes from its interface file: hidden until shown.
  backgroundView_->setHidden(true);
  backgroundView_->setBackgroundColor(ui::Color::clear());
  pageView_->setAlpha(0);
  passiveButton_.setHidden(true);
  passiveButtonView_->setHidden(true);
  if (auto page = currentViewController()) {
    page->loadViewIfNeeded();
    titleLabel_.setText(page->title());
  }
}

KVRDebugOverlayViewController::~KVRDebugOverlayViewController() {
  if (shown_) {
    if (auto page = currentViewController()) page->viewDidDisappear(false);
  }
}

void KVRDebugOverlayViewController::layoutForBounds(const ui::Rect& bounds) {
  passiveButtonView_->setFrame(ui::Rect::make(kMargin, kMargin, kButtonWidth, kButtonHeight));
  const double top = kMargin * 2 + kButtonHeight;
  pageView_->setFrame(ui::Rect::make(kMargin, top,
                                           std::max(0.0, bounds.size.width - 2 * kMargin),
                                           std::max(0.0, bounds.size.height - top - kMargin)));
}

// MARK: Paging

std::shared_ptr<ui::ViewController> KVRDebugOverlayViewController::viewControllerBefore(
    const ui::ViewController& page) const {
  for (size_t i = 1; i < pages_.size(); ++i) {
    if (pages_[i].get() == &page) return pages_[i - 1];
  }
  return nullptr;
}

std::shared_ptr<ui::ViewController> KVRDebugOverlayViewController::viewControllerAfter(
    const ui::ViewController& page) const {
  for (size_t i = 0; i + 1 < pages_.size(); ++i) {
    if (pages_[i].get() == &page) return pages_[i + 1];
  }
  return nullptr;
}

std::shared_ptr<ui::ViewController> KVRDebugOverlayViewController::currentViewController()
    const {
  return currentIndex_ < pages_.size() ? pages_[currentIndex_] : nullptr;
}

void KVRDebugOverlayViewController::setCurrentPage(size_t index, bool) {
  if (index >= pages_.size()) return;
  const bool changes = index != currentIndex_;
  if (changes && shown_) pages_[currentIndex_]->viewDidDisappear(false);
  currentIndex_ = index;
  // Pages set their titles when their views load.
  pages_[index]->loadViewIfNeeded();
  titleLabel_.setText(pages_[index]->title());
  if (shown_ && (changes || !pages_[index]->isVisible())) pages_[index]->viewWillAppear(false);
}

bool KVRDebugOverlayViewController::showNextPage() {
  if (currentIndex_ + 1 >= pages_.size()) return false;
  setCurrentPage(currentIndex_ + 1, true);
  return true;
}

bool KVRDebugOverlayViewController::showPreviousPage() {
  if (currentIndex_ == 0 || pages_.empty()) return false;
  setCurrentPage(currentIndex_ - 1, true);
  return true;
}

// MARK: Showing

void KVRDebugOverlayViewController::showDebugView() {
  const auto center = KVRDebugMessageCenter::defaultCenter();
  const bool showingTagResult = center && center->isShowingTagResult();
  // The passive mode and the button's title stay as the user left them: a
  // passive overlay hidden and shown again is still passive.
  shown_ = true;
  if (!pages_.empty()) setCurrentPage(showingTagResult ? pages_.size() - 1 : 0, false);

  backgroundView_->setHidden(false);
  backgroundView_->setAlpha(1.0);
  view_->addTouchableView(passiveButtonView_);
  view_->addTouchableView(pageView_);
  passiveButton_.setHidden(false);
  passiveButtonView_->setHidden(false);
  pageView_->setAlpha(1.0);
  backgroundView_->setBackgroundColor(ui::Color::black().withAlphaComponent(kBackgroundDimming));
  tellPagesOverlayIsVisible(true);
}

void KVRDebugOverlayViewController::hideDebugView() {
  backgroundView_->setHidden(true);
  view_->removeTouchableView(passiveButtonView_);
  view_->removeTouchableView(pageView_);
  passiveButton_.setHidden(true);
  passiveButtonView_->setHidden(true);
  pageView_->setAlpha(0);
  backgroundView_->setBackgroundColor(ui::Color::clear());
  tellPagesOverlayIsVisible(false);
  if (shown_) {
    shown_ = false;
    if (auto page = currentViewController()) page->viewDidDisappear(false);
  }
}

void KVRDebugOverlayViewController::passiveButtonTapped() {
  if (!passiveMode_) {
    pageView_->setAlpha(kPassiveAlpha);
    view_->removeTouchableView(pageView_);
    passiveButton_.setTitle(kActiveButtonTitle);
    backgroundView_->setBackgroundColor(ui::Color::clear());
  } else {
    pageView_->setAlpha(1.0);
    backgroundView_->setAlpha(1.0);
    view_->addTouchableView(pageView_);
    passiveButton_.setTitle(kPassiveButtonTitle);
    backgroundView_->setBackgroundColor(
        ui::Color::black().withAlphaComponent(kBackgroundDimming));
  }
  passiveMode_ = !passiveMode_;
}

void KVRDebugOverlayViewController::closeButtonTapped() {
  ui::uiEnv().mainQueue().async([] {
    if (auto center = KVRDebugMessageCenter::defaultCenter()) center->hideDebugMenu();
  });
}

void KVRDebugOverlayViewController::tellPagesOverlayIsVisible(bool visible) {
  for (const auto& page : pages_) {
    if (auto observer = dynamic_cast<KVRDebugOverlayVisibilityObserver*>(page.get())) {
      observer->setOverlayIsVisible(visible);
    }
  }
}

void KVRDebugOverlayViewController::setPresenter(
    const std::shared_ptr<ui::Presenter>& presenter) {
  for (const auto& page : pages_) {
    if (auto table = dynamic_cast<KVRDebugTableViewController*>(page.get())) {
      table->setPresenter(presenter);
    }
  }
}

}  // namespace korvel
