#include <korvel/debug/KVRDebugNavigationOptionsViewController.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <tuple>
#include <utility>

#include "collector/ConfigurationEndpoint.h"
#include <korvel/debug/KVRDebugConfiguration.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/platform/KVNUserDefaults.h>
#include <korvel/network/URLCache.h>
#include "support/TestEnv.h"
#include "support/TestUIEnv.h"

namespace korvel {
namespace {

using Screen = KVRDebugNavigationOptionsViewController;
constexpr uint64_t kMillisecond = 1'000'000;

// Production is served on 127.0.0.1 and beta on "localhost": two hosts, as
// the real endpoints have.
class ConfigSwitchingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scope_.emplace(env_);
    defaults_ = std::make_shared<KVNUserDefaults>(env_.documentsDirectory() + "/defaults.json");
    KVNUserDefaults::setSharedUserDefaults(defaults_);
    URLCache::sharedURLCache().removeAllCachedResponses();
    KVNConfiguration::sharedInstance().replace(KVNConfiguration::Snapshot{});
    ASSERT_TRUE(production_.start("127.0.0.1"));
    ASSERT_TRUE(beta_.start("127.0.0.1"));
    KVRDebugConfiguration::setProductionConfigurationEndpoint(production_.url("127.0.0.1"));
    KVRDebugConfiguration::setBetaConfigurationEndpoint(beta_.url("localhost"));
  }
  void TearDown() override {
    KVRDebugConfiguration::setProductionConfigurationEndpoint(std::nullopt);
    KVRDebugConfiguration::setBetaConfigurationEndpoint(std::nullopt);
    KVNUserDefaults::setSharedUserDefaults(nullptr);
    URLCache::sharedURLCache().removeAllCachedResponses();
  }

  std::unique_ptr<Screen> openScreen() {
    auto screen = std::make_unique<Screen>();
    screen->loadViewIfNeeded();
    return screen;
  }

  // Pumps the main queue (without moving the injected clock) until the
  // refresh result is on the button; bounded by real time, since the fetch
  // runs on a real thread against a real socket.
  bool waitForRefreshResult(Screen& screen) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      uiEnv_.mainQueue().runPending();
      if (screen.refreshButton().title() != Screen::kRefreshTitle) return true;
      uiEnv_.mainQueue().waitForWork(0.05);
    }
    return false;
  }
  void advance(uint64_t milliseconds) {
    env_.advanceMonotonic(milliseconds * kMillisecond);
    uiEnv_.mainQueue().runPending();
  }
  std::optional<std::string> storedURL() const { return defaults_->stringForKey("configurationURL"); }
  // The refresh button's title, enabled and hidden, and the spinner running.
  static auto refresh(Screen& screen) {
    const auto& button = screen.refreshButton();
    return std::tuple(button.title(), button.isEnabled(), button.isHidden(),
                      screen.activityIndicator().isAnimating());
  }
  static auto clearCache(Screen& screen) {
    return std::tuple(screen.clearCacheButton().title(), screen.clearCacheButton().isEnabled());
  }

  testing::TestEnv env_;
  testing::TestUIEnv uiEnv_;
  std::optional<platform::ScopedEnv> scope_;
  std::shared_ptr<KVNUserDefaults> defaults_;
  tools::ConfigurationEndpoint production_{R"({"inid": "PRODUCTION-INID", "configured": true})"};
  tools::ConfigurationEndpoint beta_{
      R"({"inid": "BETA-INID", "configured": true, "beacons": {"beaconParameters": {"tier": "beta"}}})"};
};

// --- Set-up ------------------------------------------------------------------

TEST_F(ConfigSwitchingTest, AFreshScreenShowsProductionAndIdleButtons) {
  Screen screen;
  EXPECT_FALSE(screen.isViewLoaded());
  screen.loadViewIfNeeded();
  EXPECT_EQ(screen.title(), "Config Settings");
  EXPECT_FALSE(screen.betaSwitch().isOn());
  EXPECT_EQ(screen.bucketsTextField().text(), "");
  EXPECT_EQ(refresh(screen), std::tuple("Refresh Config", true, false, false));
  EXPECT_EQ(screen.clearCacheButton().title(), "Clear Cache");
  EXPECT_FALSE(storedURL());  // looking stores nothing
}

