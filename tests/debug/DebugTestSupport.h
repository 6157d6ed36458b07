// Doubles shared by the debug tool tests: a tag result with settable fields,
// a presenter and a mail composer that record what they are asked, and a
// small reader of WAVE headers written independently of the library.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <korvel/debug/MailComposer.h>
#include <korvel/ui/UI.h>
#include <korvel/reporters/KVRTaggingReporter.h>

namespace korvel::testing {

struct StubTagResult : KVRTagResultInfo {
  std::optional<std::string> tag;
  std::optional<std::string> track;
  std::optional<KVRDate> when;
  std::optional<KVNEndpoint> albumArt;

  std::optional<std::string> tagID() const override { return tag; }
  std::optional<std::string> trackIDOrUnknown() const override { return track; }
  std::optional<KVRDate> date() const override { return when; }
  std::optional<std::string> trackName() const override { return std::nullopt; }
  std::optional<std::string> artist() const override { return std::nullopt; }
  std::optional<KVNEndpoint> albumArtEndpoint() const override { return albumArt; }
  std::optional<std::string> syncProviderID() const override { return std::nullopt; }
  std::optional<std::string> syncProviderName() const override { return std::nullopt; }
};

class RecordingPresenter : public ui::Presenter {
 public:
  struct Presented {
    std::shared_ptr<ui::ViewController> screen;
    ui::ModalPresentationStyle style;
    bool animated;
  };

  void presentViewController(std::shared_ptr<ui::ViewController> screen,
                             ui::ModalPresentationStyle style, bool animated,
                             std::function<void()>) override {
    presented.push_back({std::move(screen), style, animated});
  }
  void presentAlert(ui::Alert alert, bool animated, std::function<void()>) override {
    alerts.push_back(std::move(alert));
    alertsAnimated = animated;
  }
  void dismissViewController(bool animated, std::function<void()>) override {
    ++dismissals;
    dismissedAnimated = animated;
  }
  ui::UserInterfaceIdiom userInterfaceIdiom() const override { return idiom; }

  ui::UserInterfaceIdiom idiom = ui::UserInterfaceIdiom::Phone;
  std::vector<Presented> presented;
  std::vector<ui::Alert> alerts;
  bool alertsAnimated = false;
  int dismissals = 0;
  bool dismissedAnimated = false;
};

// An alert in one line: "alert|sheet: title: message [button:style]...".
inline std::string alertText(const ui::Alert& alert) {
  static constexpr const char* kStyles[] = {"default", "cancel", "destructive"};
  std::string text = alert.preferredStyle == ui::AlertStyle::Alert ? "alert: " : "sheet: ";
  text += alert.title + ": " + alert.message;
  for (const auto& action : alert.actions) {
    text += " [" + action.title + ":" + kStyles[static_cast<int>(action.style)] + "]";
  }
  return text;
}

// Keeps the message; "delivering" succeeds.
class RecordingComposer : public MailComposer {
 protected:
  std::optional<std::string> deliver() override { return std::nullopt; }
};

class RecordingComposerFactory : public MailComposerFactory {
 public:
  bool canSendMail() override { return canSend; }
  std::shared_ptr<MailComposer> makeComposer() override {
    made.push_back(std::make_shared<RecordingComposer>());
    return made.back();
  }
  bool canSend = true;
  std::vector<std::shared_ptr<RecordingComposer>> made;
};

inline std::vector<uint8_t> readBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}
inline std::string readText(const std::filesystem::path& path) {
  const auto bytes = readBytes(path);
  return std::string(bytes.begin(), bytes.end());
}

// What a RIFF/WAVE file's header says, read chunk by chunk.
struct WaveInfo {
  bool valid = false;
  uint32_t riffSize = 0;
  uint16_t formatTag = 0;
  uint16_t channels = 0;
  uint32_t sampleRate = 0;
  uint32_t byteRate = 0;
  uint16_t blockAlign = 0;
  uint16_t bitsPerSample = 0;
  std::optional<uint32_t> factFrames;
  std::vector<uint8_t> data;
  uint32_t frameCount() const { return blockAlign == 0 ? 0 : static_cast<uint32_t>(data.size() / blockAlign); }
};

inline WaveInfo parseWave(const std::vector<uint8_t>& file) {
  auto u16 = [&](size_t at) { return static_cast<uint16_t>(file[at] | file[at + 1] << 8); };
  auto u32 = [&](size_t at) {
    return static_cast<uint32_t>(file[at]) | static_cast<uint32_t>(file[at + 1]) << 8 |
           static_cast<uint32_t>(file[at + 2]) << 16 | static_cast<uint32_t>(file[at + 3]) << 24;
  };
  auto tagAt = [&](size_t at, const char* tag) { return std::memcmp(&file[at], tag, 4) == 0; };
  WaveInfo info;
  if (file.size() < 12 || !tagAt(0, "RIFF") || !tagAt(8, "WAVE")) return info;
  info.riffSize = u32(4);
  bool sawFormat = false, sawData = false;
  for (size_t at = 12; at + 8 <= file.size();) {
    const uint32_t size = u32(at + 4);
    const size_t body = at + 8;
    if (body + size > file.size()) return info;
    if (tagAt(at, "fmt ") && size >= 16) {
      info.formatTag = u16(body);
      info.channels = u16(body + 2);
      info.sampleRate = u32(body + 4);
      info.byteRate = u32(body + 8);
      info.blockAlign = u16(body + 12);
      info.bitsPerSample = u16(body + 14);
      sawFormat = true;
    } else if (tagAt(at, "fact") && size >= 4) {
      info.factFrames = u32(body);
    } else if (tagAt(at, "data")) {
      info.data.assign(file.begin() + static_cast<std::ptrdiff_t>(body),
                       file.begin() + static_cast<std::ptrdiff_t>(body + size));
      sawData = true;
    }
    at = body + size + (size % 2);
  }
  info.valid = sawFormat && sawData && info.riffSize + 8 == file.size();
  return info;
}

}  // namespace korvel::testing
