#include "support/TestEnv.h"

#include <stdlib.h>

#include <filesystem>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRUserSession.h>

namespace korvel::testing {

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
    std::string pattern =
        (std::filesystem::temp_directory_path() / "korvel-documents-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) documents_ = pattern;
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
  std::tm tm{};
  gmtime_r(&t, &tm);
  return tm;
}

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A plain application/x-www-form-urlencoded decoder, independent of the
// library's own percent-decoding.
std::string formDecode(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] == '%' && i + 2 < text.size() + 0 && hexValue(text[i + 1]) >= 0 &&
               hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace

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
  if (lastSlash != std::string::npos) beacon.event = formDecode(beacon.path.substr(lastSlash + 1));
  if (queryStart == std::string::npos) return beacon;
  std::string_view query(url);
  query.remove_prefix(queryStart + 1);
  while (!query.empty()) {
    const auto amp = query.find('&');
    std::string_view item = query.substr(0, amp);
    const auto eq = item.find('=');
    beacon.query.emplace_back(formDecode(item.substr(0, eq)),
                              eq == std::string_view::npos ? "" : formDecode(item.substr(eq + 1)));
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
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
