// A report call never lets a failure inside the library reach the host: the
// call logs one line on the "Reporting" category and answers no uuid. The
// failures are injected through the Env (a UUID source or an orientation
// sensor that throws, an executor factory that makes nothing) and a host
// observer that throws.
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRLogging.h>
#include <korvel/reporters/KVRArtistPageReporter.h>
#include <korvel/reporters/KVRImpressionReporter.h>
#include <korvel/reporters/KVRUserEventReporter.h>
#include "support/TestEnv.h"

namespace korvel {
namespace {

// The operations are declared so; a throw inside one would otherwise end
// the host in std::terminate.
static_assert(noexcept(KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, KVRParameters{})));
static_assert(noexcept(KVRBeacon::sendBeacon(nullptr, KVRBeaconTypeUserEvent)));
static_assert(noexcept(KVRImpressionReporter::reportImpressionForTopSongsSection()));
static_assert(noexcept(KVRUserEventReporter::reportFeaturedInItemActionButtonTappedWithTagDetails(
    nullptr, std::nullopt, std::nullopt)));
static_assert(noexcept(std::declval<KVNNetworkBackgroundRequestExecutor&>().executeRequest(
    KVNNetworkRequest())));

// Forwards to the test's Env, except for what a test makes fail.
class FailingEnv : public platform::EnvWrapper {
 public:
  using EnvWrapper::EnvWrapper;

  bool failUUIDs = false;
  bool failOrientation = false;
  bool makeNoExecutor = false;

  std::string makeUUIDString() override {
    if (failUUIDs) throw std::bad_alloc();
    return EnvWrapper::makeUUIDString();
  }
  platform::DeviceOrientation deviceOrientation() override {
    if (failOrientation) throw std::runtime_error("orientation sensor gone");
    return EnvWrapper::deviceOrientation();
  }
  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> makeBackgroundExecutor(
      const std::string& identifier) override {
    if (makeNoExecutor) return nullptr;
    return EnvWrapper::makeBackgroundExecutor(identifier);
  }
};

class ReportFailureTest : public testing::BeaconTest {
 protected:
  // The messages logged on the "Reporting" category at error level.
  std::vector<std::string> reportingErrors() const {
    std::vector<std::string> out;
    for (const auto& record : const_cast<testing::TestEnv&>(env_).logs().records()) {
      if (record.category == KVRLogging::categoryReporting() &&
          record.level == platform::LogLevel::Error) {
        out.push_back(record.message);
      }
    }
    return out;
  }
};

struct FailureCase {
  const char* name;
  void (*fail)(FailingEnv&);
  // The report call; its uuid, or nothing for an operation that returns none.
  std::function<std::optional<std::string>()> call;
  bool returnsUUID;
  // What the one logged line starts with.
  const char* loggedAs;
  // And what it ends with: the exception's what().
  const char* reason;
};

TEST_F(ReportFailureTest, AFailureInsideTheCallIsLoggedOnceAndSendsNothing) {
  const auto failUUIDs = [](FailingEnv& e) { e.failUUIDs = true; };
  const auto failOrientation = [](FailingEnv& e) { e.failOrientation = true; };
  const std::vector<FailureCase> cases = {
      {"dispatcher, record cannot be made", failUUIDs,
       [] { return KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"k", "v"}}); }, true,
       "KVRBeaconFactory::beaconForType failed: ", "std::bad_alloc"},
      {"reporter returning nothing, record cannot be made", failUUIDs,
       [] {
         KVRImpressionReporter::reportImpressionForTopSongsSection();
         return std::optional<std::string>();
       },
       false, "KVRBeaconFactory::beaconForType failed: ", "std::bad_alloc"},
      {"reporter returning a uuid, record cannot be made", failUUIDs,
       [] {
         return KVRArtistPageReporter::reportOpenAppForStreamingServiceProvider(
             0, "artist", 0);
       },
       true, "KVRBeaconFactory::beaconForType failed: ", "std::bad_alloc"},
      {"reporter failing while it builds the parameters", failOrientation,
       [] {
         return KVRUserEventReporter::reportFeaturedInItemActionButtonTappedWithTagDetails(
             nullptr, "provider", "album");
       },
       true,
       "KVRUserEventReporter::reportFeaturedInItemActionButtonTappedWithTagDetails failed: ",
       "orientation sensor gone"},
  };

  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    env_.logs().clear();
    executor_->clear();
    {
      FailingEnv failing(env_);
      platform::ScopedEnv scope(failing);
      c.fail(failing);
      std::optional<std::string> uuid;
      ASSERT_NO_THROW(uuid = c.call());
      EXPECT_EQ(uuid, std::nullopt);
      EXPECT_EQ(executor_->count(), 0u);
      const auto errors = reportingErrors();
      ASSERT_EQ(errors.size(), 1u);
      EXPECT_EQ(errors[0], std::string(c.loggedAs) + c.reason);
    }
    // The same call goes through once the Env works again: the failure, not
    // the call, kept the beacon back.
    const auto uuid = c.call();
    EXPECT_EQ(uuid.has_value(), c.returnsUUID);
    EXPECT_EQ(executor_->count(), 1u);
  }
}

TEST_F(ReportFailureTest, AThrowingObserverOfTheSubmissionCostsNeitherBeaconNorUUID) {
  platform::ObserverRegistration throwing(
      env_.notificationCenter(),
      env_.notificationCenter().addObserver(
          std::string(KVRReliableNetworkingTaskSubmittedNotification),
          [](const platform::Notification&) { throw std::runtime_error("observer broke"); }));

  std::optional<std::string> uuid;
  ASSERT_NO_THROW(uuid = KVRUserEventReporter::reportOpenAppleMusicWithTrackID("track"));
  ASSERT_TRUE(uuid.has_value());
  EXPECT_EQ(onlySent().value(std::string(KVRBeaconUUIDKey)), uuid);
  EXPECT_EQ(reportingErrors(),
            std::vector<std::string>{
                "KVRBeacon: an observer of the beacon's submission failed: observer broke"});
}

TEST_F(ReportFailureTest, AnExecutorFactoryThatMakesNothingIsLoggedNotDereferenced) {
  FailingEnv failing(env_);
  failing.makeNoExecutor = true;
  platform::ScopedEnv scope(failing);
  KVRBeacon::setBackgroundSession(nullptr);

  std::optional<std::string> uuid = std::string("unset");
  ASSERT_NO_THROW(uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"k", "v"}}));
  EXPECT_EQ(uuid, std::nullopt);
  const auto errors = reportingErrors();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_NE(errors[0].find("the executor factory made no executor"), std::string::npos)
      << errors[0];
}

}  // namespace
}  // namespace korvel
