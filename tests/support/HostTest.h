// A host's test: the beacon test's Env, a temporary folder of its own
// (root_) for the host's data directories, and after each test Reporting
// shut down and reporting allowed again. A subclass undoes its own set-up
// in afterShutdown(), which runs before the folder goes.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include <korvel/Korvel.h>
#include <korvel/beacon/KVRBeacon.h>
#include "support/TestEnv.h"

namespace korvel::testing {

class HostTest : public BeaconTest {
 protected:
  // name: the folder's, "<temporary folder>/korvel-<name>-XXXXXX".
  HostTest(const char* name, std::chrono::milliseconds shutdownDeadline)
      : name_(name), shutdownDeadline_(shutdownDeadline) {}

  // A subclass returns at once when this failed (HasFatalFailure()).
  void SetUp() override {
    BeaconTest::SetUp();
    root_ = makeTemporaryFolder("korvel-" + name_);
    ASSERT_FALSE(root_.empty());
  }

  void TearDown() override {
    Reporting::shutdown(shutdownDeadline_);
    KVRBeacon::setReportingAllowed(true);
    afterShutdown();
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
    BeaconTest::TearDown();
  }

  virtual void afterShutdown() {}

  std::filesystem::path root_;

 private:
  const std::string name_;
  const std::chrono::milliseconds shutdownDeadline_;
};

}  // namespace korvel::testing
