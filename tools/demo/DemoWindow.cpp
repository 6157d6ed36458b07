#include "demo/DemoWindow.h"

#include <imgui.h>
#include <stdlib.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <set>
#include <memory>
#include <string>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRReliableNetworkingTask.h>
#include <korvel/debug/KVRDebugLogEntry.h>
#include <korvel/debug/KVRDebugLogViewController.h>
#include <korvel/debug/KVRDebugMessageCenter.h>
#include <korvel/debug/KVRDebugOverlayViewController.h>
#include <korvel/debug/KVRDebugOverlayWindow.h>
#include <korvel/debug/MailComposer.h>
#include <korvel/overlay/Fonts.h>
#include <korvel/overlay/ImGuiWindowHost.h>
#include <korvel/overlay/OverlayChrome.h>
#include "demo/DemoSession.h"
#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNTaggingDebugResult.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/platform/NotificationCenter.h>
#include <korvel/ui/UIEnv.h>

namespace korvel::demo {
namespace {

using overlay::FontSet;

class AllowDebugging : public KVRDebugMessageCenterDelegate {
 public:
  bool isDebugCenterAllowed() override { return true; }
};

// "E-mail" in the overlay writes the message into an outbox folder (one .eml
// file each) and says on standard output which file it wrote.
class OutboxComposer : public MimeMailComposer {
 public:
  using MimeMailComposer::MimeMailComposer;

 protected:
  std::optional<std::string> deliver() override {
    const auto& folder = transport().outboxDirectory;
    const auto before = messagesIn(folder);
    auto error = MimeMailComposer::deliver();
    if (error) {
      std::printf("korvel-demo: the e-mail was not written: %s\n", error->c_str());
    } else {
      for (const auto& file : messagesIn(folder)) {
        if (before.count(file) == 0) std::printf("korvel-demo: e-mail written to %s\n", file.c_str());
      }
    }
    std::fflush(stdout);
    return error;
  }

 private:
  static std::set<std::string> messagesIn(const std::filesystem::path& folder) {
    std::set<std::string> files;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
      if (entry.path().extension() == ".eml") files.insert(entry.path().string());
    }
    return files;
  }
};

class OutboxComposerFactory : public MailComposerFactory {
 public:
  explicit OutboxComposerFactory(std::filesystem::path folder)
      : transport_(MailTransport::outbox(std::move(folder))) {}
  bool canSendMail() override { return transport_.isUsable(); }
  std::shared_ptr<MailComposer> makeComposer() override {
    return std::make_shared<OutboxComposer>(transport_);
  }
  const std::filesystem::path& folder() const { return transport_.outboxDirectory; }

 private:
  MailTransport transport_;
};

// The match the host shows after a recognition (what the debug overlay's
// tag information page describes).
class DemoTagResult : public KVRTagResultInfo {
 public:
  DemoTagResult(const KVRTagDetails& tag, double when) : tag_(tag), when_(when) {}
  std::optional<std::string> tagID() const override { return tag_.tagID; }
  std::optional<std::string> trackIDOrUnknown() const override { return tag_.trackID; }
  std::optional<KVRDate> date() const override { return KVRDate{when_}; }
  std::optional<std::string> trackName() const override { return "Harbour Lights"; }
  std::optional<std::string> artist() const override { return "The Korvel Quartet"; }
  std::optional<KVNEndpoint> albumArtEndpoint() const override {
    return KVNEndpoint("https://art.korvel.test/" + tag_.trackID.value_or("none") + "/600x600.jpg");
  }
  std::optional<std::string> syncProviderID() const override { return "demo-streaming"; }
  std::optional<std::string> syncProviderName() const override { return "Demo Streaming"; }

