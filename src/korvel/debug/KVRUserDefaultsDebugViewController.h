// The user defaults page: every entry of the shared user defaults, keys in
// the user's locale order ignoring case, one multi-line row each:
//
//   <key> = <value>     12 pt; the key bold in the system blue, " = " and
//                       the value (its description, as logs show values)
//                       regular
//
// Rows are not selectable; "Copy" puts the row's text on the general
// pasteboard as plain text. The entries are read again whenever the page
// appears.
//
// Main thread only.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <string>
#include <vector>

#include <korvel/foundation/KVRParameters.h>
#include <korvel/debug/KVRDebugTableViewController.h>
#include <korvel/ui/StyledText.h>

namespace korvel {

class KVNUserDefaults;

class KORVEL_EXPORT KVRUserDefaultsDebugViewController : public KVRDebugTableViewController {
 public:
  static constexpr const char* kTitle = "User Defaults";
  static constexpr double kFontSize = 12;

  // Null reads KVNUserDefaults::sharedUserDefaults() each time.
  explicit KVRUserDefaultsDebugViewController(std::shared_ptr<KVNUserDefaults> defaults = nullptr);

  void viewDidLoad() override;
  void viewWillAppear(bool animated) override;

  // Reads the entries and reloads the table.
  void reloadDefaults();
  const std::vector<std::string>& sortedKeys() const { return keys_; }

  static ui::StyledText rowText(const std::string& key, const KVRValue& value);

  size_t numberOfRowsInSection(size_t section) const override;
  ui::TableCell cellForRow(ui::IndexPath indexPath) const override;
  bool shouldHighlightRow(ui::IndexPath) const override { return false; }
  void copyRow(ui::IndexPath indexPath) override;

 private:
  std::shared_ptr<KVNUserDefaults> defaults_;
  KVRParameters entries_;
  std::vector<std::string> keys_;
};

}  // namespace korvel
