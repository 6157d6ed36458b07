// Draws the debug overlay the message center shows: the dimming background,
// the passive/active button and the panel with the page title, before/after
// navigation, the page indicator, the close button and the current page.
//
// Everything it shows comes from the overlay's screens (titles, opacities,
// which views take touches, the pages' rows); after drawing, it copies the
// rectangles ImGui gave the panel and the passive button into the frames of
// the overlay's page view and passive button view, so the overlay window's
// hit test matches what is on screen.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <vector>

#include <korvel/overlay/ConfigPageRenderer.h>
#include <korvel/overlay/ImGuiPresenter.h>
#include <korvel/overlay/TablePageRenderer.h>
#include <korvel/overlay/WidgetDrawing.h>
#include <korvel/ui/TableView.h>
#include <korvel/ui/UI.h>
#include <korvel/ui/ViewNode.h>

namespace korvel {
class KVRDebugOverlayViewController;
class KVRDebugOverlayWindow;
}  // namespace korvel

namespace korvel::overlay {

// What the last frame drew.
struct KORVEL_EXPORT RenderedOverlay {
  // The page on screen; null when the overlay was not drawn.
  std::shared_ptr<ui::ViewController> page;
  // The rows of a table page that were on screen, top to bottom.
  std::vector<ui::IndexPath> rows;
};

class KORVEL_EXPORT OverlayRenderer {
 public:
  OverlayRenderer();
  ~OverlayRenderer();

  // The overlay window the debug message center shows now, or null.
  static std::shared_ptr<KVRDebugOverlayWindow> visibleOverlayWindow();

  // Draws window on a screen of this size, in the current ImGui context.
  void draw(KVRDebugOverlayWindow& window, ui::Size screen);
  // Draws the presenter's alerts and sheets (also while no overlay shows).
  void drawPopups();

  const std::shared_ptr<ImGuiPresenter>& presenter() const { return presenter_; }
  const RenderedOverlay& lastFrame() const { return lastFrame_; }
  // Where the overlay's buttons were drawn in the last frame.
  const ButtonFrames& buttonFrames() const { return buttons_; }

 private:
  void layOut(KVRDebugOverlayViewController& overlay, ui::Size screen);
  void drawBackground(KVRDebugOverlayViewController& overlay);
  void drawPassiveButton(KVRDebugOverlayViewController& overlay);
  void drawPanel(KVRDebugOverlayViewController& overlay);
  void drawHeader(KVRDebugOverlayViewController& overlay);
  void drawPage(ui::ViewController& page);

  std::shared_ptr<ImGuiPresenter> presenter_;
  TablePageRenderer tables_;
  ConfigPageRenderer config_;
  ButtonFrames buttons_;
  RenderedOverlay lastFrame_;
  // The screen size the panel was last placed for.
  ui::Size laidOutFor_;
  const void* laidOutOverlay_ = nullptr;
  bool placePanel_ = true;
};

}  // namespace korvel::overlay