 private:
  KVRTagDetails tag_;
  double when_;
};

// What the recognition recorded: a second of a 440 Hz tone, and a
// signature, as the foundation library hands them to the debug tools.
std::shared_ptr<const KVNTaggingDebugResultContext> recordingOf(const KVRTagDetails& tag,
                                                               double started) {
  auto buffer = std::make_shared<KVNPCMBuffer>();
  buffer->format = KVNAudioFormat{16000, 1, 16, false};
  buffer->frameLength = 16000;
  buffer->frames.resize(buffer->frameLength * 2);
  for (uint32_t i = 0; i < buffer->frameLength; ++i) {
    const auto sample =
        static_cast<int16_t>(8000 * std::sin(2 * M_PI * 440 * i / buffer->format.sampleRate));
    buffer->frames[2 * i] = static_cast<uint8_t>(sample & 0xFF);
    buffer->frames[2 * i + 1] = static_cast<uint8_t>((sample >> 8) & 0xFF);
  }
  auto context = std::make_shared<KVNTaggingDebugResultContext>();
  context->tags.push_back({tag.tagID.value_or("")});
  context->sessionStartDate = KVRDate{started};
  context->audioBuffer = buffer;
  context->recognitionAttempts.push_back({KVNSignature{dataFromString("KVSIG demo")}});
  return context;
}

// What the host does for the debug tools after a recognition: the
// foundation library hands over the recording, and the match is shown.
void postRecording(const DemoSession& demo, double started) {
  platform::env().notificationCenter().post(KVNTaggingDebugResultContextNotification,
                                            recordingOf(demo.lastTag(), started));
}

void postMatchShown(const DemoSession& demo) {
  platform::env().notificationCenter().post(
      KVRDebugMessageDisplayingTagResultNotification,
      std::shared_ptr<const KVRTagResultInfo>(
          std::make_shared<DemoTagResult>(demo.lastTag(), platform::env().now())));
}

// The host's own screens: home, the track page, search, and a panel of
// things the operating system would do (background, foreground, links).
class DemoApplication {
 public:
  explicit DemoApplication(DemoSession& demo) : demo_(demo) {}

  void draw() {
    const ImGuiViewport* viewport = ImGui::GetMainViewport();
    ImGui::SetNextWindowPos(viewport->Pos);
    ImGui::SetNextWindowSize(viewport->Size);
    ImGui::Begin("Korvel", nullptr,
                 ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_NoMove |
                     ImGuiWindowFlags_NoBringToFrontOnFocus | ImGuiWindowFlags_NoSavedSettings);
    ImGui::PushFont(FontSet::current().chromeFont());
    ImGui::TextUnformatted(title());
    ImGui::PopFont();
    ImGui::TextDisabled("F1 or ` shows the debug overlay");
    ImGui::Separator();

    ImGui::BeginChild("screen", ImVec2(ImGui::GetContentRegionAvail().x * 0.6f, 0), true);
    ImGui::BeginDisabled(demo_.inBackground());
    if (demo_.trackPageOpen()) {
      drawTrack();
    } else if (demo_.searchOpen()) {
      drawSearch();
    } else {
      drawHome();
    }
    ImGui::EndDisabled();
    ImGui::EndChild();
    ImGui::SameLine();
    ImGui::BeginChild("system", ImVec2(0, 0), true);
    drawSystem();
    ImGui::EndChild();
    ImGui::End();
  }

 private:
  const char* title() const {
    if (demo_.inBackground()) return "Korvel (in the background)";
    if (demo_.trackPageOpen()) return "Korvel / Track";
    if (demo_.searchOpen()) return renamed_ ? "Korvel / Search results" : "Korvel / Search";
    return "Korvel / Home";
  }

  static bool bigButton(const char* label) {
    return ImGui::Button(label, ImVec2(std::max(ImGui::GetContentRegionAvail().x, 200.0f), 44));
  }

  void drawHome() {
    if (bigButton("Recognise a song")) {
      const double started = platform::env().now();
      demo_.recognise();
      postRecording(demo_, started);
      postMatchShown(demo_);
      showingResult_ = true;
    }
    if (showingResult_) {
      ImGui::TextWrapped("Match: Harbour Lights, The Korvel Quartet (track %s)",
                         demo_.lastTag().trackID.value_or("?").c_str());
      if (bigButton("Open the track page")) demo_.openTrackPage();
      if (bigButton("Dismiss the match")) {
        platform::env().notificationCenter().post(KVRDebugMessageClosedMatchResultNotification);
        showingResult_ = false;
      }
    }
    if (bigButton("Search")) {
      renamed_ = false;
      demo_.openSearch();
    }
    if (bigButton("Scroll, a notification, widgets")) demo_.tapAround();
  }

  void drawTrack() {
    ImGui::TextWrapped("Harbour Lights - The Korvel Quartet");
    if (bigButton("Scroll to the end of the tracklist, share via Messages")) demo_.tapOnTrackPage();
    if (bigButton("Open in the browser")) {
      platform::env().notificationCenter().post(
          KVRDebugMessageLogOpenedURLNotification,
          KVRURL{"https://music.korvel.test/track/" + demo_.lastTag().trackID.value_or("")});
    }
    if (bigButton("< Back")) demo_.closeTrackPage();
  }

  void drawSearch() {
    if (bigButton("Charts card")) demo_.tapChartsCard();
    if (!renamed_ && bigButton("Show results (renames the page)")) {
      demo_.showSearchResults();
      renamed_ = true;
    }
    if (bigButton("< Back")) demo_.closeSearch();
  }

