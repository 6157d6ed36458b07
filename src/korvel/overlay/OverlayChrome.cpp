#include <korvel/overlay/OverlayChrome.h>

#include <imgui.h>

#include <algorithm>

#include <korvel/debug/KVRDebugMessageCenter.h>
#include <korvel/debug/KVRDebugNavigationOptionsViewController.h>
#include <korvel/debug/KVRDebugOverlayViewController.h>
#include <korvel/debug/KVRDebugOverlayWindow.h>
#include <korvel/debug/KVRDebugTableViewController.h>
#include <korvel/overlay/Fonts.h>

namespace korvel::overlay {
namespace {

constexpr float kMargin = 16;
constexpr const char* kPanelWindow = "##korvel-overlay-panel";
constexpr const char* kPassiveWindow = "##korvel-overlay-passive";

ui::Rect rectOfCurrentWindow() {
  const ImVec2 pos = ImGui::GetWindowPos();
  const ImVec2 size = ImGui::GetWindowSize();
  return ui::Rect::make(pos.x, pos.y, size.x, size.y);
}

ImU32 packed(const ui::Color& color, double alpha) {
  return ImGui::GetColorU32(ImVec4(static_cast<float>(color.red), static_cast<float>(color.green),
                                   static_cast<float>(color.blue),
                                   static_cast<float>(color.alpha * alpha)));
}

}  // namespace

OverlayRenderer::OverlayRenderer() : presenter_(std::make_shared<ImGuiPresenter>()) {}
OverlayRenderer::~OverlayRenderer() = default;

std::shared_ptr<KVRDebugOverlayWindow> OverlayRenderer::visibleOverlayWindow() {
  auto center = KVRDebugMessageCenter::defaultCenter();
  if (!center || !center->showingDebugMenu()) return nullptr;
  auto window = center->debugWindow();
  if (!window || window->isHidden() || !window->debugOverlayViewController()) return nullptr;
  return window;
}

void OverlayRenderer::draw(KVRDebugOverlayWindow& window, ui::Size screen) {
  lastFrame_ = {};
  buttons_.clear();
  auto overlay = window.debugOverlayViewController();
  if (!overlay || !overlay->isDebugViewShown()) return;
  if (window.frame().size != screen) {
    window.setFrame(ui::Rect{{0, 0}, screen});
  }
  // Each time the menu is presented it has a new controller with default
  // frames; it is placed again then, and when the screen changes size.
  if (screen != laidOutFor_ || overlay.get() != laidOutOverlay_) {
    layOut(*overlay, screen);
    laidOutFor_ = screen;
    laidOutOverlay_ = overlay.get();
    placePanel_ = true;
  }
  drawBackground(*overlay);
  drawPanel(*overlay);
  drawPassiveButton(*overlay);
}

void OverlayRenderer::drawPopups() { presenter_->draw(buttons_); }

// The panel takes the right part of the screen, so the application stays
// visible (and usable where the overlay takes no touches) on the left; the
// passive button sits above the panel's top right corner.
void OverlayRenderer::layOut(KVRDebugOverlayViewController& overlay, ui::Size screen) {
  overlay.layoutForBounds(ui::Rect{{0, 0}, screen});
  const double buttonHeight = overlay.passiveButtonView()->frame().size.height;
  const double top = kMargin * 2 + std::max(buttonHeight, 28.0);
  const double width = std::clamp(screen.width * 0.58, std::min(560.0, screen.width - 2 * kMargin),
                                  screen.width - 2 * kMargin);
  overlay.pageView()->setFrame(ui::Rect::make(screen.width - kMargin - width, top, width,
                                                    std::max(0.0, screen.height - top - kMargin)));
}

void OverlayRenderer::drawBackground(KVRDebugOverlayViewController& overlay) {
  const auto& background = overlay.backgroundView();
  if (background->isHidden() || !background->backgroundColor()) return;
  const ui::Rect frame = background->frame();
  ImGui::GetBackgroundDrawList()->AddRectFilled(
      ImVec2(static_cast<float>(frame.minX()), static_cast<float>(frame.minY())),
      ImVec2(static_cast<float>(frame.maxX()), static_cast<float>(frame.maxY())),
      packed(*background->backgroundColor(), background->alpha()));
}

void OverlayRenderer::drawPassiveButton(KVRDebugOverlayViewController& overlay) {
  const auto& view = overlay.passiveButtonView();
  if (view->isHidden()) return;
  const auto& panel = overlay.pageView()->frame();
  ImGui::SetNextWindowPos(
      ImVec2(static_cast<float>(panel.maxX()), static_cast<float>(panel.minY()) - kMargin * 0.5f),
      ImGuiCond_Always, ImVec2(1, 1));
  ImGui::Begin(kPassiveWindow, nullptr,
               ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_AlwaysAutoResize |
                   ImGuiWindowFlags_NoSavedSettings | ImGuiWindowFlags_NoFocusOnAppearing);
  ImGui::PushFont(FontSet::current().chromeFont());
  drawButton(overlay.passiveButton(), &buttons_);
  ImGui::PopFont();
  // The view is in the overlay view's coordinates, which are the screen's.
  view->setFrame(rectOfCurrentWindow());
  ImGui::End();
}

void OverlayRenderer::drawPanel(KVRDebugOverlayViewController& overlay) {
  const auto& view = overlay.pageView();
  if (view->isHidden() || view->alpha() < ui::ViewNode::kMinimumHitTestAlpha) return;
  if (placePanel_) {
    const ui::Rect& frame = view->frame();
    ImGui::SetNextWindowPos(ImVec2(static_cast<float>(frame.minX()), static_cast<float>(frame.minY())));
    ImGui::SetNextWindowSize(
        ImVec2(static_cast<float>(frame.size.width), static_cast<float>(frame.size.height)));
    placePanel_ = false;
  }
  ImGui::PushStyleVar(ImGuiStyleVar_Alpha, static_cast<float>(view->alpha()));
  ImGui::PushStyleColor(ImGuiCol_WindowBg, IM_COL32(28, 28, 32, 255));
  ImGui::Begin(kPanelWindow, nullptr,
               ImGuiWindowFlags_NoTitleBar | ImGuiWindowFlags_NoCollapse | ImGuiWindowFlags_NoMove |
                   ImGuiWindowFlags_NoSavedSettings | ImGuiWindowFlags_NoScrollbar |
                   ImGuiWindowFlags_NoScrollWithMouse);
  view->setFrame(rectOfCurrentWindow());
  drawHeader(overlay);
  if (auto page = overlay.currentViewController()) {
    lastFrame_.page = page;
    ImGui::BeginChild("##page", ImVec2(0, 0), false);
    drawPage(*page);
    ImGui::EndChild();
  }
  ImGui::End();
  ImGui::PopStyleColor();
  ImGui::PopStyleVar();
}

void OverlayRenderer::drawHeader(KVRDebugOverlayViewController& overlay) {
  const auto page = overlay.currentViewController();
  ImGui::PushFont(FontSet::current().chromeFont());
  ImGui::BeginDisabled(!page || !overlay.viewControllerBefore(*page));
  if (ImGui::ArrowButton("##before", ImGuiDir_Left)) overlay.showPreviousPage();
  ImGui::EndDisabled();
  ImGui::SameLine();
  ImGui::BeginDisabled(!page || !overlay.viewControllerAfter(*page));
  if (ImGui::ArrowButton("##after", ImGuiDir_Right)) overlay.showNextPage();
  ImGui::EndDisabled();
  ImGui::SameLine();
  ImGui::AlignTextToFramePadding();
  ImGui::TextUnformatted(overlay.titleLabel().text().c_str());

  // The close button at the right edge.
  const std::string close = buttonLabel(overlay.closeButton());
  const float closeWidth = ImGui::CalcTextSize(close.c_str()).x + ImGui::GetStyle().FramePadding.x * 2;
  ImGui::SameLine(std::max(ImGui::GetCursorPosX(),
                           ImGui::GetWindowContentRegionMax().x - closeWidth));
  drawButton(overlay.closeButton(), &buttons_);
  ImGui::PopFont();

  // The page indicator: one dot per page, the current one filled.
  const size_t count = overlay.presentationCount();
  const float dot = 5;
  const float step = dot * 3.2f;
  const float width = step * static_cast<float>(count);
  const ImVec2 at = ImGui::GetCursorScreenPos();
  const float left = at.x + (ImGui::GetContentRegionAvail().x - width) * 0.5f;
  ImDrawList* drawList = ImGui::GetWindowDrawList();
  for (size_t i = 0; i < count; ++i) {
    const ImVec2 centre(left + step * (static_cast<float>(i) + 0.5f), at.y + dot * 2);
    ImGui::SetCursorScreenPos(ImVec2(centre.x - step * 0.5f, at.y));
    ImGui::PushID(static_cast<int>(i));
    if (ImGui::InvisibleButton("##dot", ImVec2(step, dot * 4))) overlay.setCurrentPage(i, true);
    ImGui::PopID();
    const bool current = i == overlay.presentationIndex();
    drawList->AddCircleFilled(centre, dot,
                              ImGui::GetColorU32(current ? IM_COL32(235, 235, 245, 255)
                                                         : IM_COL32(110, 110, 118, 255)));
  }
  ImGui::SetCursorScreenPos(ImVec2(at.x, at.y + dot * 4 + 2));
  ImGui::Separator();
}

void OverlayRenderer::drawPage(ui::ViewController& page) {
  if (auto* table = dynamic_cast<KVRDebugTableViewController*>(&page)) {
    lastFrame_.rows = tables_.draw(*table, buttons_);
  } else if (auto* config = dynamic_cast<KVRDebugNavigationOptionsViewController*>(&page)) {
    config_.draw(*config, buttons_);
  } else {
    ImGui::TextDisabled("%s", page.title().c_str());
  }
}

}  // namespace korvel::overlay
