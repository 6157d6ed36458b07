#include <korvel/ui/AudioPlayer.h>

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include <korvel/ui/MainQueue.h>
#include <korvel/debug/WaveWriter.h>
#include "support/TestEnv.h"
#include "support/TestUIEnv.h"

namespace korvel {
namespace {

using namespace std::chrono_literals;
using ui::AudioPlayer;
using ui::makeDefaultAudioPlayer;

// SDL's dummy driver consumes audio in real time without a sound card, so
// playback reaches its end on schedule on any machine.
class AudioPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef KORVEL_HAVE_SDL2
    GTEST_SKIP() << "built without SDL2: no audio player";
#endif
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    scope_.emplace(env_);
  }
  void TearDown() override { setenv("SDL_AUDIODRIVER", "dummy", 1); }

  std::string writeTone(const char* name, KVNAudioFormat format, uint32_t frames) {
    KVNPCMBuffer buffer;
    buffer.format = format;
    buffer.frameLength = frames;
    buffer.frames.resize(static_cast<size_t>(frames) * format.bytesPerFrame());
    for (size_t i = 0; i < buffer.frames.size(); ++i) {
      buffer.frames[i] = static_cast<uint8_t>(i * 37);
    }
    const auto path = std::filesystem::path(env_.documentsDirectory()) / name;
    EXPECT_EQ(writeWaveFile(path, buffer), WaveWriteStatus::Written);
    return path.string();
  }

  std::string shortTone(double seconds) {
    return writeTone("tone-caf", {8000, 1, 16, false}, static_cast<uint32_t>(seconds * 8000));
  }

  // Waits, without the main queue, until the audio thread marks the end.
  static bool waitUntilStopped(AudioPlayer& player) {
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (player.isPlaying() && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(2ms);
    }
    return !player.isPlaying();
  }

  // Pumps the main queue until done() or the deadline.
  template <class Done>
  bool pumpUntil(Done done, std::chrono::milliseconds deadline = 5s) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!done()) {
      if (std::chrono::steady_clock::now() > end) return false;
      uiEnv_.mainQueue().waitForWork(0.02);
      uiEnv_.mainQueue().runPending();
    }
    return true;
  }

  testing::TestEnv env_;
  testing::TestUIEnv uiEnv_;
  std::optional<platform::ScopedEnv> scope_;
};

