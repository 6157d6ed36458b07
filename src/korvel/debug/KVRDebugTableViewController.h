// What the overlay's table pages share: a table they are the data source
// and delegate of, a toolbar of buttons, a long-press "Copy" on every row,
// and the Presenter they show alerts, share sheets and mail through.
//
// A renderer draws any page that is a KVRDebugTableViewController the same
// way: title(), toolbarButtons(), then tableView() (sections, header
// titles, cells, selection, refresh control), forwarding the user's taps,
// long presses and pulls to the table and buttons.
//
// Main thread only.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <vector>

#include <korvel/ui/TableView.h>
#include <korvel/ui/UI.h>
#include <korvel/ui/Widgets.h>

namespace korvel {

// Pages that care whether the overlay is on screen (rather than merely
// being the current page) implement this; the overlay tells every page that
// does when it shows and hides.
class KORVEL_EXPORT KVRDebugOverlayVisibilityObserver {
 public:
  virtual ~KVRDebugOverlayVisibilityObserver() = default;
  virtual void setOverlayIsVisible(bool visible) = 0;
};

class KORVEL_EXPORT KVRDebugTableViewController : public ui::TableViewController,
                                    public ui::TableViewDataSource,
                                    public ui::TableViewDelegate {
 public:
  static constexpr const char* kCopyActionTitle = "Copy";
  static constexpr const char* kCopyActionImage = "doc.on.doc";

  explicit KVRDebugTableViewController(ui::TableViewStyle style);
  ~KVRDebugTableViewController() override;

  ui::TableView& tableView() { return tableView_; }
  const ui::TableView& tableView() const { return tableView_; }

  // The screen's buttons, in the order a toolbar shows them; they live as
  // long as the screen.
  virtual std::vector<ui::Button*> toolbarButtons() { return {}; }

  // Where alerts, share sheets and mail go; held weakly. Without one they
  // are dropped (and logged).
  std::shared_ptr<ui::Presenter> presenter() const { return presenter_.lock(); }
  void setPresenter(std::weak_ptr<ui::Presenter> presenter) {
    presenter_ = std::move(presenter);
  }

  // Every row offers "Copy" (image "doc.on.doc"), which runs copyRow().
  std::vector<ui::MenuAction> contextMenuActionsForRow(ui::IndexPath indexPath) override;
  // Puts the row's content on the general pasteboard.
  virtual void copyRow(ui::IndexPath indexPath) = 0;

 protected:
  // Makes this screen the table's data source and delegate.
  void loadView() override;

  // The presenter, or null after logging that what was to be shown (what)
  // had nowhere to go.
  std::shared_ptr<ui::Presenter> presenterFor(const char* what) const;

  ui::TableView tableView_;

 private:
  std::weak_ptr<ui::Presenter> presenter_;
};

}  // namespace korvel
