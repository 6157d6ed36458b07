#include <korvel/ui/TableView.h>

#include <algorithm>

namespace korvel::ui {

bool TableView::dataSourceHasCounts(const std::vector<size_t>& counts) const {
  if (!dataSource_ || dataSource_->numberOfSections() != counts.size()) return false;
  for (size_t s = 0; s < counts.size(); ++s) {
    if (counts[s] != dataSource_->numberOfRowsInSection(s)) return false;
  }
  return true;
}

void TableView::loadCounts() {
  rowCounts_.clear();
  if (!dataSource_) return;
  const size_t sections = dataSource_->numberOfSections();
  for (size_t s = 0; s < sections; ++s) rowCounts_.push_back(dataSource_->numberOfRowsInSection(s));
}

void TableView::reloadData() {
  loadCounts();
  selected_.clear();
  ++version_;
  ++reloadCount_;
  lastUpdate_ = Update{Update::Kind::Reload, {}, TableRowAnimation::None};
}

void TableView::insertRows(std::vector<IndexPath> indexPaths, TableRowAnimation animation) {
  std::vector<size_t> expected = rowCounts_;
  bool consistent = true;
  for (const auto& path : indexPaths) {
    if (!consistent || path.section >= expected.size()) {
      consistent = false;
      break;
    }
    ++expected[path.section];
    if (path.row >= expected[path.section]) consistent = false;
  }
  if (!consistent || !dataSourceHasCounts(expected)) {
    reloadData();
    return;
  }
  // Selected rows at or after an inserted row move down with their content.
  std::sort(indexPaths.begin(), indexPaths.end());
  for (const auto& path : indexPaths) {
    for (auto& selected : selected_) {
      if (selected.section == path.section && selected.row >= path.row) ++selected.row;
    }
  }
  rowCounts_ = std::move(expected);
  ++version_;
  lastUpdate_ = Update{Update::Kind::Insert, std::move(indexPaths), animation};
}

void TableView::deleteRows(std::vector<IndexPath> indexPaths, TableRowAnimation animation) {
  std::vector<size_t> expected = rowCounts_;
  bool consistent = true;
  for (const auto& path : indexPaths) {
    if (!consistent || !isValid(path) || expected[path.section] == 0) {
      consistent = false;
      break;
    }
    --expected[path.section];
  }
  if (!consistent || !dataSourceHasCounts(expected)) {
    reloadData();
    return;
  }
  // From the bottom up, so earlier removals do not shift later ones.
  std::sort(indexPaths.begin(), indexPaths.end());
  for (auto it = indexPaths.rbegin(); it != indexPaths.rend(); ++it) {
    std::erase(selected_, *it);
    for (auto& selected : selected_) {
      if (selected.section == it->section && selected.row > it->row) --selected.row;
    }
  }
  rowCounts_ = std::move(expected);
  ++version_;
  lastUpdate_ = Update{Update::Kind::Delete, std::move(indexPaths), animation};
}

TableCell TableView::cellForRow(IndexPath indexPath) const {
  if (!dataSource_ || !isValid(indexPath)) return {};
  return dataSource_->cellForRow(indexPath);
}

std::optional<std::string> TableView::titleForHeaderInSection(size_t section) const {
  if (!dataSource_ || section >= rowCounts_.size()) return std::nullopt;
  return dataSource_->titleForHeaderInSection(section);
}

void TableView::selectRow(IndexPath indexPath, bool) {
  if (!isValid(indexPath) || isRowSelected(indexPath)) return;
  if (!allowsMultipleSelection_) selected_.clear();
  selected_.insert(std::upper_bound(selected_.begin(), selected_.end(), indexPath), indexPath);
}

void TableView::deselectRow(IndexPath indexPath, bool animated) {
  std::erase(selected_, indexPath);
  lastDeselectionAnimated_ = animated;
}

bool TableView::isRowSelected(IndexPath indexPath) const {
  return std::binary_search(selected_.begin(), selected_.end(), indexPath);
}

void TableView::userTapRow(IndexPath indexPath) {
  if (!isValid(indexPath)) return;
  if (delegate_ && !delegate_->shouldHighlightRow(indexPath)) return;
  if (allowsMultipleSelection_ && isRowSelected(indexPath)) {
    deselectRow(indexPath, true);
    if (delegate_) delegate_->didDeselectRow(indexPath);
    return;
  }
  // Without multiple selection the former row goes quietly, as in toolkits.
  selectRow(indexPath, true);
  if (delegate_) delegate_->didSelectRow(indexPath);
}

std::vector<MenuAction> TableView::userLongPressRow(IndexPath indexPath) {
  if (!delegate_ || !isValid(indexPath)) return {};
  return delegate_->contextMenuActionsForRow(indexPath);
}

}  // namespace korvel::ui