TEST_F(AudioPlayerTest, DurationComesFromTheFileFormat) {
  struct Case {
    const char* what;
    KVNAudioFormat format;
    uint32_t frames;
  };
  const Case cases[] = {
      {"16-bit mono", {8000, 1, 16, false}, 2000},
      {"16-bit stereo", {44100, 2, 16, false}, 22050},
      {"8-bit mono", {11025, 1, 8, false}, 11025},
      {"24-bit stereo", {48000, 2, 24, false}, 12000},
      {"32-bit float", {16000, 1, 32, true}, 4000},
      {"no frames", {8000, 1, 16, false}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto player = makeDefaultAudioPlayer(writeTone("take-caf", c.format, c.frames));
    ASSERT_NE(player, nullptr);
    EXPECT_NEAR(player->duration(), c.frames / c.format.sampleRate, 1e-9);
    EXPECT_EQ(player->currentTime(), 0);
    EXPECT_FALSE(player->isPlaying());
  }
}

TEST_F(AudioPlayerTest, FilesThatAreNotAudioGiveNoPlayer) {
  const auto dir = std::filesystem::path(env_.documentsDirectory());
  std::ofstream(dir / "notes.txt") << "not a RIFF file at all";
  std::ofstream(dir / "empty-sig");
  std::filesystem::create_directory(dir / "folder");
  for (const char* name : {"missing-caf", "notes.txt", "empty-sig", "folder"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(makeDefaultAudioPlayer((dir / name).string()), nullptr);
  }
}

TEST_F(AudioPlayerTest, PlayAdvancesStopKeepsThePositionAndPlayResumes) {
  auto player = makeDefaultAudioPlayer(shortTone(5.0));
  ASSERT_NE(player, nullptr);
  ASSERT_TRUE(player->play());
  EXPECT_TRUE(player->isPlaying());
  ASSERT_TRUE(pumpUntil([&] { return player->currentTime() > 0.05; }));

  player->stop();
  EXPECT_FALSE(player->isPlaying());
  const double stoppedAt = player->currentTime();
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(player->currentTime(), stoppedAt) << "a stopped player does not move";

  ASSERT_TRUE(player->play());
  ASSERT_TRUE(pumpUntil([&] { return player->currentTime() > stoppedAt + 0.05; }));
  EXPECT_GT(player->currentTime(), stoppedAt);
  player->stop();
}

TEST_F(AudioPlayerTest, SetCurrentTimeStaysWithinTheRecording) {
  auto player = makeDefaultAudioPlayer(shortTone(2.0));
  ASSERT_NE(player, nullptr);
  struct Case {
    double set;
    double expected;
  };
  const Case cases[] = {{0.5, 0.5},  {1.25, 1.25}, {-1, 0},   {2.0, 2.0},
                        {2.5, 2.0},  {1e300, 2.0}, {NAN, 0}, {-INFINITY, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.set);
    player->setCurrentTime(c.set);
    EXPECT_NEAR(player->currentTime(), c.expected, 1.0 / 8000);
  }
}

TEST_F(AudioPlayerTest, ReachingTheEndTellsTheMainQueueAndRewinds) {
  auto player = makeDefaultAudioPlayer(shortTone(0.15));
  ASSERT_NE(player, nullptr);
  int finished = 0;
  std::thread::id finishedOn;
  player->finishedPlaying = [&] {
    ++finished;
    finishedOn = std::this_thread::get_id();
  };
  ASSERT_TRUE(player->play());

  // The audio thread marks the end; nobody is told before the queue runs.
  ASSERT_TRUE(waitUntilStopped(*player));
  EXPECT_EQ(finished, 0);

  ASSERT_TRUE(pumpUntil([&] { return finished > 0; }));
  EXPECT_EQ(finished, 1);
  EXPECT_EQ(finishedOn, std::this_thread::get_id());
  EXPECT_EQ(player->currentTime(), 0) << "a finished recording plays again from the start";
  std::this_thread::sleep_for(50ms);
  uiEnv_.mainQueue().runPending();
  EXPECT_EQ(finished, 1);
}

TEST_F(AudioPlayerTest, AnEndNoticeFromBeforeAReplayIsDropped) {
  auto player = makeDefaultAudioPlayer(shortTone(0.1));
  ASSERT_NE(player, nullptr);
  int finished = 0;
  player->finishedPlaying = [&] { ++finished; };
  ASSERT_TRUE(player->play());
  ASSERT_TRUE(waitUntilStopped(*player));

  // Played again before the first end was delivered: that notice must not
  // stop the new playback nor count as its end.
  ASSERT_TRUE(player->play());
  uiEnv_.mainQueue().runPending();
  EXPECT_EQ(finished, 0);
  ASSERT_TRUE(pumpUntil([&] { return finished > 0; }));
  EXPECT_EQ(finished, 1);
}

TEST_F(AudioPlayerTest, StoppingBeforeTheEndIsNotFinishing) {
  auto player = makeDefaultAudioPlayer(shortTone(0.2));
  ASSERT_NE(player, nullptr);
  int finished = 0;
  player->finishedPlaying = [&] { ++finished; };
  ASSERT_TRUE(player->play());
  player->stop();
  std::this_thread::sleep_for(300ms);
  uiEnv_.mainQueue().runPending();
  EXPECT_EQ(finished, 0);
  EXPECT_FALSE(player->isPlaying());
}

TEST_F(AudioPlayerTest, APlayerDestroyedWhilePlayingIsNeverCalledBack) {
  auto player = makeDefaultAudioPlayer(shortTone(0.05));
  ASSERT_NE(player, nullptr);
  bool called = false;
  player->finishedPlaying = [&] { called = true; };
  ASSERT_TRUE(player->play());
  std::this_thread::sleep_for(150ms);  // the end notice is queued by now
  player.reset();
  uiEnv_.mainQueue().runPending();
  EXPECT_FALSE(called);
}

TEST_F(AudioPlayerTest, WithoutAudioOutputThePlayerPreparesButDoesNotPlay) {
  // Every earlier player is gone, so SDL's audio starts afresh and fails.
  setenv("SDL_AUDIODRIVER", "korvel-no-such-driver", 1);
  auto player = makeDefaultAudioPlayer(shortTone(0.5));
  ASSERT_NE(player, nullptr);
  EXPECT_NEAR(player->duration(), 0.5, 1e-9);
  EXPECT_FALSE(player->play());
  EXPECT_FALSE(player->isPlaying());
  player->stop();
  player->setCurrentTime(0.25);
  EXPECT_NEAR(player->currentTime(), 0.25, 1e-9);

  const auto logs = env_.logs().records();
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_EQ(logs[0].level, platform::LogLevel::Error);
  EXPECT_NE(logs[0].message.find("tone-caf will not play"), std::string::npos)
      << logs[0].message;
}

}  // namespace
}  // namespace korvel
