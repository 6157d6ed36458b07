// Delivery through the system's HTTP stack to a collector running as a
// process of its own, named by KORVEL_TEST_COLLECTOR_URL: where the tests
// cannot embed one (a Windows build; cpp-httplib and SQLite are built for
// Linux here), scripts/ci-windows starts the native korvel-collector and
// hands its address over. The collector is asked what it received through
// its JSON API.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include <korvel/network/internal/HttpClient.h>
#include "support/DurableBeaconTest.h"

namespace korvel {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 60s;

class ExternalCollectorTest : public testing::DurableBeaconTest {
 protected:
  void SetUp() override {
    const char* url = std::getenv("KORVEL_TEST_COLLECTOR_URL");
    if (url == nullptr || *url == 0) {
      GTEST_SKIP() << "KORVEL_TEST_COLLECTOR_URL names no running korvel-collector "
                      "(scripts/ci-windows starts one)";
    }
    collector_ = url;
    while (!collector_.empty() && collector_.back() == '/') collector_.pop_back();
    DurableBeaconTest::SetUp();
    if (HasFatalFailure()) return;
    // A collector may serve several runs: this one's beacons carry an inid
    // of their own.
    inid_ = "EXT-" + std::to_string(std::random_device{}());
    KVNConfiguration::sharedInstance().setInid(inid_);
    pointAt(collector_);
  }

  void TearDown() override {
    if (!collector_.empty()) DurableBeaconTest::TearDown();
  }

  Executor& startExecutor() {
    auto o = options();
    o.requestTimeout = 10s;
    return DurableBeaconTest::startExecutor(o);
  }

  // The collector's record of this run's beacons (oldest first), once it
  // holds count of them or the deadline passed.
  nlohmann::json receivedOnce(size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    nlohmann::json beacons = nlohmann::json::array();
    for (;;) {
      const auto answer =
          network::internal::httpGet(collector_ + "/api/beacons?inid=" + inid_ + "&after=0&limit=1000");
      EXPECT_EQ(answer.status, 200) << answer.error;
      if (answer.status != 200) return beacons;
      const auto body = nlohmann::json::parse(answer.body, nullptr, false);
      if (body.is_object() && body.contains("beacons")) beacons = body["beacons"];
      if (beacons.size() >= count || std::chrono::steady_clock::now() > deadline) return beacons;
      std::this_thread::sleep_for(50ms);
    }
  }

  std::string collector_;
  std::string inid_;
};

TEST_F(ExternalCollectorTest, EveryReturnedBeaconArrivesOnceAsItWasBuilt) {
  startExecutor();
  constexpr int kBeacons = 200;
  std::set<std::string> uuids;
  for (int seq = 0; seq < kBeacons; ++seq) {
    const auto uuid = report(seq);
    ASSERT_FALSE(uuid.empty());
    uuids.insert(uuid);
  }
  const nlohmann::json beacons = receivedOnce(kBeacons);
  ASSERT_EQ(beacons.size(), static_cast<size_t>(kBeacons));
  std::set<std::string> arrived;
  const std::string path = "/b/" + inid_ + "/9.9/TestDevice1%2C1/userevent?";
  for (const auto& b : beacons) {
    arrived.insert(b.value("uuid", ""));
    EXPECT_EQ(b.value("status", 0), 204) << b.dump();
    EXPECT_EQ(b.value("target", "").rfind(path, 0), 0u) << b.value("target", "");
  }
  EXPECT_EQ(arrived, uuids);
  EXPECT_EQ(durable_->stats().delivered, static_cast<uint64_t>(kBeacons));
}

TEST_F(ExternalCollectorTest, WhatARefusedRunKeptIsDeliveredByTheNextOne) {
  // Nothing listens on port 1: the beacons wait in the journal, and the
  // executor shuts down with sends in progress.
  pointAt("http://127.0.0.1:1");
  std::set<std::string> uuids;
  {
    auto& executor = startExecutor();
    for (int seq = 0; seq < 5; ++seq) uuids.insert(report(seq));
    EXPECT_FALSE(executor.flush(300ms)) << "nothing listens: the beacons must wait";
    const auto stats = executor.stats();
    EXPECT_EQ(stats.delivered, 0u);
    EXPECT_EQ(stats.droppedByServer, 0u) << "a refused connection uses up no attempt";
    EXPECT_TRUE(stats.durable);
    const auto stopping = std::chrono::steady_clock::now();
    stopExecutor();
    EXPECT_LT(std::chrono::steady_clock::now() - stopping, 5s) << "shutdown waited for the sends";
  }
  pointAt(collector_);
  auto& executor = startExecutor();
  ASSERT_TRUE(executor.flush(kDeadline));
  std::set<std::string> arrived;
  for (const auto& b : receivedOnce(uuids.size())) arrived.insert(b.value("uuid", ""));
  EXPECT_EQ(arrived, uuids);
}

}  // namespace
}  // namespace korvel
