#include <korvel/debug/KVRUserDefaultsDebugViewController.h>

#include <korvel/platform/KVNUserDefaults.h>
#include <korvel/debug/Locale.h>
#include <korvel/ui/Pasteboard.h>

namespace korvel {

KVRUserDefaultsDebugViewController::KVRUserDefaultsDebugViewController(
    std::shared_ptr<KVNUserDefaults> defaults)
    : KVRDebugTableViewController(ui::TableViewStyle::Plain), defaults_(std::move(defaults)) {
  setTitle(kTitle);
}

void KVRUserDefaultsDebugViewController::viewDidLoad() {
  KVRDebugTableViewController::viewDidLoad();
  reloadDefaults();
}

void KVRUserDefaultsDebugViewController::viewWillAppear(bool animated) {
  const bool firstLoad = !isViewLoaded();
  KVRDebugTableViewController::viewWillAppear(animated);
  if (!firstLoad) reloadDefaults();
}

void KVRUserDefaultsDebugViewController::reloadDefaults() {
  auto defaults = defaults_ ? defaults_ : KVNUserDefaults::sharedUserDefaults();
  entries_ = defaults ? defaults->dictionaryRepresentation() : KVRParameters();
  keys_ = sortedLocalizedCaseInsensitive(entries_.keys());
  tableView_.reloadData();
}

ui::StyledText KVRUserDefaultsDebugViewController::rowText(const std::string& key,
                                                                 const KVRValue& value) {
  ui::StyledText text(key, ui::FontWeight::Bold, kFontSize,
                            ui::TextColor::SystemBlue);
  text.append(" = " + describe(value), ui::FontWeight::Regular, kFontSize);
  return text;
}

size_t KVRUserDefaultsDebugViewController::numberOfRowsInSection(size_t section) const {
  return section == 0 ? keys_.size() : 0;
}

ui::TableCell KVRUserDefaultsDebugViewController::cellForRow(
    ui::IndexPath indexPath) const {
  ui::TableCell cell;
  cell.numberOfLines = 0;
  if (indexPath.section != 0 || indexPath.row >= keys_.size()) return cell;
  const std::string& key = keys_[indexPath.row];
  if (const KVRValue* value = entries_.find(key)) {
    cell.attributedText = rowText(key, *value);
    cell.text = cell.attributedText->plainText();
  }
  return cell;
}

void KVRUserDefaultsDebugViewController::copyRow(ui::IndexPath indexPath) {
  if (indexPath.section != 0 || indexPath.row >= keys_.size()) return;
  ui::Pasteboard::general().setString(cellForRow(indexPath).text);
}

}  // namespace korvel