TEST_F(ConfigSwitchingTest, TheSwitchFollowsTheHostOfTheStoredURLOnly) {
  const std::vector<std::pair<std::string, bool>> cases = {
      {beta_.url("localhost"), true},
      {beta_.url("localhost") + "?buckets=a,b", true},
      {"http://LOCALHOST:1/other/path?x=1", true},
      {"https://localhost/configuration/v1/configure", true},
      {production_.url("127.0.0.1"), false},
      {"https://localhost.example/configuration/v1/configure", false},
      {"not a url", false},
  };
  for (const auto& [url, on] : cases) {
    SCOPED_TRACE(url);
    defaults_->setObject(url, "configurationURL");
    EXPECT_EQ(openScreen()->betaSwitch().isOn(), on);
  }
}

// --- Refresh -------------------------------------------------------------------

TEST_F(ConfigSwitchingTest, ASuccessfulRefreshShowsSuccessThenRestoresTheButton) {
  auto screen = openScreen();
  EXPECT_TRUE(screen->refreshButton().userTap());

  // While the fetch runs the button is gone, so it cannot be tapped twice.
  EXPECT_EQ(refresh(*screen), std::tuple("Refresh Config", true, true, true));
  EXPECT_FALSE(screen->refreshButton().userTap());

  ASSERT_TRUE(waitForRefreshResult(*screen));
  EXPECT_EQ(refresh(*screen), std::tuple("SUCCESS! 👍", false, false, false));
  EXPECT_FALSE(screen->refreshButton().userTap());

  // Switch off, no buckets: production is stored explicitly.
  EXPECT_EQ(storedURL(), production_.url("127.0.0.1"));
  EXPECT_EQ(KVNConfiguration::sharedInstance().inid(), "PRODUCTION-INID");
  EXPECT_EQ(production_.requestCount(), 1u);
  EXPECT_EQ(beta_.requestCount(), 0u);

  // 0.5 s of animation, then 3 s of showing the result.
  advance(500);
  advance(2999);
  EXPECT_EQ(refresh(*screen), std::tuple("SUCCESS! 👍", false, false, false));
  advance(1);
  EXPECT_EQ(refresh(*screen), std::tuple("Refresh Config", true, false, false));
}

TEST_F(ConfigSwitchingTest, BetaWithBucketsIsStoredAsTypedAndRemembered) {
  {
    auto screen = openScreen();
    screen->betaSwitch().userToggle();
    screen->bucketsTextField().setText("a,b");
    EXPECT_EQ(screen->configurationURLForRefresh(), beta_.url("localhost") + "?buckets=a,b");
    screen->refreshButton().userTap();
    ASSERT_TRUE(waitForRefreshResult(*screen));
    EXPECT_EQ(screen->refreshButton().title(), "SUCCESS! 👍");
  }
  EXPECT_EQ(storedURL(), beta_.url("localhost") + "?buckets=a,b");
  // The buckets reached the beta server and came back in the configuration.
  EXPECT_EQ(beta_.requestTargets(),
            (std::vector<std::string>{"/configuration/v1/configure?buckets=a,b"}));
  const auto c = KVNConfiguration::sharedInstance().snapshot();
  EXPECT_EQ(c->inid, "BETA-INID");
  EXPECT_EQ(c->beacons.beaconParameters, (KVRParameters{{"tier", "beta"}, {"buckets", "a,b"}}));

  // The next visit shows beta again.
  EXPECT_TRUE(openScreen()->betaSwitch().isOn());
}

TEST_F(ConfigSwitchingTest, BucketsAreAppendedWithoutEncodingOrTrimming) {
  auto screen = openScreen();
  screen->bucketsTextField().setText(" a b&c=1 ");
  EXPECT_EQ(screen->configurationURLForRefresh(),
            production_.url("127.0.0.1") + "?buckets= a b&c=1 ");
}

