#include <httplib.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "collector/BeaconCollector.h"

namespace korvel::tools {
namespace {

using namespace std::chrono_literals;

// Waiters are woken when their own count is reached, whichever of them waits
// for less. A waiter that missed its wake-up would only return at its
// (long) deadline: each must be back well before it.
TEST(BeaconCollectorTest, EachWaiterReturnsOnceItsOwnCountArrived) {
  BeaconCollector collector;
  ASSERT_TRUE(collector.start());
  httplib::Client client("127.0.0.1", collector.port());
  int sent = 0;
  auto send = [&](int count) {
    for (int n = 0; n < count; ++n) {
      auto answer = client.Get("/b/INID/1.0/Model/startup?n=" + std::to_string(sent++));
      ASSERT_TRUE(answer);
      EXPECT_EQ(answer->status, 204);
    }
  };
  auto wait = [&](size_t count) {
    return std::async(std::launch::async, [&collector, count] {
      return collector.waitForBeacons(count, 120s);
    });
  };
  struct Step {
    int send;
    std::vector<size_t> returning;  // the counts whose waiters return now
  };
  auto one = wait(1);
  auto three = wait(3);
  auto six = wait(6);
  auto sixAgain = wait(6);
  const Step steps[] = {{1, {1}}, {2, {3}}, {3, {6, 6}}};
  std::vector<std::future<bool>*> pending = {&one, &three, &six, &sixAgain};
  for (const Step& step : steps) {
    send(step.send);
    for (size_t count : step.returning) {
      auto* waiter = pending.front();
      pending.erase(pending.begin());
      ASSERT_EQ(waiter->wait_for(20s), std::future_status::ready) << "waiting for " << count;
      EXPECT_TRUE(waiter->get());
    }
  }
  EXPECT_EQ(collector.beaconCount(), 6u);
  // Already there: no wait; never coming: false at the deadline.
  EXPECT_TRUE(collector.waitForBeacons(6, 0ms));
  EXPECT_FALSE(collector.waitForBeacons(7, 1ms));
}

}  // namespace
}  // namespace korvel::tools
