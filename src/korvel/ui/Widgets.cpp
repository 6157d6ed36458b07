#include <korvel/ui/Widgets.h>

#include <korvel/platform/Env.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/UIEnv.h>

namespace korvel::ui {

void animate(double duration, const std::function<void()>& animations,
             std::function<void()> completion) {
  if (animations) animations();
  if (completion) uiEnv().mainQueue().asyncAfter(duration, std::move(completion));
}

}  // namespace korvel::ui
