#include <korvel/debug/KVRDebugOverlayWindow.h>

#include <algorithm>

#include <korvel/debug/KVRDebugLogsDataProvider.h>
#include <korvel/debug/KVRDebugMessageCenter.h>
#include <korvel/debug/KVRDebugOverlayViewController.h>
#include <korvel/debug/KVRPagesProvider.h>
#include <korvel/foundation/internal/Mutex.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace {

struct Seams {
  Mutex mutex;
  KVRDebugOverlayWindow::Factory factory KORVEL_GUARDED_BY(mutex);
  std::function<std::shared_ptr<KVRDebugWindow>()> mainWindow KORVEL_GUARDED_BY(mutex);
  std::shared_ptr<ui::Presenter> presenter KORVEL_GUARDED_BY(mutex);
};

Seams& seams() {
  static Seams* s = new Seams;
  return *s;
}

}  // namespace

void KVRDebugWindow::addSubviewPinnedToTop(const ViewPtr& view) {
  if (!view) return;
  std::erase(subviews_, view);
  subviews_.push_back(view);
}

void KVRDebugWindow::removeSubview(const ViewPtr& view) { std::erase(subviews_, view); }

void KVRDebugWindow::bringSubviewToFront(const ViewPtr& view) {
  if (!containsSubview(view)) return;
  std::erase(subviews_, view);
  subviews_.push_back(view);
}

bool KVRDebugWindow::containsSubview(const ViewPtr& view) const {
  return view && std::find(subviews_.begin(), subviews_.end(), view) != subviews_.end();
}

std::shared_ptr<KVRDebugWindow> KVRDebugWindow::applicationMainWindow() {
  std::function<std::shared_ptr<KVRDebugWindow>()> provider;
  {
    auto& s = seams();
    MutexLock lock(s.mutex);
    provider = s.mainWindow;
  }
  return provider ? provider() : nullptr;
}

void KVRDebugWindow::setApplicationMainWindowProvider(
    std::function<std::shared_ptr<KVRDebugWindow>()> provider) {
  auto& s = seams();
  MutexLock lock(s.mutex);
  s.mainWindow = std::move(provider);
}

std::shared_ptr<KVRDebugOverlayWindow> KVRDebugOverlayWindow::buildDebugOverlayWindow() {
  Factory factory;
  {
    auto& s = seams();
    MutexLock lock(s.mutex);
    factory = s.factory;
  }
  std::shared_ptr<KVRDebugOverlayWindow> window;
  if (factory) window = factory();
  if (!window) window = std::make_shared<KVRDebugOverlayWindow>();
  window->setUpDebugMenu();
  return window;
}

void KVRDebugOverlayWindow::setFactory(Factory factory) {
  auto& s = seams();
  MutexLock lock(s.mutex);
  s.factory = std::move(factory);
}

void KVRDebugOverlayWindow::setDefaultPresenter(std::shared_ptr<ui::Presenter> presenter) {
  auto& s = seams();
  MutexLock lock(s.mutex);
  s.presenter = std::move(presenter);
}

std::shared_ptr<ui::Presenter> KVRDebugOverlayWindow::defaultPresenter() {
  auto& s = seams();
  MutexLock lock(s.mutex);
  return s.presenter;
}

KVRDebugOverlayWindow::KVRDebugOverlayWindow()
    : windowView_(std::make_shared<ui::ViewNode>("window")),
      presenter_(defaultPresenter()) {
  windowView_->setFrame(ui::Screen::mainScreenBounds());
}

KVRDebugOverlayWindow::~KVRDebugOverlayWindow() = default;

void KVRDebugOverlayWindow::setUpDebugMenu() {
  if (overlayViewController_) return;
  std::shared_ptr<KVRDebugLogsDataProvider> dataProvider;
  if (auto center = KVRDebugMessageCenter::defaultCenter()) dataProvider = center->dataProvider();
  // Without a center (debugging not allowed) the menu still works, over a
  // log nobody writes to.
  if (!dataProvider) dataProvider = KVRDebugLogsDataProvider::make();
  const KVRPagesProvider pages(dataProvider);
  overlayViewController_ =
      std::make_shared<KVRDebugOverlayViewController>(dataProvider, pages.viewControllers());
  const auto& rootView = overlayViewController_->view();
  windowView_->addSubview(rootView);
  rootView->setPinnedToSuperviewEdges(true);
  overlayViewController_->layoutForBounds(rootView->bounds());
  // A host's window may have been made before the host set its presenter.
  if (!presenter_) presenter_ = defaultPresenter();
  overlayViewController_->setPresenter(presenter_);
}

std::shared_ptr<ui::ViewNode> KVRDebugOverlayWindow::hitTest(ui::Point point) {
  if (isHidden()) return nullptr;
  const ui::Point local{point.x - windowView_->frame().origin.x,
                              point.y - windowView_->frame().origin.y};
  auto hit = windowView_->hitTest(local);
  if (hit == windowView_) return nullptr;
  if (overlayViewController_ && hit == overlayViewController_->view()) return nullptr;
  return hit;
}

void KVRDebugOverlayWindow::presentDebugMenu() {
  if (debugMenuActive_) return;
  if (overlayViewController_) overlayViewController_->showDebugView();
  debugMenuActive_ = true;
}

void KVRDebugOverlayWindow::hideDebugMenu() {
  if (!debugMenuActive_) return;
  if (overlayViewController_) overlayViewController_->hideDebugView();
  debugMenuActive_ = false;
}

void KVRDebugOverlayWindow::setPresenter(std::shared_ptr<ui::Presenter> presenter) {
  presenter_ = std::move(presenter);
  if (overlayViewController_) overlayViewController_->setPresenter(presenter_);
}

}  // namespace korvel
