#include <korvel/overlay/TablePageRenderer.h>

#include <imgui.h>

#include <algorithm>
#include <cctype>
#include <cmath>

#include <korvel/debug/KVRDebugTableViewController.h>
#include <korvel/overlay/Fonts.h>

namespace korvel::overlay {
namespace {

constexpr float kPadding = 8;
constexpr float kIndentStep = 18;
constexpr float kIconWidth = 20;
constexpr double kRebuildSeconds = 1.0;
constexpr double kFlashSeconds = 0.8;
constexpr uint32_t kSecondaryColor = packColor(152, 152, 160);

std::string uppercased(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

void TablePageRenderer::rebuild(KVRDebugTableViewController& page, float width) {
  const ui::TableView& table = page.tableView();
  const TextMetrics metrics = FontSet::current().metrics();
  const float switchSpace = switchWidth() + kPadding;
  sections_.clear();
  for (size_t s = 0; s < table.numberOfSections(); ++s) {
    Section section;
    section.header = table.titleForHeaderInSection(s);
    for (size_t r = 0; r < table.numberOfRowsInSection(s); ++r) {
      Row row;
      row.path = {s, r};
      row.cell = table.cellForRow(row.path);
      const auto& cell = row.cell;
      float textWidth = width - 2 * kPadding - kIndentStep * static_cast<float>(cell.indentationLevel);
      if (cell.imageSystemName) textWidth -= kIconWidth;
      if (cell.accessorySwitch != nullptr) textWidth -= switchSpace;
      const float wrap = cell.numberOfLines == 1 ? 0 : std::max(textWidth, 40.0f);
      const ui::StyledText text =
          cell.attributedText ? *cell.attributedText
                              : ui::StyledText(cell.text, ui::FontWeight::Regular, 13);
      row.text = layoutStyledText(text, wrap, metrics);
      if (cell.detailText) {
        row.detail = layoutStyledText(
            ui::StyledText(*cell.detailText, ui::FontWeight::Regular, 12),
            std::max(textWidth, 40.0f), metrics);
        for (auto& line : row.detail.lines) {
          for (auto& fragment : line.fragments) fragment.style.color = kSecondaryColor;
        }
      }
      row.height = 2 * kPadding + row.text.height + (cell.detailText ? 2 + row.detail.height : 0);
      row.height = std::max(row.height, ImGui::GetFrameHeight() + 2 * kPadding);
      section.rows.push_back(std::move(row));
    }
    sections_.push_back(std::move(section));
  }
}

std::vector<ui::IndexPath> TablePageRenderer::draw(KVRDebugTableViewController& page,
                                                         ButtonFrames& buttons) {
  ui::TableView& table = page.tableView();

  // Toolbar: the page's buttons, and a reload where the table can be pulled.
  for (ui::Button* button : page.toolbarButtons()) {
    if (button == nullptr || button->isHidden()) continue;
    drawButton(*button, &buttons);
    ImGui::SameLine();
  }
  if (table.refreshControl().valueChanged) {
    if (ImGui::Button("\u21BB Reload")) table.refreshControl().userPull();
    ImGui::SameLine();
    if (table.refreshControl().isRefreshing()) drawSpinner();
  }
  ImGui::NewLine();

  std::vector<ui::IndexPath> drawn;
  ImGui::BeginChild("##table", ImVec2(0, 0), false);
  const float width = ImGui::GetContentRegionAvail().x;
  const double now = ImGui::GetTime();
  if (&page != page_ || table.version() != version_ || std::abs(width - width_) > 0.5f ||
      now - builtAt_ > kRebuildSeconds) {
    if (&page == page_ && table.version() != version_ &&
        table.lastUpdate().kind == ui::TableView::Update::Kind::Insert) {
      inserted_ = table.lastUpdate().indexPaths;
      insertedAt_ = now;
    }
    page_ = &page;
    version_ = table.version();
    width_ = width;
    builtAt_ = now;
    rebuild(page, width);
  }

  const ImGuiID menuId = ImGui::GetID("##row-menu");
  for (size_t s = 0; s < sections_.size(); ++s) {
    auto& section = sections_[s];
    if (section.header) {
      ImGui::Spacing();
      ImGui::TextDisabled("%s", uppercased(*section.header).c_str());
    }
    for (auto& row : section.rows) {
      const ImVec2 size(width, row.height);
      if (!ImGui::IsRectVisible(size)) {
        ImGui::Dummy(size);
        continue;
      }
      drawn.push_back(row.path);
      drawRow(page, row, width, menuId);
    }
  }
  const bool empty = std::all_of(sections_.begin(), sections_.end(),
                                 [](const Section& section) { return section.rows.empty(); });
  if (empty) {
    ImGui::Spacing();
    ImGui::TextDisabled("Nothing to show");
  }

  if (ImGui::BeginPopup("##row-menu")) {
    for (const auto& action : menu_) {
      std::string label(glyphForSymbol(action.systemImageName));
      if (!label.empty()) label += "  ";
      label += action.title;
      if (ImGui::MenuItem(label.c_str()) && action.handler) action.handler();
    }
    ImGui::EndPopup();
  }
  ImGui::EndChild();
  return drawn;
}

void TablePageRenderer::drawRow(KVRDebugTableViewController& page, Row& row, float width,
                                unsigned menuId) {
  ui::TableView& table = page.tableView();
  const ui::TableCell& cell = row.cell;
  const ImVec2 at = ImGui::GetCursorScreenPos();
  const ImVec2 size(width, row.height);

  ImGui::PushID(static_cast<int>(row.path.section));
  ImGui::PushID(static_cast<int>(row.path.row));
  bool clicked;
  if (page.shouldHighlightRow(row.path)) {
    clicked = ImGui::Selectable("##row", table.isRowSelected(row.path),
                                ImGuiSelectableFlags_AllowItemOverlap, size);
  } else {
    clicked = ImGui::InvisibleButton("##row", size);
    ImGui::SetItemAllowOverlap();
  }
  // A right click is the desktop's long press.
  const bool menuRequested = ImGui::IsItemClicked(ImGuiMouseButton_Right);

  ImDrawList* drawList = ImGui::GetWindowDrawList();
  if (insertedAt_ >= 0 && ImGui::GetTime() - insertedAt_ < kFlashSeconds &&
      std::find(inserted_.begin(), inserted_.end(), row.path) != inserted_.end()) {
    const float fade = 1.0f - static_cast<float>((ImGui::GetTime() - insertedAt_) / kFlashSeconds);
    drawList->AddRectFilled(at, ImVec2(at.x + width, at.y + row.height),
                            ImGui::GetColorU32(ImVec4(0.04f, 0.52f, 1.0f, 0.35f * fade)));
  }

  float x = at.x + kPadding + kIndentStep * static_cast<float>(cell.indentationLevel);
  if (cell.imageSystemName) {
    const auto glyph = glyphForSymbol(*cell.imageSystemName);
    drawList->AddText(ImVec2(x, at.y + kPadding), ImGui::GetColorU32(kSecondaryColor),
                      glyph.data(), glyph.data() + glyph.size());
    x += kIconWidth;
  }
  ImGui::SetCursorScreenPos(ImVec2(x, at.y + kPadding));
  drawTextLayout(row.text);
  if (cell.detailText) {
    ImGui::SetCursorScreenPos(ImVec2(x, at.y + kPadding + row.text.height + 2));
    drawTextLayout(row.detail);
  }
  if (cell.accessorySwitch != nullptr) {
    ImGui::SetCursorScreenPos(ImVec2(at.x + width - kPadding - switchWidth(),
                                     at.y + (row.height - ImGui::GetFrameHeight()) * 0.5f));
    drawSwitch("##switch", *cell.accessorySwitch);
  }
  drawList->AddLine(ImVec2(at.x + kPadding, at.y + row.height - 0.5f),
                    ImVec2(at.x + width, at.y + row.height - 0.5f),
                    ImGui::GetColorU32(ImGuiCol_Separator, 0.5f));
  ImGui::SetCursorScreenPos(ImVec2(at.x, at.y + row.height));
  ImGui::PopID();
  ImGui::PopID();

  // After drawing: a tap may reload the table under us.
  if (clicked) table.userTapRow(row.path);
  if (menuRequested) {
    menu_ = table.userLongPressRow(row.path);
    if (!menu_.empty()) ImGui::OpenPopup(menuId);
  }
}

}  // namespace korvel::overlay
