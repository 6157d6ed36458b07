#include <korvel/debug/KVRDebugConfiguration.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <future>
#include <tuple>
#include <vector>

#include "collector/ConfigurationEndpoint.h"
#include <korvel/network/KVNConfigurationManager.h>
#include <korvel/network/KVNRetryHandler.h>
#include <korvel/platform/KVNUserDefaults.h>
#include <korvel/foundation/URLComponents.h>
#include "support/TestEnv.h"

namespace korvel {
namespace {

using namespace std::chrono_literals;

class FixedExpiryHandler : public KVNRetryHandler {
 public:
  explicit FixedExpiryHandler(std::optional<KVRDate> expiry) : expiry_(expiry) {}
  std::optional<KVRDate> coolDownExpiryTime() const override { return expiry_; }

 private:
  std::optional<KVRDate> expiry_;
};

class KVRDebugConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scope_.emplace(env_);
    defaults_ = std::make_shared<KVNUserDefaults>(env_.documentsDirectory() + "/defaults.json");
    KVNUserDefaults::setSharedUserDefaults(defaults_);
  }
  void TearDown() override {
    // Back to the manager's own handler.
    KVNRetryHandlerRegistry::registerFactory(
        "KVNConfigRetryHandler", [] { return std::make_unique<KVNConfigRetryHandler>(); });
    KVRDebugConfiguration::setProductionConfigurationEndpoint(std::nullopt);
    KVRDebugConfiguration::setBetaConfigurationEndpoint(std::nullopt);
    KVNUserDefaults::setSharedUserDefaults(nullptr);
  }

  KVRDebugConfiguration& config() { return KVRDebugConfiguration::sharedInstance(); }

  testing::TestEnv env_;
  std::optional<platform::ScopedEnv> scope_;
  std::shared_ptr<KVNUserDefaults> defaults_;
};

TEST_F(KVRDebugConfigurationTest, TheBuiltInEndpointsDifferOnlyInTheirHost) {
  std::vector<std::string> hosts;
  for (const char* text : {KVRDebugConfiguration::kDefaultProductionConfigurationEndpoint,
                           KVRDebugConfiguration::kDefaultBetaConfigurationEndpoint}) {
    auto url = URLComponents::parse(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(std::tuple(url->scheme(), url->percentEncodedPath(), url->percentEncodedQuery()),
              std::tuple("https", "/configuration/v1/configure", std::nullopt)) << text;
    hosts.push_back(url->host());
  }
  EXPECT_NE(hosts[0], hosts[1]);
  // The manager falls back to the very same production endpoint.
  EXPECT_STREQ(KVRDebugConfiguration::kDefaultProductionConfigurationEndpoint,
               KVNConfigurationManager::kDefaultProductionConfigurationURL);
}

TEST_F(KVRDebugConfigurationTest, WithNothingStoredTheURLIsProduction) {
  EXPECT_EQ(config().configUrlString(), KVRDebugConfiguration::productionConfigurationEndpoint());
  defaults_->setObject("https://elsewhere.test/c", "configurationURL");
  EXPECT_EQ(config().configUrlString(), "https://elsewhere.test/c");
}

TEST_F(KVRDebugConfigurationTest, SettingTheURLClearsTheLastErrorAndFetchesAtOnce) {
  tools::ConfigurationEndpoint endpoint(R"({"inid": "FROM-SET-URL"})");
  ASSERT_TRUE(endpoint.start());
  // A failure a moment ago: the manager would be cooling down.
  defaults_->setObject(KVRDate{env_.now()}, "kLastConfigurationErrorDate");
  KVNConfiguration::sharedInstance().setInid("BEFORE");

  std::promise<bool> done;
  config().setConfigUrlString(endpoint.url() + "?buckets=x",
                              [&done](bool success) { done.set_value(success); });
  // Stored and cleared before the fetch is even done.
  EXPECT_EQ(defaults_->stringForKey("configurationURL"), endpoint.url() + "?buckets=x");
  auto result = done.get_future();
  ASSERT_EQ(result.wait_for(20s), std::future_status::ready);
  EXPECT_TRUE(result.get());
  EXPECT_EQ(config().inid(), "FROM-SET-URL");
  EXPECT_TRUE(config().isConfigured());
  EXPECT_EQ(&config().networkingConfiguration(), &KVNConfiguration::sharedInstance());
  EXPECT_EQ(config().userDefaults(), defaults_);
  EXPECT_FALSE(defaults_->objectForKey("kLastConfigurationErrorDate"));
  EXPECT_EQ(endpoint.requestTargets(),
            (std::vector<std::string>{"/configuration/v1/configure?buckets=x"}));
}

TEST_F(KVRDebugConfigurationTest, AFailedFetchKeepsTheChosenURL) {
  tools::ConfigurationEndpoint endpoint;
  ASSERT_TRUE(endpoint.start());
  endpoint.failNext(1, 503);
  std::promise<bool> done;
  config().setConfigUrlString(endpoint.url(), [&done](bool success) { done.set_value(success); });
  auto result = done.get_future();
  ASSERT_EQ(result.wait_for(20s), std::future_status::ready);
  EXPECT_FALSE(result.get());
  EXPECT_EQ(config().configUrlString(), endpoint.url());
  EXPECT_EQ(defaults_->dateForKey("kLastConfigurationErrorDate"), KVRDate{env_.now()});
}

// --- Cool-down ------------------------------------------------------------------

TEST_F(KVRDebugConfigurationTest, CoolDownCountsDownFromTheLastFailure) {
  EXPECT_EQ(config().currentConfigCoolDownTime(), 0) << "no failure, no expiry date";
  const double interval = KVNConfigurationManager::coolDownInterval();
  defaults_->setObject(KVRDate{env_.now() - 10}, "kLastConfigurationErrorDate");
  EXPECT_DOUBLE_EQ(config().currentConfigCoolDownTime(), interval - 10);
  env_.setNow(env_.now() + interval);
  EXPECT_DOUBLE_EQ(config().currentConfigCoolDownTime(), -10);  // ended ten seconds ago
}

TEST_F(KVRDebugConfigurationTest, CoolDownIsZeroWithoutAHandlerOrWithANaNDate) {
  defaults_->setObject(KVRDate{env_.now()}, "kLastConfigurationErrorDate");
  KVNRetryHandlerRegistry::unregisterFactory("KVNConfigRetryHandler");
  EXPECT_EQ(config().currentConfigCoolDownTime(), 0);

  KVNRetryHandlerRegistry::registerFactory("KVNConfigRetryHandler", [] {
    return std::make_unique<FixedExpiryHandler>(KVRDate{std::nan("")});
  });
  EXPECT_EQ(config().currentConfigCoolDownTime(), 0);

  KVNRetryHandlerRegistry::registerFactory("KVNConfigRetryHandler", [this] {
    return std::make_unique<FixedExpiryHandler>(KVRDate{env_.now() + 2.5});
  });
  EXPECT_DOUBLE_EQ(config().currentConfigCoolDownTime(), 2.5);
}

TEST_F(KVRDebugConfigurationTest, ItsOwnExpiryTimeIsNow) {
  EXPECT_EQ(config().coolDownExpiryTime(), KVRDate{env_.now()});
  env_.setNow(5);
  EXPECT_EQ(config().coolDownExpiryTime(), KVRDate{5});
}

}  // namespace
}  // namespace korvel
