// The application information page: the installation identifier and the
// "Stay in app" switch.
//
//   section 0 "INID"     one row: the inid of the current configuration
//   section 1 "Options"  one row "Stay in app" with a switch showing
//                        whether URL opening is blocked
//
// Flipping the switch toggles the swizzler and then shows its new state.
// Selecting the switch's row only flips the switch (animated) and deselects
// the row: it does not toggle the swizzler, deliberately; only the switch's
// own value-changed action does. "Copy" puts the row's text ("" when it has
// none) on the general pasteboard as plain text.
//
// Main thread only.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <optional>
#include <string>

#include <korvel/debug/KVRDebugTableViewController.h>
#include <korvel/debug/KVRStayInAppSwizzler.h>
#include <korvel/ui/Widgets.h>

namespace korvel {

class KORVEL_EXPORT KVRDebugAppInfoViewController : public KVRDebugTableViewController {
 public:
  static constexpr const char* kTitle = "App Info";
  static constexpr const char* kINIDSectionTitle = "INID";
  static constexpr const char* kOptionsSectionTitle = "Options";
  static constexpr const char* kStayInAppRowTitle = "Stay in app";
  static constexpr size_t kINIDSection = 0;
  static constexpr size_t kOptionsSection = 1;

  explicit KVRDebugAppInfoViewController(
      std::shared_ptr<KVRStayInAppSwizzler> swizzler = KVRStayInAppSwizzler::sharedSwizzler());

  void viewDidLoad() override;
  void viewWillAppear(bool animated) override;

  const std::shared_ptr<KVRStayInAppSwizzler>& swizzler() const { return swizzler_; }
  ui::Switch& stayInAppSwitch() { return stayInAppSwitch_; }
  // The switch's value-changed action.
  void stayInAppSwitchChanged();

  // The row's text; nothing for an INID row without an inid.
  std::optional<std::string> textForRow(ui::IndexPath indexPath) const;

  size_t numberOfSections() const override { return 2; }
  size_t numberOfRowsInSection(size_t section) const override;
  ui::TableCell cellForRow(ui::IndexPath indexPath) const override;
  std::optional<std::string> titleForHeaderInSection(size_t section) const override;
  void didSelectRow(ui::IndexPath indexPath) override;
  void copyRow(ui::IndexPath indexPath) override;

 private:
  std::shared_ptr<KVRStayInAppSwizzler> swizzler_;
  // Mutable: cells hand the renderer a pointer to it from const reads.
  mutable ui::Switch stayInAppSwitch_;
};

}  // namespace korvel
