// The screens' seam for tests: a main queue of the test's own (pumped with
// mainQueue().runPending() after advancing the TestEnv's monotonic clock) and
// audio players from a factory the test sets (see FakeAudioPlayer). Installs
// itself for its lifetime.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <korvel/ui/AudioPlayer.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/UIEnv.h>

namespace korvel::testing {

class TestUIEnv : public ui::UIEnvWrapper {
 public:
  TestUIEnv() : UIEnvWrapper(ui::UIEnv::Default()), scope_(*this) {}

  ui::MainQueue& mainQueue() override { return mainQueue_; }

  // Players come from the factory the test set, else from the real player.
  using AudioPlayerFactory =
      std::function<std::unique_ptr<ui::AudioPlayer>(const std::string& path)>;
  std::unique_ptr<ui::AudioPlayer> makeAudioPlayer(const std::string& path) override {
    AudioPlayerFactory factory;
    {
      std::lock_guard lock(mutex_);
      factory = factory_;
    }
    return factory ? factory(path) : UIEnvWrapper::makeAudioPlayer(path);
  }
  void setAudioPlayerFactory(AudioPlayerFactory factory) {
    std::lock_guard lock(mutex_);
    factory_ = std::move(factory);
  }

 private:
  ui::MainQueue mainQueue_;
  std::mutex mutex_;
  AudioPlayerFactory factory_;
  ui::ScopedUIEnv scope_;
};

}  // namespace korvel::testing
