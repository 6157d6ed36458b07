#include <korvel/network/KVNConfigurationManager.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <korvel/platform/KVNUserDefaults.h>
#include <korvel/network/URLCache.h>
#include "support/TestEnv.h"

namespace korvel {
namespace {

using namespace std::chrono_literals;

// A configuration server on 127.0.0.1 whose answer the test sets.
class ConfigServer {
 public:
  struct Seen {
    std::string target;
    std::optional<std::string> ifNoneMatch;
  };

  ConfigServer() {
    http_.Get(R"(/.*)", [this](const httplib::Request& req, httplib::Response& res) {
      std::lock_guard lock(mutex_);
      Seen seen{req.target, std::nullopt};
      if (req.has_header("If-None-Match")) seen.ifNoneMatch = req.get_header_value("If-None-Match");
      seen_.push_back(seen);
      if (etag_) res.set_header("ETag", *etag_);
      if (etag_ && seen.ifNoneMatch == etag_) {
        res.status = 304;
        return;
      }
      res.status = status_;
      res.set_content(body_, "application/json");
    });
    port_ = http_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { http_.listen_after_bind(); });
    // A stop before the loop runs would be lost.
    for (int i = 0; i < 5000 && !http_.is_running(); ++i) std::this_thread::sleep_for(1ms);
  }
  ~ConfigServer() {
    http_.stop();
    thread_.join();
  }

  std::string url(const std::string& path = "/configuration/v1/configure") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  void answer(int status, std::string body, std::optional<std::string> etag = std::nullopt) {
    std::lock_guard lock(mutex_);
    status_ = status;
    body_ = std::move(body);
    etag_ = std::move(etag);
  }
  std::vector<Seen> seen() const {
    std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  httplib::Server http_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;
  int status_ = 200;
  std::string body_ = "{}";
  std::optional<std::string> etag_;
  std::vector<Seen> seen_;
};

constexpr const char* kGoodConfiguration = R"({
  "inid": "SERVER-INID",
  "configured": true,
  "someFutureKey": {"ignored": [1, 2]},
  "beacons": {
    "beaconEndpoint": "https://beacons.test/{inid}",
    "beaconParameters": {"exp": "blue", "weight": 3, "ratio": 0.5, "on": true}
  }
})";

class KVNConfigurationManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scope_.emplace(env_);
    defaults_ = std::make_shared<KVNUserDefaults>(env_.documentsDirectory() + "/defaults.json");
    KVNUserDefaults::setSharedUserDefaults(defaults_);
    URLCache::sharedURLCache().removeAllCachedResponses();
    KVNConfigurationManager::setProductionConfigurationURL(server_.url());
    KVNConfigurationManager::setRequestTimeout(5s);
    KVNConfiguration::Snapshot start;
    start.inid = "OLD-INID";
    start.configured = false;
    start.beacons.beaconEndpoint = "https://old.test/b";
    start.beacons.beaconParameters.set("old", "1");
    KVNConfiguration::sharedInstance().replace(start);
  }
  void TearDown() override {
    KVNConfigurationManager::setProductionConfigurationURL(std::nullopt);
    KVNConfigurationManager::setRequestTimeout(10s);
    KVNUserDefaults::setSharedUserDefaults(nullptr);
    URLCache::sharedURLCache().removeAllCachedResponses();
  }

  // Forces a reconfiguration and waits for its completion.
  bool reconfigure() {
    auto done = std::make_shared<std::promise<bool>>();
    auto result = done->get_future();
    KVNConfigurationManager::forceReconfigureWithCompletion(
        [done](bool success) { done->set_value(success); });
    if (result.wait_for(20s) != std::future_status::ready) {
      ADD_FAILURE() << "no completion";
      return false;
    }
    return result.get();
  }

  std::shared_ptr<const KVNConfiguration::Snapshot> configuration() const {
    return KVNConfiguration::sharedInstance().snapshot();
  }
  std::optional<KVRDate> errorDate() const {
    return defaults_->dateForKey("kLastConfigurationErrorDate");
  }

  testing::TestEnv env_;
  std::optional<platform::ScopedEnv> scope_;
  std::shared_ptr<KVNUserDefaults> defaults_;
  ConfigServer server_;
};

// --- Success --------------------------------------------------------------

TEST_F(KVNConfigurationManagerTest, ASuccessfulFetchFromTheStoredURLElseProductionAppliesTheConfiguration) {
  // An old failure whose cool-down has ended.
  defaults_->setObject(KVRDate{env_.now() - 3600}, "kLastConfigurationErrorDate");
  server_.answer(200, kGoodConfiguration);
  EXPECT_TRUE(reconfigure());
  const auto c = configuration();
  EXPECT_EQ(c->inid, "SERVER-INID");
  EXPECT_TRUE(c->configured);
  EXPECT_EQ(c->beacons.beaconEndpoint, "https://beacons.test/{inid}");
  EXPECT_EQ(c->beacons.beaconParameters,
            (KVRParameters{{"exp", "blue"}, {"weight", 3}, {"ratio", 0.5}, {"on", true}}));
  EXPECT_EQ(errorDate(), std::nullopt);  // a success clears the failure

  defaults_->setObject(server_.url("/beta/configure?buckets=a,b"), "configurationURL");
  EXPECT_EQ(KVNConfigurationManager::configurationURL(), server_.url("/beta/configure?buckets=a,b"));
  ASSERT_TRUE(reconfigure());
  // An empty stored URL means production too.
  defaults_->setObject("", "configurationURL");
  ASSERT_TRUE(reconfigure());

  const auto seen = server_.seen();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].target, "/configuration/v1/configure");
  EXPECT_EQ(seen[1].target, "/beta/configure?buckets=a,b");
  EXPECT_EQ(seen[2].target, "/configuration/v1/configure");
}

