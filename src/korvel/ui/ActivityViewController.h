// The share sheet: offers items (files here) to the system's sharing
// services. A screen presents it through its Presenter; on large screens it
// shows as a popover anchored at the control that opened it, which a
// renderer finds in sourceButton().
//
// Main thread only.
#pragma once

#include <korvel/export.h>

#include <filesystem>
#include <vector>

#include <korvel/ui/UI.h>
#include <korvel/ui/Widgets.h>

namespace korvel::ui {

class KORVEL_EXPORT ActivityViewController : public ViewController {
 public:
  explicit ActivityViewController(std::vector<std::filesystem::path> activityItems)
      : activityItems_(std::move(activityItems)) {}

  const std::vector<std::filesystem::path>& activityItems() const { return activityItems_; }

  // The control the sheet points at; not owned (it belongs to the screen
  // that presents the sheet and outlives it).
  const Button* sourceButton() const { return sourceButton_; }
  void setSourceButton(const Button* button) { sourceButton_ = button; }

 private:
  std::vector<std::filesystem::path> activityItems_;
  const Button* sourceButton_ = nullptr;
};

}  // namespace korvel::ui
