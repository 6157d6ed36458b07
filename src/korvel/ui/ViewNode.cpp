#include <korvel/ui/ViewNode.h>

#include <algorithm>

#include <korvel/foundation/internal/Mutex.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::ui {

void ViewNode::setFrame(const Rect& frame) {
  frame_ = frame;
  for (const auto& subview : subviews_) {
    if (subview->pinnedToEdges_) subview->setFrame(bounds());
  }
}

void ViewNode::setPinnedToSuperviewEdges(bool pinned) {
  pinnedToEdges_ = pinned;
  if (pinned) {
    if (auto parent = superview()) setFrame(parent->bounds());
  }
}

bool ViewNode::isDescendant(const ViewNode& view) const {
  if (&view == this) return true;
  return std::any_of(subviews_.begin(), subviews_.end(),
                     [&view](const auto& subview) { return subview->isDescendant(view); });
}

void ViewNode::addSubview(const std::shared_ptr<ViewNode>& view) {
  // A view may not contain itself: that would make the tree a cycle.
  if (!view || view->isDescendant(*this)) return;
  if (auto former = view->superview(); former && former.get() != this) {
    view->removeFromSuperview();
  }
  std::erase(subviews_, view);
  subviews_.push_back(view);
  view->superview_ = weak_from_this();
  if (view->pinnedToEdges_) view->setFrame(bounds());
}

void ViewNode::removeFromSuperview() {
  auto parent = superview();
  superview_.reset();
  if (!parent) return;
  // Keep this view alive while the parent lets go of it.
  auto self = shared_from_this();
  std::erase(parent->subviews_, self);
}

void ViewNode::bringSubviewToFront(const std::shared_ptr<ViewNode>& view) {
  auto it = std::find(subviews_.begin(), subviews_.end(), view);
  if (it == subviews_.end()) return;
  subviews_.erase(it);
  subviews_.push_back(view);
}

bool ViewNode::pointInside(Point point) const { return bounds().contains(point); }

std::shared_ptr<ViewNode> ViewNode::hitTest(Point point) {
  if (hidden_ || !userInteractionEnabled_ || alpha_ < kMinimumHitTestAlpha) return nullptr;
  if (!pointInside(point)) return nullptr;
  // Front-most first; a copy, since nothing should change the tree while a
  // touch is routed, but a subclass's pointInside might.
  const auto subviews = subviews_;
  for (auto it = subviews.rbegin(); it != subviews.rend(); ++it) {
    const Point local{point.x - (*it)->frame_.origin.x, point.y - (*it)->frame_.origin.y};
    if (auto hit = (*it)->hitTest(local)) return hit;
  }
  return shared_from_this();
}

Point ViewNode::convertPointToDescendant(Point point, const ViewNode& descendant) const {
  // Walk up from the descendant, collecting the offsets down to this view.
  std::vector<const ViewNode*> chain;
  for (const ViewNode* v = &descendant; v != nullptr && v != this;) {
    chain.push_back(v);
    auto parent = v->superview();
    v = parent.get();
    if (v == nullptr) return point;  // not below this view
  }
  for (const ViewNode* v : chain) {
    point.x -= v->frame_.origin.x;
    point.y -= v->frame_.origin.y;
  }
  return point;
}

namespace {

struct MainScreen {
  Mutex mutex;
  Size size KORVEL_GUARDED_BY(mutex){1280, 720};
};

MainScreen& mainScreen() {
  static MainScreen* screen = new MainScreen;
  return *screen;
}

}  // namespace

Rect Screen::mainScreenBounds() {
  auto& screen = mainScreen();
  MutexLock lock(screen.mutex);
  return Rect{{0, 0}, screen.size};
}

void Screen::setMainScreenSize(Size size) {
  auto& screen = mainScreen();
  MutexLock lock(screen.mutex);
  screen.size = size;
}

}  // namespace korvel::ui
