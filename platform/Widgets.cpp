#include "platform/Widgets.h"

#include "platform/Env.h"
#include "platform/MainQueue.h"

namespace korvel::platform {

void animate(double duration, const std::function<void()>& animations,
             std::function<void()> completion) {
  if (animations) animations();
  if (completion) env().mainQueue().asyncAfter(duration, std::move(completion));
}

}  // namespace korvel::platform
