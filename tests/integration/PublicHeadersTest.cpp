// What a host sees when it includes the public headers: the API, and none of
// the library's own helpers. The headers listed are the ones whose classes
// keep a lock; each must hide it (with the state it guards) in private
// storage, so that the lock header and its annotation macros stay internal.
#include <korvel/Korvel.h>
#include <korvel/debug/KVRDebugConfiguration.h>
#include <korvel/debug/KVRDebugMessageCenter.h>
#include <korvel/debug/KVRStayInAppSwizzler.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/network/InProcessRequestExecutor.h>
#include <korvel/network/URLCache.h>
#include <korvel/pageviews/PageViewManager.h>
#include <korvel/platform/KVNTimer.h>
#include <korvel/platform/KVNUserDefaults.h>
#include <korvel/platform/Logging.h>
#include <korvel/platform/NotificationCenter.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/ui/Pasteboard.h>
#include <korvel/ui/SharedApplication.h>

#if defined(KORVEL_THREAD_ANNOTATION) || defined(KORVEL_GUARDED_BY)
#error "a public header includes the library's lock header"
#endif

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvel {
namespace {

// KVNConfiguration and NotificationCenter keep their state inside the
// object (no allocation on the report path): each instance must still have
// its own, built and torn down with it.
TEST(PublicHeadersTest, ConfigurationsKeepTheirOwnStateAndSnapshotsOutliveThem) {
  std::shared_ptr<const KVNConfiguration::Snapshot> kept;
  for (int round = 0; round < 3; ++round) {
    auto first = std::make_unique<KVNConfiguration>();
    auto second = std::make_unique<KVNConfiguration>();
    first->setInid("first-" + std::to_string(round));
    second->update([](KVNConfiguration::Snapshot& s) { s.configured = true; });

    EXPECT_EQ(first->inid(), "first-" + std::to_string(round));
    EXPECT_FALSE(first->configured());
    EXPECT_EQ(second->inid(), std::nullopt);
    EXPECT_TRUE(second->configured());
    kept = first->snapshot();
  }
  // The last instance is gone; the snapshot it published is not.
  EXPECT_EQ(kept->inid, "first-2");
}

TEST(PublicHeadersTest, NotificationCentersDeliverOnlyToTheirOwnObservers) {
  std::vector<std::string> calls;
  auto first = std::make_unique<platform::NotificationCenter>();
  auto second = std::make_unique<platform::NotificationCenter>();
  first->addObserver("n", [&](const platform::Notification&) { calls.push_back("first"); });
  const auto token =
      second->addObserver("n", [&](const platform::Notification&) { calls.push_back("second"); });

  first->post("n");
  EXPECT_EQ(calls, std::vector<std::string>{"first"});
  EXPECT_FALSE(first->hasObservers("other"));
  EXPECT_TRUE(second->hasObservers("n"));

  second->removeObserver(token);
  second->post("n");
  EXPECT_EQ(calls, std::vector<std::string>{"first"});
  // Destroyed with an observer still registered.
  first.reset();
  second.reset();
}

}  // namespace
}  // namespace korvel
