#include <korvel/ui/AudioPlayer.h>

#ifdef KORVEL_HAVE_SDL2

#include <SDL.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <utility>

#include <korvel/platform/Env.h>
#include <korvel/platform/Logging.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/UIEnv.h>

using korvel::platform::env;
using korvel::platform::LogLevel;
using korvel::platform::Logger;

namespace korvel::ui {
namespace {

Logger audioLogger() {
  return Logger(env().mainBundleIdentifier().value_or("Unknown bundle"), "Audio");
}

// SDL reads the whole WAVE into memory (the debug recordings are a few
// seconds long) and opens the output device with the file's own format, so
// SDL converts to whatever the hardware wants and the callback only copies
// bytes. The position is a byte offset into the file's samples.
//
// Threads: the public interface is main-thread only; the device callback runs
// on SDL's audio thread while SDL holds the device lock, which play(), stop()
// and setCurrentTime() take too. Reads of position and state are atomic so
// currentTime() and isPlaying() never wait for the audio thread.
class SdlAudioPlayer final : public AudioPlayer {
 public:
  static std::unique_ptr<AudioPlayer> load(const std::string& path) {
    SDL_AudioSpec spec{};
    Uint8* samples = nullptr;
    Uint32 length = 0;
    if (SDL_LoadWAV(path.c_str(), &spec, &samples, &length) == nullptr) return nullptr;
    const int frameBytes = SDL_AUDIO_BITSIZE(spec.format) / 8 * spec.channels;
    if (frameBytes <= 0 || spec.freq <= 0) {
      SDL_FreeWAV(samples);
      return nullptr;
    }
    return std::unique_ptr<AudioPlayer>(new SdlAudioPlayer(path, spec, samples, length,
                                                           static_cast<uint32_t>(frameBytes)));
  }

  ~SdlAudioPlayer() override {
    // Closing joins the audio thread, so no callback runs past this point;
    // dropping the anchor then turns any queued end notice into a no-op.
    if (device_ != 0) SDL_CloseAudioDevice(device_);
    if (audioInitialised_) SDL_QuitSubSystem(SDL_INIT_AUDIO);
    anchor_.reset();
    SDL_FreeWAV(samples_);
  }

  bool play() override {
    if (device_ == 0) return false;
    SDL_LockAudioDevice(device_);
    if (position_.load() >= length_) position_.store(0);
    playing_.store(true);
    generation_.fetch_add(1);
    SDL_UnlockAudioDevice(device_);
    SDL_PauseAudioDevice(device_, 0);
    return true;
  }

  void stop() override {
    if (device_ == 0) return;
    SDL_LockAudioDevice(device_);
    playing_.store(false);
    generation_.fetch_add(1);
    SDL_UnlockAudioDevice(device_);
    SDL_PauseAudioDevice(device_, 1);
  }

  bool isPlaying() const override { return playing_.load(); }

  double currentTime() const override {
    return static_cast<double>(position_.load()) / bytesPerSecond();
  }

  void setCurrentTime(double seconds) override {
    if (!std::isfinite(seconds) || seconds < 0) seconds = 0;
    seconds = std::min(seconds, duration());
    // Whole frames only, or channels and sample bytes would slip.
    const uint64_t frame = static_cast<uint64_t>(seconds * spec_.freq);
    const uint32_t offset =
        static_cast<uint32_t>(std::min<uint64_t>(frame * frameBytes_, length_));
    if (device_ != 0) SDL_LockAudioDevice(device_);
    position_.store(offset);
    generation_.fetch_add(1);
    if (device_ != 0) SDL_UnlockAudioDevice(device_);
  }

  double duration() const override { return static_cast<double>(length_) / bytesPerSecond(); }

 private:
  struct Anchor {
    SdlAudioPlayer* player;
  };

  SdlAudioPlayer(const std::string& path, const SDL_AudioSpec& spec, Uint8* samples,
                 Uint32 length, uint32_t frameBytes)
      : spec_(spec),
        samples_(samples),
        length_(length - length % frameBytes),
        frameBytes_(frameBytes),
        anchor_(std::make_shared<Anchor>(Anchor{this})),
        weakAnchor_(anchor_) {
    if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
      audioLogger().log(LogLevel::Error, "No audio output (" + std::string(SDL_GetError()) +
                                             "); " + path + " will not play");
      return;
    }
    audioInitialised_ = true;
    SDL_AudioSpec desired = spec_;
    desired.samples = 1024;
    desired.callback = &SdlAudioPlayer::fill;
    desired.userdata = this;
    SDL_AudioSpec obtained{};
    device_ = SDL_OpenAudioDevice(nullptr, 0, &desired, &obtained, 0);
    if (device_ == 0) {
      audioLogger().log(LogLevel::Error, "Cannot open the audio output (" +
                                             std::string(SDL_GetError()) + "); " + path +
                                             " will not play");
    }
  }

  double bytesPerSecond() const { return static_cast<double>(spec_.freq) * frameBytes_; }

  static void SDLCALL fill(void* userdata, Uint8* stream, int length) {
    static_cast<SdlAudioPlayer*>(userdata)->fill(stream, static_cast<uint32_t>(length));
  }

  // Audio thread, under the device lock.
  void fill(Uint8* out, uint32_t length) {
    uint32_t copied = 0;
    if (playing_.load()) {
      const uint32_t position = position_.load();
      copied = std::min(length, length_ - position);
      std::memcpy(out, samples_ + position, copied);
      position_.store(position + copied);
    }
    std::memset(out + copied, spec_.silence, length - copied);
    if (playing_.load() && position_.load() >= length_) {
      // Played to the end: back to the start, as a player that finished
      // plays again from the beginning. The owner hears of it on the main
      // queue, unless it played, stopped or moved in the meantime.
      playing_.store(false);
      position_.store(0);
      const uint64_t generation = generation_.load();
      uiEnv().mainQueue().async([anchor = weakAnchor_, generation] {
        if (auto alive = anchor.lock()) alive->player->reachedEnd(generation);
      });
    }
  }

  // Main thread.
  void reachedEnd(uint64_t generation) {
    if (generation != generation_.load() || playing_.load()) return;
    SDL_PauseAudioDevice(device_, 1);
    if (finishedPlaying) finishedPlaying();
  }

  const SDL_AudioSpec spec_;
  Uint8* const samples_;
  const uint32_t length_;
  const uint32_t frameBytes_;
  bool audioInitialised_ = false;
  SDL_AudioDeviceID device_ = 0;
  std::atomic<uint32_t> position_{0};
  std::atomic<bool> playing_{false};
  std::atomic<uint64_t> generation_{0};
  std::shared_ptr<Anchor> anchor_;
  const std::weak_ptr<Anchor> weakAnchor_;
};

}  // namespace

std::unique_ptr<AudioPlayer> makeDefaultAudioPlayer(const std::string& path) {
  return SdlAudioPlayer::load(path);
}

}  // namespace korvel::ui

#else  // no SDL2: nothing on this machine can play audio

namespace korvel::ui {

std::unique_ptr<AudioPlayer> makeDefaultAudioPlayer(const std::string&) { return nullptr; }

}  // namespace korvel::ui

#endif
