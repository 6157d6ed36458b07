// The seam between the library and the system it runs on.
//
// Every operating-system service the library uses (wall and monotonic time,
// UUIDs, the bundle identity, the notification centre, logging, the background
// request executor, ...) is reached through the current Env. Env::Default()
// is the real Linux implementation; tests install their own with ScopedEnv,
// usually an EnvWrapper subclass that overrides only what the test controls.
//
// The current Env is swapped only while no report is in flight (test set-up
// and tear-down); reads are a single atomic load.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "platform/Application.h"
#include "platform/AudioPlayer.h"

namespace korvel {
class KVNNetworkBackgroundRequestExecutor;
}

namespace korvel::platform {

class NotificationCenter;
class LogSink;
class MainQueue;

class Env {
 public:
  virtual ~Env() = default;

  // The real implementation for this machine; lives for the process.
  static Env& Default();

  // Wall clock: seconds since 1970-01-01 00:00:00 UTC, with fraction.
  virtual double now() = 0;
  // Monotonic clock in nanoseconds; never jumps backwards.
  virtual uint64_t monotonicNanos() = 0;
  // A fresh random (version 4) UUID as canonical upper-case text.
  virtual std::string makeUUIDString() = 0;
  // The host application's bundle identifier, when it has one.
  virtual std::optional<std::string> mainBundleIdentifier() = 0;
  // The process notification centre.
  virtual NotificationCenter& notificationCenter() = 0;
  // Where log records go.
  virtual LogSink& logSink() = 0;
  // Makes the background request executor for a session identifier.
  virtual std::shared_ptr<KVNNetworkBackgroundRequestExecutor> makeBackgroundExecutor(
      const std::string& sessionIdentifier) = 0;
  // Whether the application is active, inactive or in the background.
  virtual ApplicationState applicationState() = 0;
  // The device's current orientation.
  virtual DeviceOrientation deviceOrientation() = 0;
  // The broken-down local time (the machine's time zone) of an instant.
  virtual std::tm localTime(double secondsSince1970) = 0;
  // The queue of work for the host's main (UI) thread.
  virtual MainQueue& mainQueue() = 0;
  // The user's documents directory (where debug files are kept).
  virtual std::string documentsDirectory() = 0;
  // A player for the audio file at path; null when it cannot be read.
  virtual std::unique_ptr<AudioPlayer> makeAudioPlayer(const std::string& path) = 0;
};

// Forwards every call to a target Env; subclass it to override a few services.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env& target) : target_(target) {}
  Env& target() const { return target_; }

  double now() override { return target_.now(); }
  uint64_t monotonicNanos() override { return target_.monotonicNanos(); }
  std::string makeUUIDString() override { return target_.makeUUIDString(); }
  std::optional<std::string> mainBundleIdentifier() override {
    return target_.mainBundleIdentifier();
  }
  NotificationCenter& notificationCenter() override { return target_.notificationCenter(); }
  LogSink& logSink() override { return target_.logSink(); }
  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> makeBackgroundExecutor(
      const std::string& sessionIdentifier) override {
    return target_.makeBackgroundExecutor(sessionIdentifier);
  }
  ApplicationState applicationState() override { return target_.applicationState(); }
  DeviceOrientation deviceOrientation() override { return target_.deviceOrientation(); }
  std::tm localTime(double secondsSince1970) override {
    return target_.localTime(secondsSince1970);
  }
  MainQueue& mainQueue() override { return target_.mainQueue(); }
  std::string documentsDirectory() override { return target_.documentsDirectory(); }
  std::unique_ptr<AudioPlayer> makeAudioPlayer(const std::string& path) override {
    return target_.makeAudioPlayer(path);
  }

 private:
  Env& target_;
};

// The Env in force (Env::Default() unless a ScopedEnv is active).
Env& env();

// Installs an Env for its lifetime and restores the previous one afterwards.
class ScopedEnv {
 public:
  explicit ScopedEnv(Env& replacement);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  Env* previous_;
};

// Sets the bundle identifier the default Env reports (a Linux process has
// none of its own; the host names itself here, before starting the library).
void setMainBundleIdentifier(std::optional<std::string> identifier);

// Canonical upper-case text of a random version-4 UUID, from the kernel's
// random source (buffered, so one call costs far less than one syscall).
std::string makeRandomUUIDString();

}  // namespace korvel::platform
