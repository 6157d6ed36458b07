// Home-screen widgets.
#pragma once

#include <korvel/export.h>

namespace korvel {

class KORVEL_EXPORT KVRWidgetReporter {
 public:
  KVRWidgetReporter() = delete;

  // Whether the user has any of the widgets of the iOS 14 generation.
  static void reportUserHasiOS14Widgets(bool hasWidgets) noexcept;
};

}  // namespace korvel
