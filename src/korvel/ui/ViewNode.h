// A minimal retained view tree: frames, visibility and the hit testing a
// toolkit does to decide which view a touch (or a mouse event) belongs to.
//
// The library's overlay screens describe their layout with it; a renderer
// that draws them with an immediate-mode toolkit copies the rectangles it
// drew into the frames each frame and asks the window's hitTest() whether an
// event belongs to the overlay or falls through to the application.
//
// Coordinates are points; a frame is in its superview's coordinate space,
// and a view's own space starts at its frame's origin (no bounds offsets, no
// transforms). Main thread only, except Screen, which any thread may use.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvel::ui {

struct KORVEL_EXPORT Point {
  double x = 0;
  double y = 0;
  friend bool operator==(const Point&, const Point&) = default;
};

struct KORVEL_EXPORT Size {
  double width = 0;
  double height = 0;
  friend bool operator==(const Size&, const Size&) = default;
};

struct KORVEL_EXPORT Rect {
  Point origin;
  Size size;

  static Rect make(double x, double y, double width, double height) {
    return Rect{{x, y}, {width, height}};
  }
  double minX() const { return origin.x; }
  double minY() const { return origin.y; }
  double maxX() const { return origin.x + size.width; }
  double maxY() const { return origin.y + size.height; }
  bool isEmpty() const { return size.width <= 0 || size.height <= 0; }
  // Half-open, as toolkits test touches: the left and top edges are inside,
  // the right and bottom edges are not. An empty rectangle contains nothing.
  bool contains(Point p) const {
    return !isEmpty() && p.x >= minX() && p.x < maxX() && p.y >= minY() && p.y < maxY();
  }
  friend bool operator==(const Rect&, const Rect&) = default;
};

// Red, green, blue and alpha in 0...1.
struct KORVEL_EXPORT Color {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 0;

  static Color clear() { return {}; }
  static Color black() { return {0, 0, 0, 1}; }
  Color withAlphaComponent(double a) const { return {red, green, blue, a}; }
  friend bool operator==(const Color&, const Color&) = default;
};

class KORVEL_EXPORT ViewNode : public std::enable_shared_from_this<ViewNode> {
 public:
  // Views with an alpha below this are invisible to touches.
  static constexpr double kMinimumHitTestAlpha = 0.01;

  ViewNode() = default;
  explicit ViewNode(std::string name) : name_(std::move(name)) {}
  virtual ~ViewNode() = default;
  ViewNode(const ViewNode&) = delete;
  ViewNode& operator=(const ViewNode&) = delete;

  // A name for renderers and diagnostics ("passiveButton", ...).
  const std::string& name() const { return name_; }

  const Rect& frame() const { return frame_; }
  // Moves the view; subviews pinned to the edges follow the new size.
  void setFrame(const Rect& frame);
  // The view in its own coordinates: origin zero, the frame's size.
  Rect bounds() const { return Rect{{0, 0}, frame_.size}; }

  bool isHidden() const { return hidden_; }
  void setHidden(bool hidden) { hidden_ = hidden; }
  double alpha() const { return alpha_; }
  void setAlpha(double alpha) { alpha_ = alpha; }
  // Nothing means no fill (as clear).
  const std::optional<Color>& backgroundColor() const { return backgroundColor_; }
  void setBackgroundColor(std::optional<Color> color) { backgroundColor_ = color; }
  bool isUserInteractionEnabled() const { return userInteractionEnabled_; }
  void setUserInteractionEnabled(bool enabled) { userInteractionEnabled_ = enabled; }

  // Keeps the view's frame equal to its superview's bounds, now and after
  // every later change of the superview's frame.
  bool isPinnedToSuperviewEdges() const { return pinnedToEdges_; }
  void setPinnedToSuperviewEdges(bool pinned);

  // Adds view in front of the others (moving it to the front when it is
  // already a subview; taking it from its former superview otherwise).
  // Adding a view to itself or to one of its own subviews is ignored.
  void addSubview(const std::shared_ptr<ViewNode>& view);
  void removeFromSuperview();
  void bringSubviewToFront(const std::shared_ptr<ViewNode>& view);
  // Back to front.
  const std::vector<std::shared_ptr<ViewNode>>& subviews() const { return subviews_; }
  std::shared_ptr<ViewNode> superview() const { return superview_.lock(); }
  // Whether view is this view or lies somewhere below it.
  bool isDescendant(const ViewNode& view) const;

  // Whether point (in this view's coordinates) is inside it; by default,
  // inside its bounds.
  virtual bool pointInside(Point point) const;
  // The deepest visible, interaction-enabled view under point (in this
  // view's coordinates), front-most first: null when this view is hidden,
  // nearly transparent, takes no interaction, or point is not inside it;
  // otherwise the hit of a subview or, when none is hit, this view.
  virtual std::shared_ptr<ViewNode> hitTest(Point point);

  // point, given in this view's coordinates, in the coordinates of
  // descendant (which must lie below this view; otherwise point unchanged).
  Point convertPointToDescendant(Point point, const ViewNode& descendant) const;

 private:
  std::string name_;
  Rect frame_;
  bool hidden_ = false;
  double alpha_ = 1.0;
  std::optional<Color> backgroundColor_;
  bool userInteractionEnabled_ = true;
  bool pinnedToEdges_ = false;
  std::vector<std::shared_ptr<ViewNode>> subviews_;
  std::weak_ptr<ViewNode> superview_;
};

// The device's main screen. A Linux host sets its size to the area its
// renderer draws in (the display, or the host window); windows that cover
// the screen are made with these bounds. Any thread.
class KORVEL_EXPORT Screen {
 public:
  Screen() = delete;
  // 1280 x 720 until the host sets its own.
  static Rect mainScreenBounds();
  static void setMainScreenSize(Size size);
};

}  // namespace korvel::ui
