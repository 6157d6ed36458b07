// A toolkit-neutral table: sections of rows that a data source describes, a
// selection, row updates, a pull-to-refresh control and long-press menus.
//
// Like a toolkit's table view, TableView keeps the row counts it last
// loaded: a renderer draws numberOfSections() / numberOfRowsInSection() rows
// and asks cellForRow() for each, so rows appear when the owner reloads or
// inserts them, not merely when its data changes. Every change bumps
// version() and is described by lastUpdate(), so a renderer can animate an
// insertion and tests can tell an insertion from a reload.
//
// The user's actions come in through the user...() calls, which a renderer
// forwards and tests make directly. Main thread only.
#pragma once

#include <korvel/export.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <korvel/ui/StyledText.h>
#include <korvel/ui/Widgets.h>

namespace korvel::ui {

struct KORVEL_EXPORT IndexPath {
  size_t section = 0;
  size_t row = 0;
  friend auto operator<=>(const IndexPath&, const IndexPath&) = default;
};

// What one row shows.
struct KORVEL_EXPORT TableCell {
  // The row's text; styled rows also give attributedText, whose plain text
  // equals text.
  std::string text;
  std::optional<StyledText> attributedText;
  // A secondary text (a value beside or below the text); nothing for none.
  std::optional<std::string> detailText;
  // Lines the text may take; 0 for as many as it needs.
  int numberOfLines = 1;
  // Steps of indentation (nesting depth).
  int indentationLevel = 0;
  // A symbol name for an image before the text ("folder", "doc"), if any.
  std::optional<std::string> imageSystemName;
  // A switch shown at the trailing edge; owned by the screen.
  Switch* accessorySwitch = nullptr;
};

enum class TableRowAnimation { None, Automatic, Fade, Top };

// One entry of a row's long-press menu.
struct KORVEL_EXPORT MenuAction {
  std::string title;
  std::string systemImageName;
  std::function<void()> handler;
};

class KORVEL_EXPORT TableViewDataSource {
 public:
  virtual ~TableViewDataSource() = default;
  virtual size_t numberOfSections() const { return 1; }
  virtual size_t numberOfRowsInSection(size_t section) const = 0;
  virtual TableCell cellForRow(IndexPath indexPath) const = 0;
  virtual std::optional<std::string> titleForHeaderInSection(size_t) const { return std::nullopt; }
};

class KORVEL_EXPORT TableViewDelegate {
 public:
  virtual ~TableViewDelegate() = default;
  // False keeps the row from being highlighted and selected by the user.
  virtual bool shouldHighlightRow(IndexPath) const { return true; }
  virtual void didSelectRow(IndexPath) {}
  virtual void didDeselectRow(IndexPath) {}
  // The long-press menu of a row; empty for none.
  virtual std::vector<MenuAction> contextMenuActionsForRow(IndexPath) { return {}; }
};

// The pull-to-refresh spinner at the top of a table.
class KORVEL_EXPORT RefreshControl {
 public:
  bool isRefreshing() const { return refreshing_; }
  void beginRefreshing() { refreshing_ = true; }
  void endRefreshing() { refreshing_ = false; }
  // The user pulls the table down: the spinner starts and the action runs.
  void userPull() {
    refreshing_ = true;
    if (valueChanged) valueChanged();
  }
  std::function<void()> valueChanged;

 private:
  bool refreshing_ = false;
};

class KORVEL_EXPORT TableView {
 public:
  // What the last change to the table was.
  struct Update {
    enum class Kind { None, Reload, Insert, Delete };
    Kind kind = Kind::None;
    std::vector<IndexPath> indexPaths;  // inserted or deleted rows
    TableRowAnimation animation = TableRowAnimation::None;
  };

  TableView() = default;
  TableView(const TableView&) = delete;
  TableView& operator=(const TableView&) = delete;

  // Not owned; the screen that owns the table sets both to itself.
  void setDataSource(const TableViewDataSource* dataSource) { dataSource_ = dataSource; }
  void setDelegate(TableViewDelegate* delegate) { delegate_ = delegate; }

  // Reads the row counts from the data source again and clears the
  // selection.
  void reloadData();
  // Rows the data source has gained at these positions. When the counts do
  // not add up (the data changed in other ways too) the table reloads
  // instead, so it never shows rows that are not there.
  void insertRows(std::vector<IndexPath> indexPaths, TableRowAnimation animation);
  void deleteRows(std::vector<IndexPath> indexPaths, TableRowAnimation animation);

  // As loaded (see above); 0 before the first reload.
  size_t numberOfSections() const { return rowCounts_.size(); }
  size_t numberOfRowsInSection(size_t section) const {
    return section < rowCounts_.size() ? rowCounts_[section] : 0;
  }
  bool isValid(IndexPath indexPath) const {
    return indexPath.row < numberOfRowsInSection(indexPath.section);
  }
  // The row's cell from the data source; an empty cell for a row that is
  // not in the table.
  TableCell cellForRow(IndexPath indexPath) const;
  std::optional<std::string> titleForHeaderInSection(size_t section) const;

  // Several rows may be selected at once when this is on.
  bool allowsMultipleSelection() const { return allowsMultipleSelection_; }
  void setAllowsMultipleSelection(bool allows) { allowsMultipleSelection_ = allows; }

  // Programmatic selection: the delegate is not told.
  void selectRow(IndexPath indexPath, bool animated);
  void deselectRow(IndexPath indexPath, bool animated);
  bool isRowSelected(IndexPath indexPath) const;
  // Ascending.
  std::vector<IndexPath> indexPathsForSelectedRows() const { return selected_; }
  // Whether the last deselection was asked to animate.
  bool lastDeselectionAnimated() const { return lastDeselectionAnimated_; }

  // The user taps a row: unless the delegate refuses to highlight it, the
  // row becomes selected (with multiple selection, a selected row is
  // deselected instead) and the delegate is told.
  void userTapRow(IndexPath indexPath);
  // The user long-presses a row: its menu (empty for a row not in the table).
  std::vector<MenuAction> userLongPressRow(IndexPath indexPath);

  RefreshControl& refreshControl() { return refreshControl_; }

  // Bumped by every reload, insertion and deletion.
  uint64_t version() const { return version_; }
  size_t reloadCount() const { return reloadCount_; }
  const Update& lastUpdate() const { return lastUpdate_; }

 private:
  // Whether the data source now answers exactly these row counts.
  bool dataSourceHasCounts(const std::vector<size_t>& counts) const;
  void loadCounts();

  const TableViewDataSource* dataSource_ = nullptr;
  TableViewDelegate* delegate_ = nullptr;
  std::vector<size_t> rowCounts_;
  std::vector<IndexPath> selected_;
  bool allowsMultipleSelection_ = false;
  bool lastDeselectionAnimated_ = false;
  RefreshControl refreshControl_;
  uint64_t version_ = 0;
  size_t reloadCount_ = 0;
  Update lastUpdate_;
};

}  // namespace korvel::ui
