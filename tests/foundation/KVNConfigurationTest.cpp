#include <korvel/foundation/KVNConfiguration.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <korvel/foundation/KVNNetwork.h>

namespace korvel {
namespace {

class KVNConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override { KVNConfiguration::sharedInstance().replace({}); }
  void TearDown() override { KVNConfiguration::sharedInstance().replace({}); }
};

TEST_F(KVNConfigurationTest, SettersPublishWithoutTouchingOtherFields) {
  auto& config = KVNConfiguration::sharedInstance();
  config.setInid("I");
  config.setConfigured(true);
  config.setBeaconEndpoint("https://b.example/{inid}");
  config.setBeaconParameters({{"k", "v"}});
  config.setDeviceModel("M1,1");
  config.setDeviceSystemVersion("17.1");
  config.setKorvelFrameworksRaiseExceptions(true);

  EXPECT_EQ(config.inid(), "I");
  EXPECT_TRUE(config.configured());
  EXPECT_EQ(config.beacons().beaconEndpoint, "https://b.example/{inid}");
  EXPECT_EQ(config.beacons().beaconParameters, (KVRParameters{{"k", "v"}}));
  EXPECT_EQ(config.deviceModel(), "M1,1");
  EXPECT_EQ(config.deviceSystemVersion(), "17.1");
  EXPECT_TRUE(config.korvelFrameworksRaiseExceptions());

  // A snapshot taken earlier does not change under later writes.
  const auto before = config.snapshot();
  config.setInid(std::nullopt);
  EXPECT_EQ(before->inid, "I");
  EXPECT_EQ(config.inid(), std::nullopt);
  EXPECT_EQ(config.deviceModel(), "M1,1");
}

TEST_F(KVNConfigurationTest, MachineDefaults) {
  const auto defaults = KVNConfiguration::machineDefaults();
  ASSERT_TRUE(defaults.deviceModel.has_value());
  EXPECT_FALSE(defaults.deviceModel->empty());
  EXPECT_FALSE(defaults.inid.has_value());
  EXPECT_FALSE(defaults.beacons.beaconEndpoint.has_value());
}

TEST_F(KVNConfigurationTest, PolicySatisfiedRules) {
  struct Case {
    bool configured;
    std::optional<std::string> endpoint;
    std::optional<std::string> inid;
    bool policy0;
    bool policy1;
    bool policy2;
  };
  const std::vector<Case> cases = {
      {false, std::nullopt, std::nullopt, true, false, false},
      {true, std::nullopt, std::nullopt, true, true, false},
      {false, "https://b.example/", "I", true, false, true},
      {true, "https://b.example/", "I", true, true, true},
      {true, "", "I", true, true, false},
      {true, "https://b.example/", std::nullopt, true, true, false},
      {true, "https://b.example/", "", true, true, false},
      {true, std::nullopt, "I", true, true, false},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    const auto& c = cases[i];
    KVNConfiguration::Snapshot s;
    s.configured = c.configured;
    s.beacons.beaconEndpoint = c.endpoint;
    s.inid = c.inid;
    KVNConfiguration::sharedInstance().replace(s);
    EXPECT_EQ(std::tuple(KVNConfigurationPolicySatisfied(0), KVNConfigurationPolicySatisfied(1),
                         KVNConfigurationPolicySatisfied(2)),
              std::tuple(c.policy0, c.policy1, c.policy2))
        << "case " << i;
  }
}

// Readers on several threads while writers replace and edit the
// configuration. Every snapshot a reader takes must be one that some writer
// published whole: its fields all name the same generation.
TEST_F(KVNConfigurationTest, SnapshotsStayConsistentUnderConcurrentWrites) {
  auto& config = KVNConfiguration::sharedInstance();
  auto generation = [](int n) {
    KVNConfiguration::Snapshot s;
    const std::string g = std::to_string(n);
    s.inid = g;
    s.deviceModel = g;
    s.deviceSystemVersion = g;
    s.beacons.beaconEndpoint = "https://b.example/" + g;
    s.beacons.beaconParameters = {{"generation", g}};
    return s;
  };
  config.replace(generation(0));

  constexpr int kWrites = 1500;
  std::atomic<int> writersDone{0};
  std::atomic<long> reads{0};
  std::atomic<int> readersStarted{0};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    while (readersStarted < 2) std::this_thread::yield();
    for (int i = 1; i <= kWrites; ++i) config.replace(generation(i));
    ++writersDone;
  });
  threads.emplace_back([&] {
    while (readersStarted < 2) std::this_thread::yield();
    for (int i = 1; i <= kWrites; ++i) {
      config.update([&](KVNConfiguration::Snapshot& s) { s = generation(-i); });
    }
    ++writersDone;
  });
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([&] {
      ++readersStarted;
      for (long own = 0; writersDone < 2 || own < 1000; ++own) {
        const auto s = config.snapshot();
        const auto g = *s->inid;
        ASSERT_EQ(s->deviceModel, g);
        ASSERT_EQ(s->deviceSystemVersion, g);
        ASSERT_EQ(s->beacons.beaconEndpoint, "https://b.example/" + g);
        ASSERT_EQ(s->beacons.beaconParameters.stringForKey("generation"), g);
        ++reads;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_GE(reads, 2000);
  const auto last = *config.inid();
  EXPECT_TRUE(last == std::to_string(kWrites) || last == std::to_string(-kWrites)) << last;
}

// Edits of different fields from different threads must not lose each
// other: every edit starts from the latest published configuration.
TEST_F(KVNConfigurationTest, ConcurrentFieldEditsAreNotLost) {
  auto& config = KVNConfiguration::sharedInstance();
  config.setBeaconParameters({});
  constexpr int kEdits = 500;
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      while (!go) std::this_thread::yield();
      for (int i = 0; i < kEdits; ++i) {
        config.update([&](KVNConfiguration::Snapshot& s) {
          s.beacons.beaconParameters.set("writer" + std::to_string(t) + "_" + std::to_string(i),
                                         i);
        });
      }
    });
  }
  threads.emplace_back([&] {
    while (!go) std::this_thread::yield();
    for (int i = 0; i < kEdits; ++i) config.setInid(std::to_string(i));
  });
  go = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(config.beacons().beaconParameters.size(), 3u * kEdits);
  EXPECT_EQ(config.inid(), std::to_string(kEdits - 1));
}

}  // namespace
}  // namespace korvel
