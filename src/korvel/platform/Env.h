// The seam between the library and the system it runs on.
//
// Every operating-system service the library uses (wall and monotonic time,
// UUIDs, the bundle identity, the notification centre, logging, files, the
// background request executor, the application's life-cycle state) is reached
// through the current Env. Services only the screens and debug tools use (the
// main queue, audio) are not here: they sit behind ui::UIEnv, one layer up. Env::Default()
// is the real Linux implementation; tests install their own with ScopedEnv,
// usually an EnvWrapper subclass that overrides only what the test controls.
//
// The current Env is swapped only while no report is in flight (test set-up
// and tear-down); reads are a single atomic load.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include <functional>

#include <korvel/platform/Application.h>

namespace korvel {
class KVNNetworkBackgroundRequestExecutor;
}

namespace korvel::platform {

class NotificationCenter;
class LogSink;

class KORVEL_EXPORT Env {
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
  // The user's documents directory (where debug files are kept).
  virtual std::string documentsDirectory() = 0;
};

// Forwards every call to a target Env; subclass it to override a few services.
class KORVEL_EXPORT EnvWrapper : public Env {
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
  std::string documentsDirectory() override { return target_.documentsDirectory(); }

 private:
  Env& target_;
};

// The Env in force (Env::Default() unless a ScopedEnv is active).
KORVEL_EXPORT Env& env();

// Installs an Env for its lifetime and restores the previous one afterwards.
class KORVEL_EXPORT ScopedEnv {
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
KORVEL_EXPORT void setMainBundleIdentifier(std::optional<std::string> identifier);

// How the default Env makes background executors. The host layer
// (korvel/Korvel.h) installs one when the program is loaded that keeps the
// beacons reported before Reporting::start() in memory until start hands
// them over; without it (a program that does not link Reporting) the beacon
// library installs its durable executor here before it first asks for one
// (this layer can name neither). A host may install its own before
// reporting. Without one, the default Env makes no executor and beacons are
// not sent.
using BackgroundExecutorFactory = std::function<std::shared_ptr<KVNNetworkBackgroundRequestExecutor>(
    const std::string& sessionIdentifier)>;
KORVEL_EXPORT void setDefaultBackgroundExecutorFactory(BackgroundExecutorFactory factory);
// Installs factory only when none is installed yet; true when it did.
KORVEL_EXPORT bool installDefaultBackgroundExecutorFactoryIfNone(BackgroundExecutorFactory factory);

// Canonical upper-case text of a random version-4 UUID, from the kernel's
// random source (buffered, so one call costs far less than one syscall).
KORVEL_EXPORT std::string makeRandomUUIDString();

}  // namespace korvel::platform
