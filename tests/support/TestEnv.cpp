#include "support/TestEnv.h"

#include <cstdlib>
#include <filesystem>
#include <random>

#include <korvel/foundation/internal/CivilTime.h>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRUserSession.h>
#include "collector/FormDecoding.h"

namespace korvel::testing {

namespace {
void setVariable(const std::string& name, const std::optional<std::string>& value) {
#if defined(_WIN32)
  // An empty value removes the variable.
  _putenv_s(name.c_str(), value ? value->c_str() : "");
#else
  if (value) {
    setenv(name.c_str(), value->c_str(), 1);
  } else {
    unsetenv(name.c_str());
  }
#endif
}
}  // namespace

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name,
                                                     const std::optional<std::string>& value)
    : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) previous_ = old;
  setVariable(name_, value);
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable() { setVariable(name_, previous_); }

std::filesystem::path makeTemporaryFolder(const std::string& prefix) {
  static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  thread_local std::mt19937_64 random(std::random_device{}());
  std::error_code ec;
  const std::filesystem::path base = std::filesystem::temp_directory_path(ec);
  if (ec) return {};
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = prefix + "-";
    for (int i = 0; i < 6; ++i) name += kLetters[random() % (sizeof kLetters - 1)];
    const std::filesystem::path folder = base / name;
    if (std::filesystem::create_directory(folder, ec)) {
      std::filesystem::permissions(folder, std::filesystem::perms::owner_all, ec);  // 0700
      return folder;
    }
    if (ec) return {};
  }
  return {};
}

void CapturingLogSink::write(const platform::LogRecord& record) {
  std::lock_guard lock(mutex_);
  records_.push_back(record);
}

std::vector<platform::LogRecord> CapturingLogSink::records() const {
  std::lock_guard lock(mutex_);
  return records_;
}

std::vector<std::string> CapturingLogSink::messages() const {
  std::vector<std::string> out;
  for (const auto& r : records()) out.push_back(r.message);
  return out;
}

size_t CapturingLogSink::messagesContaining(std::string_view text) const {
  size_t count = 0;
  for (const auto& r : records()) count += r.message.find(text) != std::string::npos;
  return count;
}

void CapturingLogSink::clear() {
  std::lock_guard lock(mutex_);
  records_.clear();
}

void CapturingExecutor::executeRequest(KVNNetworkRequest request) noexcept {
  std::lock_guard lock(mutex_);
  requests_.push_back(std::move(request));
}

size_t CapturingExecutor::count() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

std::vector<KVNNetworkRequest> CapturingExecutor::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::string CapturingExecutor::urlAt(size_t i) const {
  const auto all = requests();
  if (i >= all.size()) return {};
  auto endpoint = all[i].buildEndpoint();
  return endpoint ? endpoint->urlString() : std::string();
}

std::vector<std::string> CapturingExecutor::urls() const {
  std::vector<std::string> out;
  for (const auto& request : requests()) {
    auto endpoint = request.buildEndpoint();
    out.push_back(endpoint ? endpoint->urlString() : std::string());
  }
  return out;
}

void CapturingExecutor::clear() {
  std::lock_guard lock(mutex_);
  requests_.clear();
}

std::string TestEnv::makeUUIDString() {
  {
    std::lock_guard lock(mutex_);
    if (!uuids_.empty()) {
      std::string next = std::move(uuids_.front());
      uuids_.pop_front();
      return next;
    }
  }
  return platform::makeRandomUUIDString();
}

void TestEnv::queueUUIDs(std::vector<std::string> uuids) {
  std::lock_guard lock(mutex_);
  for (auto& u : uuids) uuids_.push_back(std::move(u));
}

std::optional<std::string> TestEnv::mainBundleIdentifier() {
  std::lock_guard lock(mutex_);
  return bundleIdentifier_;
}

void TestEnv::setMainBundleIdentifier(std::optional<std::string> identifier) {
  std::lock_guard lock(mutex_);
  bundleIdentifier_ = std::move(identifier);
}

std::string TestEnv::documentsDirectory() {
  std::lock_guard lock(mutex_);
  if (documents_.empty()) {
    documents_ = makeTemporaryFolder("korvel-documents").string();
  }
  return documents_;
}

