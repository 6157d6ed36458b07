// Draws the "Config Settings" page (KVRDebugNavigationOptionsViewController):
// the beta switch, the buckets field, the refresh button with its activity
// indicator and the clear-cache button, as the page's widget states say.
#pragma once

#include <korvel/export.h>

#include <string>

#include <korvel/overlay/WidgetDrawing.h>

namespace korvel {
class KVRDebugNavigationOptionsViewController;
}

namespace korvel::overlay {

class KORVEL_EXPORT ConfigPageRenderer {
 public:
  void draw(KVRDebugNavigationOptionsViewController& page, ButtonFrames& buttons);

 private:
  // ImGui edits text in place; the field's text is copied in while the
  // field is not being edited.
  std::string buckets_;
  bool editing_ = false;
};

}  // namespace korvel::overlay
