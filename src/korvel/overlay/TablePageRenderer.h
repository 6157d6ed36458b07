// Draws any table page of the overlay (a KVRDebugTableViewController): its
// toolbar, then its sections and rows as the table last loaded them.
//
// Rows show their styled text (or plain text), a detail line, indentation,
// an image and a trailing switch; a click is the table's tap, a right click
// its long press (the row's menu, "Copy"). Rows just inserted flash once.
// The page's rules (what rows there are, what a tap or a copy does) stay in
// the page: this only draws and forwards.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <vector>

#include <korvel/overlay/StyledTextLayout.h>
#include <korvel/overlay/WidgetDrawing.h>
#include <korvel/ui/TableView.h>

namespace korvel {
class KVRDebugTableViewController;
}

namespace korvel::overlay {

class KORVEL_EXPORT TablePageRenderer {
 public:
  // Draws page into the rest of the current ImGui window; the rows that
  // were on screen (at least partly), in order.
  std::vector<ui::IndexPath> draw(KVRDebugTableViewController& page, ButtonFrames& buttons);

 private:
  struct Row {
    ui::IndexPath path;
    ui::TableCell cell;
    TextLayout text;
    TextLayout detail;
    float height = 0;
  };
  struct Section {
    std::optional<std::string> header;
    std::vector<Row> rows;
  };

  void rebuild(KVRDebugTableViewController& page, float width);
  void drawRow(KVRDebugTableViewController& page, Row& row, float width, unsigned menuId);

  // Rows as last built: rebuilt when the page, its table's version or the
  // width changes, and every second (cells may change in place).
  const void* page_ = nullptr;
  uint64_t version_ = UINT64_MAX;
  float width_ = -1;
  double builtAt_ = 0;
  std::vector<Section> sections_;
  // The rows of the last insertion, flashed for a moment.
  std::vector<ui::IndexPath> inserted_;
  double insertedAt_ = -1;
  // The menu of the row right-clicked last.
  std::vector<ui::MenuAction> menu_;
};

}  // namespace korvel::overlay