TEST_F(KVNConfigurationManagerTest, RevalidatesTheCachedConfiguration) {
  server_.answer(200, R"({"inid": "CACHED"})", "\"v1\"");
  ASSERT_TRUE(reconfigure());
  ASSERT_TRUE(URLCache::sharedURLCache().cachedResponseForURL(server_.url()));

  // Unchanged on the server: it answers 304 and the cached body applies.
  KVNConfiguration::sharedInstance().setInid("SOMETHING-ELSE");
  server_.answer(200, R"({"inid": "NOT-SENT"})", "\"v1\"");
  ASSERT_TRUE(reconfigure());
  EXPECT_EQ(configuration()->inid, "CACHED");

  // With the cache cleared the request is unconditional again.
  URLCache::sharedURLCache().removeAllCachedResponses();
  ASSERT_TRUE(reconfigure());
  EXPECT_EQ(configuration()->inid, "NOT-SENT");

  const auto seen = server_.seen();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].ifNoneMatch, std::nullopt);
  EXPECT_EQ(seen[1].ifNoneMatch, "\"v1\"");
  EXPECT_EQ(seen[2].ifNoneMatch, std::nullopt);
}

// --- Failure ------------------------------------------------------------------

TEST_F(KVNConfigurationManagerTest, AFailedFetchLeavesTheConfigurationAndRecordsTheDate) {
  const std::vector<std::pair<std::string, std::pair<int, std::string>>> failures = {
      {"server error", {500, kGoodConfiguration}},
      {"not found", {404, kGoodConfiguration}},
      {"malformed JSON", {200, R"({"inid": "X", )"}},
      {"not an object", {200, R"(["inid", "X"])"}},
      {"inid not text", {200, R"({"inid": 7})"}},
      {"configured not a boolean", {200, R"({"inid": "X", "configured": "yes"})"}},
      {"beacons not an object", {200, R"({"inid": "X", "beacons": []})"}},
      {"endpoint not text", {200, R"({"inid": "X", "beacons": {"beaconEndpoint": 1}})"}},
      {"parameters not an object",
       {200, R"({"inid": "X", "beacons": {"beaconParameters": "a=b"}})"}},
      {"nested parameter",
       {200, R"({"inid": "X", "beacons": {"beaconParameters": {"a": {"b": 1}}}})"}},
      {"null parameter", {200, R"({"inid": "X", "beacons": {"beaconParameters": {"a": null}}})"}},
  };
  const auto before = configuration();
  for (const auto& [what, answer] : failures) {
    SCOPED_TRACE(what);
    defaults_->removeObjectForKey("kLastConfigurationErrorDate");
    env_.logs().clear();
    server_.answer(answer.first, answer.second);

    EXPECT_FALSE(reconfigure());
    EXPECT_EQ(configuration(), before);  // not even republished
    EXPECT_EQ(errorDate(), KVRDate{env_.now()});
    ASSERT_FALSE(env_.logs().records().empty());
    EXPECT_NE(env_.logs().records().back().message.find("Configuration fetch from " +
                                                        server_.url() + " failed"),
              std::string::npos);
  }
  EXPECT_EQ(server_.seen().size(), failures.size());
}

// A server that cannot be reached is a failure, and so is a URL that is
// not http.
TEST_F(KVNConfigurationManagerTest, AnUnreachableServerOrAURLNotHttpIsAFailure) {
  std::string deadURL;
  {
    ConfigServer gone;
    deadURL = gone.url();
  }
  for (const std::string& url : {deadURL, std::string("file:///etc/hostname")}) {
    SCOPED_TRACE(url);
    defaults_->removeObjectForKey("kLastConfigurationErrorDate");  // no cool-down
    defaults_->setObject(url, "configurationURL");
    EXPECT_FALSE(reconfigure());
    EXPECT_EQ(configuration()->inid, "OLD-INID");
    EXPECT_EQ(errorDate(), KVRDate{env_.now()});
  }
}

