#include <korvel/overlay/ImGuiPresenter.h>

#include <imgui.h>

#include <algorithm>
#include <string>
#include <utility>

#include <korvel/ui/ActivityViewController.h>
#include <korvel/platform/Env.h>
#include <korvel/debug/MailComposer.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/Pasteboard.h>
#include <korvel/ui/UIEnv.h>

namespace korvel::overlay {
namespace {

void later(std::function<void()> completion) {
  if (completion) ui::uiEnv().mainQueue().async(std::move(completion));
}

ImVec2 sizeFor(ui::ModalPresentationStyle style) {
  const ImVec2 display = ImGui::GetIO().DisplaySize;
  if (style == ui::ModalPresentationStyle::FullScreen ||
      style == ui::ModalPresentationStyle::OverFullScreen) {
    return ImVec2(display.x - 40, display.y - 40);
  }
  return ImVec2(std::min(680.0f, display.x - 40), std::min(560.0f, display.y - 40));
}

bool styledButton(const ui::AlertAction& action) {
  const bool destructive = action.style == ui::AlertActionStyle::Destructive;
  if (destructive) ImGui::PushStyleColor(ImGuiCol_Button, IM_COL32(190, 45, 40, 255));
  const bool clicked = ImGui::Button(action.title.c_str(), ImVec2(120, 0));
  if (destructive) ImGui::PopStyleColor();
  return clicked;
}

}  // namespace

void ImGuiPresenter::presentViewController(std::shared_ptr<ui::ViewController> screen,
                                           ui::ModalPresentationStyle style, bool,
                                           std::function<void()> completion) {
  if (!screen) return;
  presented_.push_back(Presented{nextId_++, std::move(screen), style, std::move(completion), {}, false});
}

void ImGuiPresenter::presentAlert(ui::Alert alert, bool, std::function<void()> completion) {
  alerts_.push_back(PendingAlert{nextId_++, std::move(alert), std::move(completion)});
}

void ImGuiPresenter::dismissViewController(bool, std::function<void()> completion) {
  if (!presented_.empty()) presented_.pop_back();
  later(std::move(completion));
}

bool ImGuiPresenter::beginModal(uint64_t id, const std::string& title, unsigned flags) {
  const std::string label = title + "###korvel-modal-" + std::to_string(id);
  if (openId_ != id) {
    ImGui::OpenPopup(label.c_str());
    openId_ = id;
  }
  if (ImGui::BeginPopupModal(label.c_str(), nullptr, static_cast<ImGuiWindowFlags>(flags))) {
    return true;
  }
  openId_ = 0;  // closed behind our back: open it again next frame
  return false;
}

void ImGuiPresenter::draw(const ButtonFrames& buttons) {
  if (!alerts_.empty()) {
    drawAlert();
  } else if (!presented_.empty()) {
    drawPresented(buttons);
  }
}

void ImGuiPresenter::drawAlert() {
  PendingAlert& front = alerts_.front();
  const ImVec2 display = ImGui::GetIO().DisplaySize;
  ImGui::SetNextWindowPos(ImVec2(display.x * 0.5f, display.y * 0.5f), ImGuiCond_Appearing,
                          ImVec2(0.5f, 0.5f));
  if (!beginModal(front.id, front.alert.title,
                  ImGuiWindowFlags_AlwaysAutoResize | ImGuiWindowFlags_NoSavedSettings)) {
    return;
  }
  if (front.completion) later(std::exchange(front.completion, nullptr));
  ImGui::PushTextWrapPos(ImGui::GetCursorPosX() + 420);
  ImGui::TextUnformatted(front.alert.message.c_str());
  ImGui::PopTextWrapPos();
  ImGui::Spacing();
  std::function<void()> chosen;
  bool closed = false;
  for (size_t i = 0; i < front.alert.actions.size(); ++i) {
    if (i > 0) ImGui::SameLine();
    if (styledButton(front.alert.actions[i])) {
      chosen = front.alert.actions[i].handler;
      closed = true;
    }
  }
  if (front.alert.actions.empty() && ImGui::Button("OK", ImVec2(120, 0))) closed = true;
  if (closed) {
    ImGui::CloseCurrentPopup();
    alerts_.pop_front();
    openId_ = 0;
  }
  ImGui::EndPopup();
  // After the alert is gone: the handler may present the next one.
  if (chosen) chosen();
}

std::vector<std::string> splitRecipients(std::string_view text) {
  std::vector<std::string> recipients;
  std::string current;
  for (const char c : text) {
    if (c == ',' || c == ';' || c == ' ' || c == '\t') {
      if (!current.empty()) recipients.push_back(std::exchange(current, {}));
    } else {
      current += c;
    }
  }
  if (!current.empty()) recipients.push_back(current);
  return recipients;
}

void ImGuiPresenter::drawPresented(const ButtonFrames& buttons) {
  Presented& top = presented_.back();
  const auto screen = top.screen;  // kept while drawing: a dismissal pops the stack
  const uint64_t id = top.id;

  auto* sheet = dynamic_cast<ui::ActivityViewController*>(screen.get());
  const ImVec2 display = ImGui::GetIO().DisplaySize;
  if (sheet != nullptr && sheet->sourceButton() != nullptr &&
      buttons.count(sheet->sourceButton()) != 0) {
    const ui::Rect& anchor = buttons.at(sheet->sourceButton());
    ImGui::SetNextWindowPos(
        ImVec2(static_cast<float>(anchor.minX()), static_cast<float>(anchor.maxY()) + 4),
        ImGuiCond_Appearing);
  } else {
    ImGui::SetNextWindowPos(ImVec2(display.x * 0.5f, display.y * 0.5f), ImGuiCond_Appearing,
                            ImVec2(0.5f, 0.5f));
  }
  ImGui::SetNextWindowSize(sheet != nullptr ? ImVec2(520, 0) : sizeFor(top.style),
                           ImGuiCond_Appearing);

  auto* mail = dynamic_cast<MailComposer*>(screen.get());
  const std::string title = mail != nullptr    ? "New Message"
                            : sheet != nullptr ? "Share"
                                               : (screen->title().empty() ? "Screen" : screen->title());
  if (!beginModal(id, title, ImGuiWindowFlags_NoSavedSettings)) return;
  if (top.completion) later(std::exchange(top.completion, nullptr));

  bool dismiss = false;
  if (mail != nullptr) {
    if (!top.recipientsLoaded) {
      for (const auto& recipient : mail->toRecipients()) {
        top.recipients += (top.recipients.empty() ? "" : ", ") + recipient;
      }
      top.recipientsLoaded = true;
    }
    // The To field: addresses separated by commas, semicolons or spaces.
    char buffer[1024];
    const size_t length = std::min(top.recipients.size(), sizeof buffer - 1);
    top.recipients.copy(buffer, length);
    buffer[length] = '\0';
    ImGui::TextDisabled("To:");
    ImGui::SameLine();
    ImGui::SetNextItemWidth(-1);
    if (ImGui::InputTextWithHint("##to", "name@example.com", buffer, sizeof buffer)) {
      top.recipients = buffer;
      mail->setToRecipients(splitRecipients(top.recipients));
    }
    if (const auto* mime = dynamic_cast<const MimeMailComposer*>(mail)) {
      const auto& transport = mime->transport();
      if (transport.kind == MailTransport::Kind::Outbox) {
        ImGui::TextDisabled("Saved as an .eml file in %s",
                            transport.outboxDirectory.string().c_str());
      }
    }
    ImGui::TextDisabled("Subject:");
    ImGui::SameLine();
    ImGui::TextUnformatted(mail->subject().c_str());
    for (const auto& attachment : mail->attachments()) {
      ImGui::BulletText("%s  (%s, %zu bytes)", attachment.fileName.c_str(),
                        attachment.mimeType.c_str(), attachment.data.size());
    }
    ImGui::Separator();
    const float buttonRow = ImGui::GetFrameHeightWithSpacing() + 8;
    ImGui::BeginChild("##body", ImVec2(0, -buttonRow), true);
    ImGui::TextWrapped("%s", mail->messageBody().c_str());
    ImGui::EndChild();
    if (ImGui::Button("Send", ImVec2(120, 0))) mail->send();
    ImGui::SameLine();
    if (ImGui::Button("Cancel", ImVec2(120, 0))) mail->cancel();
    // A composer nobody listens to is closed here once the user is done.
    dismiss = mail->isFinished();
  } else if (sheet != nullptr) {
    ImGui::TextUnformatted("Ready to share:");
    for (const auto& item : sheet->activityItems()) {
      ImGui::BulletText("%s", item.filename().string().c_str());
    }
    if (!sheet->activityItems().empty()) {
      ImGui::TextDisabled("in %s", sheet->activityItems().front().parent_path().string().c_str());
    }
    ImGui::Spacing();
    if (ImGui::Button("Copy Paths", ImVec2(120, 0))) {
      std::string paths;
      for (const auto& item : sheet->activityItems()) paths += item.string() + "\n";
      ui::Pasteboard::general().setString(paths);
    }
    ImGui::SameLine();
    dismiss = ImGui::Button("Done", ImVec2(120, 0));
  } else {
    ImGui::TextWrapped("%s", screen->title().c_str());
    dismiss = ImGui::Button("Close", ImVec2(120, 0));
  }

  const bool stillOnTop = !presented_.empty() && presented_.back().id == id;
  if (!stillOnTop || dismiss) {
    ImGui::CloseCurrentPopup();
    openId_ = 0;
  }
  ImGui::EndPopup();
  if (stillOnTop && dismiss) dismissViewController(false, nullptr);
}

}  // namespace korvel::overlay
