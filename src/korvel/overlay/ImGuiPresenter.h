// The overlay's Presenter: alerts, share sheets and mail composers the debug
// pages present, drawn as ImGui modal popups (one at a time: alerts first,
// then the screen presented last).
//
// Completions of presentations and dismissals run on the main queue, the
// way a toolkit calls them after its animation, never inside the page's own
// call.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/overlay/WidgetDrawing.h>
#include <korvel/ui/UI.h>

namespace korvel::overlay {

class KORVEL_EXPORT ImGuiPresenter : public ui::Presenter {
 public:
  void presentViewController(std::shared_ptr<ui::ViewController> screen,
                             ui::ModalPresentationStyle style, bool animated,
                             std::function<void()> completion) override;
  void presentAlert(ui::Alert alert, bool animated,
                    std::function<void()> completion) override;
  void dismissViewController(bool animated, std::function<void()> completion) override;
  // A desktop window is a large screen: pages take their large-screen
  // presentations (form sheets).
  ui::UserInterfaceIdiom userInterfaceIdiom() const override {
    return ui::UserInterfaceIdiom::Pad;
  }

  // Draws what is presented, in the current (overlay) ImGui context. Share
  // sheets open below the button they are anchored at, when it was drawn.
  void draw(const ButtonFrames& buttons);

  size_t pendingAlertCount() const { return alerts_.size(); }
  size_t presentedCount() const { return presented_.size(); }

 private:
  struct PendingAlert {
    uint64_t id;
    ui::Alert alert;
    std::function<void()> completion;
  };
  struct Presented {
    uint64_t id;
    std::shared_ptr<ui::ViewController> screen;
    ui::ModalPresentationStyle style;
    std::function<void()> completion;
    // A composer's To field as the user edits it (comma-separated).
    std::string recipients;
    bool recipientsLoaded = false;
  };

  // True when the popup with this id is open this frame (opening it the
  // first time it is asked for).
  bool beginModal(uint64_t id, const std::string& title, unsigned flags);
  void drawAlert();
  void drawPresented(const ButtonFrames& buttons);

  std::deque<PendingAlert> alerts_;
  std::vector<Presented> presented_;
  uint64_t nextId_ = 1;
  uint64_t openId_ = 0;
};

// The addresses in a To field: separated by commas, semicolons or spaces,
// empty ones left out.
std::vector<std::string> splitRecipients(std::string_view text);

}  // namespace korvel::overlay