TestEnv::~TestEnv() {
  if (!documents_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(documents_, ignored);
  }
}

std::tm TestEnv::localTime(double secondsSince1970) {
  const auto t = static_cast<time_t>(secondsSince1970) + utcOffset_.load();
  return foundation::internal::utcCalendarTime(static_cast<int64_t>(t)).value_or(std::tm{});
}

WireBeacon decodeWireBeacon(const std::string& url) {
  WireBeacon beacon;
  beacon.url = url;
  const auto schemeEnd = url.find("://");
  const auto pathStart = url.find('/', schemeEnd == std::string::npos ? 0 : schemeEnd + 3);
  const auto queryStart = url.find('?');
  if (pathStart != std::string::npos) {
    beacon.path = url.substr(pathStart, queryStart == std::string::npos
                                            ? std::string::npos
                                            : queryStart - pathStart);
  }
  const auto lastSlash = beacon.path.rfind('/');
  if (lastSlash != std::string::npos) {
    beacon.event = tools::formDecode(beacon.path.substr(lastSlash + 1), false);
  }
  if (queryStart != std::string::npos) {
    beacon.query = tools::formDecodeQuery(std::string_view(url).substr(queryStart + 1));
  }
  return beacon;
}

std::vector<std::pair<std::string, std::string>> WireBeacon::parameters() const {
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& item : query) {
    if (item.first == KVRBeaconCreationTimestampKey || item.first == KVRBeaconUUIDKey) continue;
    out.push_back(item);
  }
  return out;
}

std::optional<std::string> WireBeacon::value(const std::string& key) const {
  for (const auto& item : query) {
    if (item.first == key) return item.second;
  }
  return std::nullopt;
}

void BeaconTest::SetUp() {
  scope_.emplace(env_);
  KVNConfiguration::Snapshot config;
  config.inid = "TEST-INID";
  config.configured = true;
  config.deviceModel = "TestDevice1,1";
  config.beacons.beaconEndpoint = kEndpoint;
  KVNConfiguration::sharedInstance().replace(config);
  KVNConfiguration::setAppShortVersion("9.9");
  KVNConfiguration::setDeviceOSBuildNumber(std::nullopt);

  executor_ = std::make_shared<CapturingExecutor>();
  KVRBeacon::setBackgroundSession(executor_);

  KVRUserSession::setUserSessionDelegate(nullptr);
  KVRUserSession::setSessionID(std::nullopt);
  if (!KVRUserSession::sessionParameters().empty()) {
    // Ending the session is the only way to empty its parameters; its
    // beacon goes to the executor we clear below.
    KVRUserSession::endSession();
  }
  executor_->clear();

  submittedObserver_ = platform::ObserverRegistration(
      env_.notificationCenter(),
      env_.notificationCenter().addObserver(
          std::string(KVRReliableNetworkingTaskSubmittedNotification),
          [this](const platform::Notification& n) {
            auto task = std::any_cast<std::shared_ptr<const KVRReliableNetworkingTask>>(&n.object);
            if (task == nullptr) return;
            std::lock_guard lock(mutex_);
            submitted_.push_back(*task);
          }));
}

void BeaconTest::TearDown() {
  submittedObserver_.reset();
  KVRUserSession::unload();
  KVRUserSession::setUserSessionDelegate(nullptr);
  KVRBeacon::setBackgroundSession(nullptr);
  scope_.reset();
}

std::vector<std::shared_ptr<const KVRReliableNetworkingTask>> BeaconTest::submitted() const {
  std::lock_guard lock(mutex_);
  return submitted_;
}

std::vector<WireBeacon> BeaconTest::sent() const {
  std::vector<WireBeacon> out;
  for (const auto& url : executor_->urls()) out.push_back(decodeWireBeacon(url));
  return out;
}

WireBeacon BeaconTest::onlySent() const {
  const auto all = sent();
  EXPECT_EQ(all.size(), 1u) << "expected exactly one beacon";
  return all.empty() ? WireBeacon{} : all.front();
}

}  // namespace korvel::testing
