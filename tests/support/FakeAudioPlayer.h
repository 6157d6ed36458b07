// An audio player double: records what it is asked, plays instantly (or
// refuses to, when told), and lets the test end playback.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <korvel/ui/AudioPlayer.h>

namespace korvel::testing {

class FakeAudioPlayer : public ui::AudioPlayer {
 public:
  // Shared between the test and every player it made.
  struct Record {
    std::vector<std::string> paths;   // one per player made
    std::vector<std::string> calls;   // "play", "stop", "seek 0", ...
    bool failPlay = false;            // play() answers false
    FakeAudioPlayer* current = nullptr;  // the live player, if any
  };

  explicit FakeAudioPlayer(std::shared_ptr<Record> record) : record_(std::move(record)) {
    record_->current = this;
  }
  ~FakeAudioPlayer() override {
    if (record_->current == this) record_->current = nullptr;
  }

  bool play() override {
    record_->calls.push_back("play");
    if (record_->failPlay) return false;
    playing_ = true;
    return true;
  }
  void stop() override {
    record_->calls.push_back("stop");
    playing_ = false;
  }
  bool isPlaying() const override { return playing_; }
  double currentTime() const override { return time_; }
  void setCurrentTime(double seconds) override {
    record_->calls.push_back("seek " + std::to_string(static_cast<int>(seconds)));
    time_ = seconds;
  }
  double duration() const override { return 2.0; }

  // Playback reaches the end by itself.
  void finish() {
    playing_ = false;
    time_ = duration();
    if (finishedPlaying) finishedPlaying();
  }

 private:
  std::shared_ptr<Record> record_;
  bool playing_ = false;
  double time_ = 0;
};

}  // namespace korvel::testing
