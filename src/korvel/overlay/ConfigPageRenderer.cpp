#include <korvel/overlay/ConfigPageRenderer.h>

#include <imgui.h>
#include <imgui_internal.h>  // ClearActiveID: a field that gave up the keyboard stops editing
#include <imgui_stdlib.h>

#include <korvel/debug/KVRDebugNavigationOptionsViewController.h>

namespace korvel::overlay {
void ConfigPageRenderer::draw(KVRDebugNavigationOptionsViewController& page,
                              ButtonFrames& buttons) {
  page.loadViewIfNeeded();
  ImGui::Spacing();

  ImGui::AlignTextToFramePadding();
  ImGui::TextUnformatted("Beta configuration");
  ImGui::SameLine(220);
  drawSwitch("##beta", page.betaSwitch());

  auto& field = page.bucketsTextField();
  if (!editing_) buckets_ = field.text();
  ImGui::AlignTextToFramePadding();
  ImGui::TextUnformatted("Buckets");
  ImGui::SameLine(220);
  ImGui::SetNextItemWidth(ImGui::GetContentRegionAvail().x);
  const bool returned = ImGui::InputTextWithHint("##buckets", "bucket,bucket", &buckets_,
                                                  ImGuiInputTextFlags_EnterReturnsTrue);
  if (ImGui::IsItemActivated()) field.becomeFirstResponder();
  editing_ = ImGui::IsItemActive();
  if (editing_ || returned) field.setText(buckets_);
  if (returned) field.userPressedReturn();
  if (ImGui::IsItemDeactivated() && !returned) field.resignFirstResponder();
  if (editing_ && !field.isFirstResponder()) {
    ImGui::ClearActiveID();
    editing_ = false;
  }

  ImGui::Spacing();
  drawButton(page.refreshButton(), &buttons);
  if (!page.activityIndicator().isHidden()) {
    if (!page.refreshButton().isHidden()) ImGui::SameLine();
    drawSpinner();
  }
  drawButton(page.clearCacheButton(), &buttons);

  // A click on the page's empty space (the keyboard goes away).
  if (ImGui::IsWindowHovered() && ImGui::IsMouseClicked(ImGuiMouseButton_Left) &&
      !ImGui::IsAnyItemHovered()) {
    page.view().userTap();
  }
}

}  // namespace korvel::overlay
