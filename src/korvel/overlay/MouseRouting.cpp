#include <korvel/overlay/MouseRouting.h>

namespace korvel::overlay {

MouseLayer MouseRouter::route(MouseEventKind kind, int button, const MouseEventContext& context) {
  const uint32_t bit = button >= 0 && button < 32 ? (1u << button) : 0;
  MouseLayer layer;
  if (heldButtons_ != 0) {
    layer = captured_;
  } else {
    layer = context.overlayPopupWantsMouse || context.overlayHitsPoint ? MouseLayer::Overlay
                                                                       : MouseLayer::Application;
  }
  if (kind == MouseEventKind::ButtonDown && bit != 0) {
    if (heldButtons_ == 0) captured_ = layer;
    heldButtons_ |= bit;
  } else if (kind == MouseEventKind::ButtonUp) {
    // A release of a button pressed before the window saw it (or pressed
    // elsewhere) simply follows the point.
    heldButtons_ &= ~bit;
  }
  return layer;
}

}  // namespace korvel::overlay