TEST_F(ConfigSwitchingTest, AFailedRefreshShowsFailureAndKeepsTheURL) {
  beta_.failNext(1, 500);
  auto screen = openScreen();
  screen->betaSwitch().userToggle();
  screen->refreshButton().userTap();
  ASSERT_TRUE(waitForRefreshResult(*screen));

  EXPECT_EQ(refresh(*screen), std::tuple("FAILED ☹️", false, false, false));
  EXPECT_EQ(storedURL(), beta_.url("localhost"));
  EXPECT_FALSE(KVNConfiguration::sharedInstance().configured());

  advance(500);   // the animation ends
  advance(3000);  // the result has been shown
  EXPECT_EQ(refresh(*screen), std::tuple("Refresh Config", true, false, false));

  // Refreshing again is not held back by the failure.
  screen->refreshButton().userTap();
  ASSERT_TRUE(waitForRefreshResult(*screen));
  EXPECT_EQ(screen->refreshButton().title(), "SUCCESS! 👍");
  EXPECT_EQ(beta_.requestCount(), 2u);
}

TEST_F(ConfigSwitchingTest, SwitchingBackToProductionStoresProduction) {
  defaults_->setObject(beta_.url("localhost") + "?buckets=x", "configurationURL");
  auto screen = openScreen();
  ASSERT_TRUE(screen->betaSwitch().isOn());
  screen->betaSwitch().userToggle();
  screen->refreshButton().userTap();
  ASSERT_TRUE(waitForRefreshResult(*screen));
  EXPECT_EQ(storedURL(), production_.url("127.0.0.1"));
  EXPECT_FALSE(openScreen()->betaSwitch().isOn());
}

TEST_F(ConfigSwitchingTest, TheRestoreIsSafeAfterTheScreenIsGone) {
  auto screen = openScreen();
  screen->refreshButton().userTap();
  screen.reset();  // the user left before the answer came

  // The completion reaches the main queue from the fetching thread.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!uiEnv_.mainQueue().hasPendingWork() && std::chrono::steady_clock::now() < deadline) {
    uiEnv_.mainQueue().waitForWork(0.05);
  }
  ASSERT_TRUE(uiEnv_.mainQueue().hasPendingWork());
  uiEnv_.mainQueue().runPending();
  advance(500);
  advance(3000);
  EXPECT_FALSE(uiEnv_.mainQueue().secondsUntilNextTimer());  // every step ran
  EXPECT_EQ(KVNConfiguration::sharedInstance().inid(), "PRODUCTION-INID");
}

// --- Clear cache and keyboard ------------------------------------------------------

TEST_F(ConfigSwitchingTest, ClearCacheEmptiesTheCacheAndRestoresAfterThreeSeconds) {
  auto& cache = URLCache::sharedURLCache();
  cache.storeCachedResponse(production_.url("127.0.0.1"), CachedURLResponse{});
  auto screen = openScreen();

  EXPECT_TRUE(screen->clearCacheButton().userTap());
  EXPECT_EQ(cache.count(), 0u);
  EXPECT_EQ(clearCache(*screen), std::tuple("Cache Cleared 🗑", false));
  EXPECT_FALSE(screen->clearCacheButton().userTap());

  advance(2999);
  EXPECT_EQ(clearCache(*screen), std::tuple("Cache Cleared 🗑", false));
  advance(1);
  EXPECT_EQ(clearCache(*screen), std::tuple("Clear Cache", true));
}

TEST_F(ConfigSwitchingTest, TheKeyboardGoesAwayOnATapOrReturnInTheBucketsField) {
  auto screen = openScreen();
  auto& field = screen->bucketsTextField();
  field.becomeFirstResponder();
  screen->view().userTap();
  EXPECT_FALSE(field.isFirstResponder());

  field.becomeFirstResponder();
  EXPECT_FALSE(field.userPressedReturn());  // not processed
  EXPECT_FALSE(field.isFirstResponder());

  ui::TextField other;
  other.becomeFirstResponder();
  other.setDelegate(screen.get());
  EXPECT_TRUE(other.userPressedReturn());
  EXPECT_TRUE(other.isFirstResponder());
}

}  // namespace
}  // namespace korvel
