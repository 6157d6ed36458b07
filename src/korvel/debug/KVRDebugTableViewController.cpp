#include <korvel/debug/KVRDebugTableViewController.h>

#include <string>

#include <korvel/beacon/KVRLogging.h>
#include <korvel/platform/Logging.h>

namespace korvel {

KVRDebugTableViewController::KVRDebugTableViewController(ui::TableViewStyle style)
    : TableViewController(style) {}

KVRDebugTableViewController::~KVRDebugTableViewController() {
  tableView_.setDataSource(nullptr);
  tableView_.setDelegate(nullptr);
}

void KVRDebugTableViewController::loadView() {
  tableView_.setDataSource(this);
  tableView_.setDelegate(this);
}

std::vector<ui::MenuAction> KVRDebugTableViewController::contextMenuActionsForRow(
    ui::IndexPath indexPath) {
  // The menu can outlive a reload; copyRow() checks the row again.
  return {ui::MenuAction{kCopyActionTitle, kCopyActionImage,
                               [this, indexPath] { copyRow(indexPath); }}};
}

std::shared_ptr<ui::Presenter> KVRDebugTableViewController::presenterFor(
    const char* what) const {
  auto presenter = presenter_.lock();
  if (!presenter) {
    platform::Logger(KVRLogging::subsystem(), "Debug")
        .log(platform::LogLevel::Error,
             std::string("No presenter for the ") + what + " of \"" + title() + "\"");
  }
  return presenter;
}

}  // namespace korvel
