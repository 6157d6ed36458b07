// Test doubles for the platform seam and a fixture that puts the library in a
// known state: a fresh notification centre, a settable clock, captured logs,
// a known configuration and an executor that captures every request.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/foundation/KVRParameters.h>
#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/KVNNetwork.h>
#include <korvel/platform/Logging.h>
#include <korvel/platform/NotificationCenter.h>

namespace korvel::testing {

// Sets an environment variable (or, given nothing, removes it) until the end
// of the scope, when its old value comes back.
class ScopedEnvironmentVariable {
 public:
  ScopedEnvironmentVariable(std::string name, const std::optional<std::string>& value);
  ~ScopedEnvironmentVariable();
  ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
  ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

// The variable that moves the folder where the library keeps the user's
// settings: XDG_CONFIG_HOME, LOCALAPPDATA on Windows.
// And the one for its data (XDG_DATA_HOME; LOCALAPPDATA too on Windows).
#if defined(_WIN32)
inline constexpr const char* kConfigFolderVariable = "LOCALAPPDATA";
inline constexpr const char* kDataFolderVariable = "LOCALAPPDATA";
#else
inline constexpr const char* kConfigFolderVariable = "XDG_CONFIG_HOME";
inline constexpr const char* kDataFolderVariable = "XDG_DATA_HOME";
#endif

// A new, empty folder "<temporary folder>/<prefix>-XXXXXX" (random
// letters); empty when none could be made.
std::filesystem::path makeTemporaryFolder(const std::string& prefix);

// Keeps every log record.
class CapturingLogSink : public platform::LogSink {
 public:
  void write(const platform::LogRecord& record) override;
  std::vector<platform::LogRecord> records() const;
  std::vector<std::string> messages() const;
  // How many messages contain text.
  size_t messagesContaining(std::string_view text) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<platform::LogRecord> records_;
};

// Keeps every request; builds URLs only when asked, as an executor does
// when it sends.
class CapturingExecutor : public KVNNetworkBackgroundRequestExecutor {
 public:
  explicit CapturingExecutor(std::string identifier = "test.backgroundBeacons")
      : identifier_(std::move(identifier)) {}

  const std::string& backgroundSessionIdentifier() const override { return identifier_; }
  void executeRequest(KVNNetworkRequest request) noexcept override;
  bool flush(std::chrono::milliseconds) override { return true; }

  size_t count() const;
  std::vector<KVNNetworkRequest> requests() const;
  // The URL of request i, built now.
  std::string urlAt(size_t i) const;
  std::vector<std::string> urls() const;
  void clear();

 private:
  std::string identifier_;
  mutable std::mutex mutex_;
  std::vector<KVNNetworkRequest> requests_;
};

// An Env whose time, UUIDs, bundle identifier, application state and
// orientation the test sets (screens add a TestUIEnv, support/TestUIEnv.h); it has its own notification centre and log sink.
class TestEnv : public platform::EnvWrapper {
 public:
  TestEnv() : EnvWrapper(platform::Env::Default()) {}

  double now() override { return now_.load(); }
  void setNow(double secondsSince1970) { now_ = secondsSince1970; }

  uint64_t monotonicNanos() override { return monotonic_.load(); }
  void setMonotonicNanos(uint64_t nanos) { monotonic_ = nanos; }
  void advanceMonotonic(uint64_t nanos) { monotonic_ += nanos; }

  // Random UUIDs unless the test queued its own.
  std::string makeUUIDString() override;
  void queueUUIDs(std::vector<std::string> uuids);

  std::optional<std::string> mainBundleIdentifier() override;
  void setMainBundleIdentifier(std::optional<std::string> identifier);

  platform::NotificationCenter& notificationCenter() override { return center_; }
  platform::LogSink& logSink() override { return logs_; }
  CapturingLogSink& logs() { return logs_; }

  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> makeBackgroundExecutor(
      const std::string& identifier) override {
    return std::make_shared<CapturingExecutor>(identifier);
  }

  platform::ApplicationState applicationState() override { return state_.load(); }
  void setApplicationState(platform::ApplicationState s) { state_ = s; }

  platform::DeviceOrientation deviceOrientation() override { return orientation_.load(); }
  void setDeviceOrientation(platform::DeviceOrientation o) { orientation_ = o; }

  // A fresh temporary directory per TestEnv, removed with it.
  std::string documentsDirectory() override;

  // Local time is UTC shifted by a fixed offset the test sets (0 by default).
  std::tm localTime(double secondsSince1970) override;
  void setUTCOffsetSeconds(long offset) { utcOffset_ = offset; }


 private:
  std::atomic<double> now_{1'700'000'000.0};
  std::atomic<uint64_t> monotonic_{1'000'000'000};
  std::mutex mutex_;
  std::deque<std::string> uuids_;
  std::optional<std::string> bundleIdentifier_ = "com.korvel.tests";
  platform::NotificationCenter center_;
  CapturingLogSink logs_;
  std::atomic<platform::ApplicationState> state_{platform::ApplicationState::Active};
  std::atomic<platform::DeviceOrientation> orientation_{platform::DeviceOrientation::Unknown};
  std::atomic<long> utcOffset_{0};
  std::string documents_;

 public:
  ~TestEnv() override;
};

// A beacon as it went out: decoded from its URL.
struct WireBeacon {
  std::string url;
  std::string path;   // percent-encoded, without the query
  std::string event;  // the last path component, decoded
  std::vector<std::pair<std::string, std::string>> query;  // decoded, in order

  // The query items other than clientcreationtimestamp and clientbeaconuuid.
  std::vector<std::pair<std::string, std::string>> parameters() const;
  std::optional<std::string> value(const std::string& key) const;
};

// Decodes a URL's path and query with a plain form decoder ("+" is a space).
WireBeacon decodeWireBeacon(const std::string& url);

// Installs a TestEnv and a capturing executor and resets the shared
// configuration and session so that a beacon carries nothing but its own
// parameters: no session id, no OS version or build, no server parameters.
class BeaconTest : public ::testing::Test {
 protected:
  static constexpr const char* kEndpoint =
      "https://beacons.test/b/{inid}/{appversion}/{devicemodel}";

  void SetUp() override;
  void TearDown() override;

  // Records of the beacons submitted since SetUp, in order.
  std::vector<std::shared_ptr<const KVRReliableNetworkingTask>> submitted() const;
  // The wire form of every beacon sent since SetUp, in order.
  std::vector<WireBeacon> sent() const;
  // The one beacon sent since SetUp (fails the test when there is not one).
  WireBeacon onlySent() const;

  TestEnv env_;
  std::shared_ptr<CapturingExecutor> executor_;

 private:
  std::optional<platform::ScopedEnv> scope_;
  platform::ObserverRegistration submittedObserver_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<const KVRReliableNetworkingTask>> submitted_;
};

}  // namespace korvel::testing
