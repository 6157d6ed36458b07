// Plays one recorded audio file (the debug recordings the tag information
// screen offers). The default implementation plays WAVE files through the
// machine's audio output (SDL2); where there is no audio output it still
// prepares, and play() answers false.
//
// Main thread only, like the screens that use it. finishedPlaying is called
// on the Env's main queue when playback reaches the end of the file.
#pragma once

#include <korvel/export.h>

#include <functional>
#include <memory>
#include <string>

namespace korvel::ui {

class KORVEL_EXPORT AudioPlayer {
 public:
  virtual ~AudioPlayer() = default;

  // Starts playing from the current position; false when it cannot play.
  virtual bool play() = 0;
  // Stops playing and keeps the position (a later play() resumes there).
  virtual void stop() = 0;
  virtual bool isPlaying() const = 0;
  // The playback position in seconds from the start of the file.
  virtual double currentTime() const = 0;
  virtual void setCurrentTime(double seconds) = 0;
  // Length of the recording in seconds.
  virtual double duration() const = 0;

  // Told when playback reached the end by itself (not after stop()).
  std::function<void()> finishedPlaying;
};

// The real player for the file at path: null when the file cannot be read
// as audio. Env::Default() makes its players with it.
KORVEL_EXPORT std::unique_ptr<AudioPlayer> makeDefaultAudioPlayer(const std::string& path);

}  // namespace korvel::ui
