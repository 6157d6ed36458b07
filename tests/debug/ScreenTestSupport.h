// A fixture for the debug overlay's screens: a test Env (with its own
// documents folder and main queue), a recording presenter, a clean general
// pasteboard, fake audio players, and the shared debug seams restored after
// each test.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "debug/DebugTestSupport.h"
#include <korvel/debug/KVRDebugMessageCenter.h>
#include <korvel/debug/KVRDebugOverlayWindow.h>
#include <korvel/platform/KVNUserDefaults.h>
#include <korvel/debug/Locale.h>
#include <korvel/debug/MailComposer.h>
#include <korvel/ui/Pasteboard.h>
#include <korvel/ui/ViewNode.h>
#include "support/FakeAudioPlayer.h"
#include "support/TestEnv.h"
#include "support/TestUIEnv.h"

namespace korvel::testing {

struct AllowDebugging : KVRDebugMessageCenterDelegate {
  bool isDebugCenterAllowed() override { return true; }
};

class ScreenTest : public BeaconTest {
 protected:
  TestUIEnv uiEnv_;
  void SetUp() override {
    BeaconTest::SetUp();
    presenter_ = std::make_shared<RecordingPresenter>();
    ui::Pasteboard::general().clear();
    audio_ = std::make_shared<FakeAudioPlayer::Record>();
    // Like the real player: nothing for a file that is not there.
    uiEnv_.setAudioPlayerFactory(
        [audio = audio_](const std::string& path) -> std::unique_ptr<ui::AudioPlayer> {
          audio->paths.push_back(path);
          if (!std::filesystem::exists(path)) return nullptr;
          return std::make_unique<FakeAudioPlayer>(audio);
        });
    defaults_ = std::make_shared<KVNUserDefaults>(env_.documentsDirectory() + "/defaults.json");
    KVNUserDefaults::setSharedUserDefaults(defaults_);
    ui::Screen::setMainScreenSize({1000, 800});
  }

  void TearDown() override {
    KVRDebugMessageCenter::stopDebugging();
    KVRDebugMessageCenter::setDebugMessageCenterDelegate(nullptr);
    KVRDebugOverlayWindow::setFactory(nullptr);
    KVRDebugWindow::setApplicationMainWindowProvider(nullptr);
    KVRDebugOverlayWindow::setDefaultPresenter(nullptr);
    KVNUserDefaults::setSharedUserDefaults(nullptr);
    setMailComposerFactory(nullptr);
    setCurrentLocaleIdentifier(std::nullopt);
    setCurrentTimeZoneIdentifier(std::nullopt);
    ui::Screen::setMainScreenSize({1280, 720});
    BeaconTest::TearDown();
  }

  std::shared_ptr<KVRDebugMessageCenter> startCenter() {
    KVRDebugMessageCenter::setDebugMessageCenterDelegate(std::make_shared<AllowDebugging>());
    auto center = KVRDebugMessageCenter::defaultCenter();
    center->startDebugging();
    return center;
  }

  void pump() { uiEnv_.mainQueue().runPending(); }

  std::filesystem::path debugRoot() {
    return std::filesystem::path(env_.documentsDirectory()) / "DEBUG";
  }

  // Writes content to <documents>/DEBUG/<relative>, making its folders.
  std::filesystem::path writeDebugFile(const std::string& relative,
                                       const std::string& content = "x") {
    const auto path = debugRoot() / relative;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  std::shared_ptr<RecordingPresenter> presenter_;
  std::shared_ptr<FakeAudioPlayer::Record> audio_;
  std::shared_ptr<KVNUserDefaults> defaults_;
};

}  // namespace korvel::testing
