// Which layer a mouse event belongs to: the debug overlay drawn above the
// application, or the application underneath.
//
// The overlay is a window above the application; only the parts of it that
// take touches (its overlay window's hit test answers a view) keep events
// from the application. Two things override the point test:
//  - a press belongs to the layer it started on until every button is up
//    again, so a drag (a scrollbar, a slider) never changes hands half-way;
//  - while the overlay's ImGui holds a popup open (an alert, a share sheet, a
//    row's context menu) it wants every event, as a modal would; those float
//    outside the overlay's view tree.
#pragma once

#include <korvel/export.h>

#include <cstdint>

namespace korvel::overlay {

enum class MouseLayer { Application, Overlay };

enum class MouseEventKind { Motion, ButtonDown, ButtonUp, Wheel };

struct KORVEL_EXPORT MouseEventContext {
  // The overlay window's hit test found a view under the pointer.
  bool overlayHitsPoint = false;
  // The overlay's ImGui asked for the mouse (io.WantCaptureMouse) with a
  // popup open in its last frame.
  bool overlayPopupWantsMouse = false;
};

class KORVEL_EXPORT MouseRouter {
 public:
  // The layer the event goes to. button is 0 (left), 1 (right), 2 (middle);
  // it only matters for presses and releases.
  MouseLayer route(MouseEventKind kind, int button, const MouseEventContext& context);

  // The layer holding a press, if a button is down.
  bool hasCapture() const { return heldButtons_ != 0; }
  MouseLayer captureLayer() const { return captured_; }

  // Forgets held buttons (the window lost the mouse, say).
  void reset() { heldButtons_ = 0; }

 private:
  uint32_t heldButtons_ = 0;
  MouseLayer captured_ = MouseLayer::Application;
};

}  // namespace korvel::overlay
