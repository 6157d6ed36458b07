#include <korvel/overlay/WidgetDrawing.h>

#include <imgui.h>

#include <cmath>
#include <utility>

namespace korvel::overlay {

std::string_view glyphForSymbol(std::string_view systemName) {
  static constexpr std::pair<std::string_view, std::string_view> kGlyphs[] = {
      {"play.fill", "\u25B6"}, {"stop.fill", "\u25A0"}, {"envelope", "\u2709"},
      {"xmark", "\u2715"},     {"doc.on.doc", "\u2750"}, {"folder", "\u25B8"},
      {"doc", "\u2022"},       {"trash", "\u2716"},      {"square.and.arrow.up", "\u21EA"},
  };
  for (const auto& [name, glyph] : kGlyphs) {
    if (name == systemName) return glyph;
  }
  return {};
}

std::string buttonLabel(const ui::Button& button) {
  std::string label(glyphForSymbol(button.imageSystemName()));
  if (!label.empty()) label += ' ';
  label += button.title();
  return label;
}

void drawButton(ui::Button& button, ButtonFrames* frames) {
  if (button.isHidden()) return;
  const std::string label = buttonLabel(button);
  ImGui::PushID(&button);
  ImGui::BeginDisabled(!button.isEnabled());
  const bool clicked = ImGui::Button(label.c_str());
  ImGui::EndDisabled();
  ImGui::PopID();
  if (frames != nullptr) {
    const ImVec2 min = ImGui::GetItemRectMin();
    const ImVec2 size = ImGui::GetItemRectSize();
    (*frames)[&button] = ui::Rect::make(min.x, min.y, size.x, size.y);
  }
  if (clicked) button.userTap();
}

float switchWidth() { return ImGui::GetFrameHeight() * 1.8f; }

void drawSwitch(const char* id, ui::Switch& sw) {
  const float height = ImGui::GetFrameHeight();
  const float width = switchWidth();
  const ImVec2 at = ImGui::GetCursorScreenPos();
  ImGui::BeginDisabled(!sw.isEnabled());
  if (ImGui::InvisibleButton(id, ImVec2(width, height))) sw.userToggle();
  ImGui::EndDisabled();
  const bool on = sw.isOn();
  ImDrawList* drawList = ImGui::GetWindowDrawList();
  const ImU32 track = ImGui::GetColorU32(on ? IM_COL32(52, 199, 89, 255)
                                            : ImGui::IsItemHovered() ? IM_COL32(110, 110, 118, 255)
                                                                     : IM_COL32(84, 84, 90, 255));
  drawList->AddRectFilled(at, ImVec2(at.x + width, at.y + height), track, height * 0.5f);
  const float radius = height * 0.5f - 2;
  const float knobX = on ? at.x + width - radius - 2 : at.x + radius + 2;
  drawList->AddCircleFilled(ImVec2(knobX, at.y + height * 0.5f), radius,
                            ImGui::GetColorU32(IM_COL32(255, 255, 255, 255)));
}

void drawSpinner() {
  const float size = ImGui::GetTextLineHeight();
  const ImVec2 at = ImGui::GetCursorScreenPos();
  const ImVec2 centre(at.x + size * 0.5f, at.y + size * 0.5f);
  const float start = static_cast<float>(ImGui::GetTime()) * 6.0f;
  ImDrawList* drawList = ImGui::GetWindowDrawList();
  drawList->PathArcTo(centre, size * 0.4f, start, start + 4.5f, 24);
  drawList->PathStroke(ImGui::GetColorU32(ImGuiCol_Text), 0, 2.0f);
  ImGui::Dummy(ImVec2(size, size));
}

}  // namespace korvel::overlay