TEST_F(KVNConfigurationManagerTest, NothingIsFetchedDuringTheCoolDown) {
  server_.answer(500, "");
  ASSERT_FALSE(reconfigure());
  const auto failedAt = env_.now();
  EXPECT_EQ(KVNConfigurationManager::coolDownExpiryTime(),
            KVRDate{failedAt + KVNConfigurationManager::coolDownInterval()});

  server_.answer(200, kGoodConfiguration);
  env_.setNow(failedAt + KVNConfigurationManager::coolDownInterval() - 1);
  EXPECT_FALSE(reconfigure());
  EXPECT_EQ(server_.seen().size(), 1u);  // not asked again

  env_.setNow(failedAt + KVNConfigurationManager::coolDownInterval() + 1);
  EXPECT_TRUE(reconfigure());
  EXPECT_EQ(server_.seen().size(), 2u);
  EXPECT_EQ(KVNConfigurationManager::coolDownExpiryTime(), std::nullopt);
}

// --- Completions and threads ----------------------------------------------------

TEST_F(KVNConfigurationManagerTest, EveryCompletionIsCalledOnTheFetchingThread) {
  server_.answer(200, kGoodConfiguration);
  const auto caller = std::this_thread::get_id();
  constexpr int kCallers = 6;
  std::vector<std::promise<std::thread::id>> done(kCallers);
  std::vector<std::thread> threads;
  for (int i = 0; i < kCallers; ++i) {
    threads.emplace_back([&done, i] {
      KVNConfigurationManager::forceReconfigureWithCompletion([&done, i](bool success) {
        EXPECT_TRUE(success);
        done[i].set_value(std::this_thread::get_id());
      });
    });
  }
  for (auto& t : threads) t.join();
  for (auto& d : done) {
    auto f = d.get_future();
    ASSERT_EQ(f.wait_for(20s), std::future_status::ready);
    EXPECT_NE(f.get(), caller);
  }
  // Requests queued together share fetches.
  EXPECT_GE(server_.seen().size(), 1u);
  EXPECT_LE(server_.seen().size(), static_cast<size_t>(kCallers));
}

TEST_F(KVNConfigurationManagerTest, AThrowingCompletionDoesNotStopTheManager) {
  server_.answer(200, kGoodConfiguration);
  KVNConfigurationManager::forceReconfigureWithCompletion(
      [](bool) { throw std::runtime_error("host bug"); });
  KVNConfigurationManager::forceReconfigureWithCompletion({});  // no completion at all
  EXPECT_TRUE(reconfigure());
}

// --- The document ------------------------------------------------------------------

TEST(KVNConfigurationDocumentTest, KeysLeftOutKeepTheirValues) {
  KVNConfiguration configuration;
  configuration.update([](KVNConfiguration::Snapshot& s) {
    s.inid = "KEEP";
    s.beacons.beaconEndpoint = "https://keep.test";
    s.beacons.beaconParameters.set("keep", 1);
    s.korvelFrameworksRaiseExceptions = true;
  });
  ASSERT_TRUE(KVNConfigurationManager::applyConfigurationDocument("{}", configuration));
  auto s = configuration.snapshot();
  EXPECT_EQ(s->inid, "KEEP");
  EXPECT_TRUE(s->configured);  // a valid document configures
  EXPECT_EQ(s->beacons.beaconEndpoint, "https://keep.test");
  EXPECT_TRUE(s->korvelFrameworksRaiseExceptions);

  // A beacons object replaces the beacon settings as a whole.
  ASSERT_TRUE(KVNConfigurationManager::applyConfigurationDocument(
      R"({"configured": false, "korvelFrameworksRaiseExceptions": false,
          "beacons": {"beaconEndpoint": null}})",
      configuration));
  s = configuration.snapshot();
  EXPECT_FALSE(s->configured);
  EXPECT_FALSE(s->korvelFrameworksRaiseExceptions);
  EXPECT_EQ(s->beacons.beaconEndpoint, std::nullopt);
  EXPECT_TRUE(s->beacons.beaconParameters.empty());
}

TEST(KVNConfigurationDocumentTest, ParameterKindsArePreservedAndErrorsExplained) {
  KVNConfiguration configuration;
  ASSERT_TRUE(KVNConfigurationManager::applyConfigurationDocument(
      R"({"beacons": {"beaconParameters": {"s": "x", "i": -1, "u": 18446744073709551615,
                                            "d": 1.5, "b": false}}})",
      configuration));
  const auto& p = configuration.snapshot()->beacons.beaconParameters;
  EXPECT_EQ(p.keys(), (std::vector<std::string>{"s", "i", "u", "d", "b"}));  // as served
  EXPECT_EQ(*p.find("s"), KVRValue("x"));
  EXPECT_EQ(*p.find("i"), KVRValue(-1));
  EXPECT_EQ(*p.find("u"), KVRValue(uint64_t{18446744073709551615ull}));
  EXPECT_EQ(*p.find("d"), KVRValue(1.5));
  EXPECT_EQ(*p.find("b"), KVRValue(false));

  std::string error;
  EXPECT_FALSE(KVNConfigurationManager::applyConfigurationDocument(
      R"({"beacons": {"beaconParameters": {"list": [1]}}})", configuration, &error));
  EXPECT_EQ(error, "beacon parameter \"list\" is not text, a number or a boolean");
  EXPECT_FALSE(KVNConfigurationManager::applyConfigurationDocument("", configuration, &error));
  EXPECT_EQ(error, "the configuration is not valid JSON");
}

}  // namespace
}  // namespace korvel
