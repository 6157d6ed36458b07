// The seam between the screens (page-view glue, debug tools, overlay) and the
// machine: the main queue the host pumps, and audio output.
//
// Beside platform::Env, which holds what the beacon library needs from the
// operating system; a host that only sends beacons never touches this one.
// UIEnv::Default() is the real implementation (a process-wide main queue, SDL2
// audio where the library was built with it); tests install their own with
// ScopedUIEnv, usually a UIEnvWrapper subclass.
//
// The current UIEnv is swapped only while no screen is running (test set-up
// and tear-down); reads are a single atomic load.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <string>

#include <korvel/ui/AudioPlayer.h>

namespace korvel::ui {

class MainQueue;

class KORVEL_EXPORT UIEnv {
 public:
  virtual ~UIEnv() = default;

  // The real implementation for this machine; lives for the process.
  static UIEnv& Default();

  // The queue of work for the host's main (UI) thread.
  virtual MainQueue& mainQueue() = 0;
  // A player for the audio file at path; null when it cannot be read.
  virtual std::unique_ptr<AudioPlayer> makeAudioPlayer(const std::string& path) = 0;
};

// Forwards every call to a target UIEnv; subclass it to override a few.
class KORVEL_EXPORT UIEnvWrapper : public UIEnv {
 public:
  explicit UIEnvWrapper(UIEnv& target) : target_(target) {}
  UIEnv& target() const { return target_; }

  MainQueue& mainQueue() override { return target_.mainQueue(); }
  std::unique_ptr<AudioPlayer> makeAudioPlayer(const std::string& path) override {
    return target_.makeAudioPlayer(path);
  }

 private:
  UIEnv& target_;
};

// The UIEnv in force (UIEnv::Default() unless a ScopedUIEnv is active).
KORVEL_EXPORT UIEnv& uiEnv();

// Installs a UIEnv for its lifetime and restores the previous one afterwards.
class KORVEL_EXPORT ScopedUIEnv {
 public:
  explicit ScopedUIEnv(UIEnv& replacement);
  ~ScopedUIEnv();
  ScopedUIEnv(const ScopedUIEnv&) = delete;
  ScopedUIEnv& operator=(const ScopedUIEnv&) = delete;

 private:
  UIEnv* previous_;
};

}  // namespace korvel::ui
