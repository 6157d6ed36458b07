#include "debug/KVRDebugOverlayWindow.h"

#include <algorithm>
#include <mutex>

namespace korvel {

namespace {

struct Seams {
  std::mutex mutex;
  KVRDebugOverlayWindow::Factory factory;
  std::function<std::shared_ptr<KVRDebugWindow>()> mainWindow;
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
    std::lock_guard lock(s.mutex);
    provider = s.mainWindow;
  }
  return provider ? provider() : nullptr;
}

void KVRDebugWindow::setApplicationMainWindowProvider(
    std::function<std::shared_ptr<KVRDebugWindow>()> provider) {
  auto& s = seams();
  std::lock_guard lock(s.mutex);
  s.mainWindow = std::move(provider);
}

std::shared_ptr<KVRDebugOverlayWindow> KVRDebugOverlayWindow::buildDebugOverlayWindow() {
  Factory factory;
  {
    auto& s = seams();
    std::lock_guard lock(s.mutex);
    factory = s.factory;
  }
  std::shared_ptr<KVRDebugOverlayWindow> window;
  if (factory) window = factory();
  return window ? window : std::make_shared<KVRDebugOverlayWindow>();
}

void KVRDebugOverlayWindow::setFactory(Factory factory) {
  auto& s = seams();
  std::lock_guard lock(s.mutex);
  s.factory = std::move(factory);
}

}  // namespace korvel