  void drawSystem() {
    ImGui::TextUnformatted("System");
    ImGui::Separator();
    if (demo_.inBackground()) {
      if (bigButton("Come to the foreground")) demo_.comeToForeground();
    } else if (bigButton("Go to the background")) {
      demo_.goToBackground();
    }
    if (bigButton("Toggle the debug overlay")) {
      if (auto center = KVRDebugMessageCenter::defaultCenter()) center->toggleDebugViewVisibility();
    }
  }

  DemoSession& demo_;
  bool showingResult_ = false;
  bool renamed_ = false;
};

// The event of a beacon row; the first line of any other row.
std::string rowName(const KVRDebugLogEntry& entry) {
  if (auto beacon = dynamic_cast<const KVRDebugLogBeaconEntry*>(&entry)) {
    if (auto event = beacon->task()->event()) return *event;
  }
  const std::string text = entry.attributedString().plainText();
  return text.substr(0, text.find('\n'));
}

int takeScreenshot(overlay::ImGuiWindowHost& host, DemoSession& demo, DemoApplication& app,
                   const WindowOptions& options) {
  const double started = platform::env().now();
  demo.runScript();
  // The recognition's files for the debug files page; the match itself only
  // when its page is asked for (a match on screen opens the overlay there).
  postRecording(demo, started);
  if (options.page == 5) postMatchShown(demo);
  auto center = KVRDebugMessageCenter::defaultCenter();
  // The log takes submitted beacons on the main queue.
  ui::uiEnv().mainQueue().runPending();
  center->presentDebugMenu();
  if (options.page != 0) {
    if (auto window = center->debugWindow(); window && window->debugOverlayViewController()) {
      window->debugOverlayViewController()->setCurrentPage(options.page, false);
    }
  }

  overlay::Image image;
  const int frames = std::max(options.frames, 1);
  for (int i = 0; i < frames; ++i) {
    host.frame([&] { app.draw(); }, i == frames - 1 ? &image : nullptr);
  }
  std::string error;
  if (!overlay::writePng(*options.screenshotPath, image, error)) {
    std::fprintf(stderr, "korvel-demo: cannot write %s: %s\n", options.screenshotPath->c_str(),
                 error.c_str());
    return 2;
  }
  std::printf("\nkorvel-demo: screenshot %s (%dx%d)\n", options.screenshotPath->c_str(),
              image.width, image.height);
  const auto& drawn = host.overlay().lastFrame();
  if (auto log = std::dynamic_pointer_cast<KVRDebugLogViewController>(drawn.page)) {
    for (const auto& row : drawn.rows) {
      if (auto entry = log->entryAtRow(row.row)) {
        std::printf("rendered log row: %s\n", rowName(*entry).c_str());
      }
    }
  }
  std::fflush(stdout);
  return 0;
}

}  // namespace

int runWindowed(const WindowOptions& options) {
  overlay::ImGuiWindowHost::Options hostOptions;
  hostOptions.title = "Korvel demo";
  hostOptions.width = options.width;
  hostOptions.height = options.height;
  hostOptions.throttle = !options.screenshotPath;
  hostOptions.mouseInput = !options.screenshotPath;
  std::string error;
  auto host = overlay::ImGuiWindowHost::open(hostOptions, error);
  if (!host) {
    std::fprintf(stderr, "korvel-demo: %s\n", error.c_str());
    return 2;
  }

  DemoSession demo(options.keepStore);
  if (!demo.start()) return 2;
  // Debug recordings go into the demo's temporary store, not the user's
  // documents.
  setenv("XDG_DOCUMENTS_DIR", (demo.storeDirectory() / "Documents").c_str(), 1);
  // The overlay's "E-mail" writes into an outbox that outlives the demo's
  // temporary store.
  const auto outbox = std::filesystem::temp_directory_path() /
                      ("korvel-demo-outbox-" + std::to_string(::getuid()));
  auto mail = std::make_shared<OutboxComposerFactory>(outbox);
  setMailComposerFactory(mail);
  if (!options.screenshotPath) {
    std::printf("korvel-demo: the overlay's E-mail writes .eml files into %s\n",
                outbox.c_str());
  }
  KVRDebugMessageCenter::setDebugMessageCenterDelegate(std::make_shared<AllowDebugging>());
  KVRDebugMessageCenter::defaultCenter()->startDebugging();

  DemoApplication app(demo);
  int code = 0;
  if (options.screenshotPath) {
    code = takeScreenshot(*host, demo, app, options);
  } else {
    demo.launch();
    while (host->frame([&] { app.draw(); })) {
    }
    // Closing the window ends the session as the background would.
    demo.goToBackground();
  }

  KVRDebugMessageCenter::stopDebugging();
  KVRDebugMessageCenter::setDebugMessageCenterDelegate(nullptr);
  setMailComposerFactory(nullptr);
  host.reset();
  const int delivered = demo.finish();
  return code != 0 ? code : delivered;
}

}  // namespace korvel::demo
