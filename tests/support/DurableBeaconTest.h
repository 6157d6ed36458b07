// A beacon test whose beacons go out through a durable executor, its store
// in a temporary folder of the test's own, to the collector the test points
// the beacon endpoint at.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include "support/TestEnv.h"

namespace korvel::testing {

class DurableBeaconTest : public BeaconTest {
 protected:
  using Executor = network::internal::DurableRequestExecutor;

  void SetUp() override {
    BeaconTest::SetUp();
    KVRBeacon::registerRequestRestorer();
    dir_ = makeTemporaryFolder("korvel-delivery");
    ASSERT_FALSE(dir_.empty());
  }

  void TearDown() override {
    stopExecutor();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    BeaconTest::TearDown();
  }

  // Beacons go to <base>/<prefix>/{inid}/{appversion}/{devicemodel}.
  static void pointAt(const std::string& base, const std::string& prefix = "b") {
    KVNConfiguration::sharedInstance().update([&](KVNConfiguration::Snapshot& s) {
      s.beacons.beaconEndpoint = base + "/" + prefix + "/{inid}/{appversion}/{devicemodel}";
    });
  }

  // Quick retries and syncs.
  Executor::Options options() const {
    using namespace std::chrono_literals;
    Executor::Options o;
    o.directory = dir_;
    o.retryBaseDelay = 10ms;
    o.maxRetryDelay = 40ms;
    o.syncInterval = 20ms;
    o.requestTimeout = 5s;
    return o;
  }

  // The library's executor until stopExecutor().
  Executor& startExecutor(Executor::Options o) {
    stopExecutor();
    durable_ = std::make_shared<Executor>("test.backgroundBeacons", std::move(o));
    KVRBeacon::setBackgroundSession(durable_);
    return *durable_;
  }

  void stopExecutor() {
    KVRBeacon::setBackgroundSession(executor_);
    durable_.reset();
  }

  // A user event numbered seq; its uuid, empty when none was returned.
  static std::string report(int seq) {
    return KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, KVRParameters{{"type", "demo"}, {"seq", seq}})
        .value_or("");
  }

  std::filesystem::path dir_;
  std::shared_ptr<Executor> durable_;
};

}  // namespace korvel::testing
