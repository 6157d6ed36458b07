#include <korvel/debug/KVRDebugAppInfoViewController.h>

#include <korvel/debug/KVRDebugConfiguration.h>
#include <korvel/ui/Pasteboard.h>

namespace korvel {

KVRDebugAppInfoViewController::KVRDebugAppInfoViewController(
    std::shared_ptr<KVRStayInAppSwizzler> swizzler)
    : KVRDebugTableViewController(ui::TableViewStyle::Grouped),
      swizzler_(swizzler ? std::move(swizzler) : KVRStayInAppSwizzler::sharedSwizzler()) {
  setTitle(kTitle);
}

void KVRDebugAppInfoViewController::viewDidLoad() {
  KVRDebugTableViewController::viewDidLoad();
  stayInAppSwitch_.valueChanged = [this] { stayInAppSwitchChanged(); };
  stayInAppSwitch_.setOn(swizzler_->swizzleEnabled());
  tableView_.reloadData();
}

void KVRDebugAppInfoViewController::viewWillAppear(bool animated) {
  KVRDebugTableViewController::viewWillAppear(animated);
  // The inid may have arrived, and the switch may have been toggled on
  // another overlay, since the page was last shown.
  stayInAppSwitch_.setOn(swizzler_->swizzleEnabled());
  tableView_.reloadData();
}

void KVRDebugAppInfoViewController::stayInAppSwitchChanged() {
  swizzler_->toggleStayInApp();
  stayInAppSwitch_.setOn(swizzler_->swizzleEnabled());
}

size_t KVRDebugAppInfoViewController::numberOfRowsInSection(size_t section) const {
  return section < 2 ? 1 : 0;
}

std::optional<std::string> KVRDebugAppInfoViewController::textForRow(
    ui::IndexPath indexPath) const {
  if (indexPath.row != 0) return std::nullopt;
  if (indexPath.section == kINIDSection) return KVRDebugConfiguration::sharedInstance().inid();
  if (indexPath.section == kOptionsSection) return std::string(kStayInAppRowTitle);
  return std::nullopt;
}

ui::TableCell KVRDebugAppInfoViewController::cellForRow(ui::IndexPath indexPath) const {
  ui::TableCell cell;
  cell.text = textForRow(indexPath).value_or("");
  if (indexPath.section == kOptionsSection) {
    cell.accessorySwitch = &stayInAppSwitch_;
  }
  return cell;
}

std::optional<std::string> KVRDebugAppInfoViewController::titleForHeaderInSection(
    size_t section) const {
  if (section == kINIDSection) return std::string(kINIDSectionTitle);
  if (section == kOptionsSection) return std::string(kOptionsSectionTitle);
  return std::nullopt;
}

void KVRDebugAppInfoViewController::didSelectRow(ui::IndexPath indexPath) {
  if (indexPath.section == kOptionsSection) {
    // Only the switch moves; the swizzler follows the switch's own action.
    stayInAppSwitch_.setOn(!stayInAppSwitch_.isOn(), true);
  }
  tableView_.deselectRow(indexPath, true);
}

void KVRDebugAppInfoViewController::copyRow(ui::IndexPath indexPath) {
  ui::Pasteboard::general().setString(textForRow(indexPath).value_or(""));
}

}  // namespace korvel
