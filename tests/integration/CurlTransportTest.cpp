// The libcurl transport against a collector on 127.0.0.1: many requests on
// the wire at once, each answered once with its own answer, whatever the
// collector does in between.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "collector/BeaconCollector.h"
#include <korvel/network/internal/DeliveryTransport.h>

namespace korvel::platform {
namespace {

using namespace std::chrono_literals;

// Hands out count requests to /b/<n>, records the answers by request, and
// how many were on the wire at once at most.
class CountingFeed final : public DeliveryFeed {
 public:
  CountingFeed(std::string base, int count) : base_(std::move(base)), count_(count) {}

  bool next(DeliveryJob& job) override {
    if (given_ == count_) return false;
    urls_.push_back(base_ + "/b/" + std::to_string(given_));
    job.tag = static_cast<uint64_t>(given_);
    job.url = &urls_.back();
    ++given_;
    ++onWire_;
    mostOnWire_ = std::max(mostOnWire_, onWire_);
    return true;
  }

  void done(uint64_t tag, DeliveryResponse response) override {
    --onWire_;
    answers_[static_cast<int>(tag)].push_back(std::move(response));
  }

  int given() const { return given_; }
  int mostOnWire() const { return mostOnWire_; }
  const std::map<int, std::vector<DeliveryResponse>>& answers() const { return answers_; }

 private:
  std::string base_;
  int count_;
  int given_ = 0;
  int onWire_ = 0;
  int mostOnWire_ = 0;
  std::deque<std::string> urls_;  // stable addresses
  std::map<int, std::vector<DeliveryResponse>> answers_;
};

// Cancels the transport if the test outlives its deadline, so that a stall
// shows up as aborted answers rather than a hung test.
class Watchdog {
 public:
  Watchdog(std::atomic<bool>& cancelled, std::chrono::milliseconds after)
      : thread_([&cancelled, after, this] {
          const auto until = std::chrono::steady_clock::now() + after;
          while (!done_ && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(5ms);
          if (!done_) cancelled = true;
        }) {}
  ~Watchdog() {
    done_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

TEST(CurlTransportTest, AnswersEveryRequestOnceWithManyOnTheWire) {
  struct Case {
    const char* name;
    int failEvery;
    std::chrono::milliseconds delay;
    size_t transfers;
    int count;
  };
  // The collector sends a 503's body apart from its head, which delays it
  // (Nagle against delayed ACKs): the failing cases send fewer.
  const Case cases[] = {
      {"all answered", 0, 0ms, 4, 400},
      {"every 8th a 503", 8, 0ms, 4, 200},
      {"slow answers", 0, 20ms, 4, 40},
      {"one at a time", 3, 0ms, 1, 45},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tools::BeaconCollector::Options collectorOptions;
    collectorOptions.failEvery = c.failEvery;
    collectorOptions.failStatus = 503;
    collectorOptions.delay = c.delay;
    tools::BeaconCollector collector(collectorOptions);
    ASSERT_TRUE(collector.start());
    std::atomic<bool> cancelled{false};
    CurlTransportOptions options;
    options.transfers = c.transfers;
    auto transport = makeCurlTransport(cancelled, options);
    EXPECT_EQ(transport->parallelism(), c.transfers);

    const int count = c.count;
    CountingFeed feed(collector.baseURL(), count);
    {
      Watchdog watchdog(cancelled, 20s);
      transport->send(feed);
    }
    EXPECT_FALSE(cancelled) << "the transfers stalled";
    EXPECT_EQ(feed.given(), count);
    EXPECT_LE(feed.mostOnWire(), static_cast<int>(c.transfers));
    if (c.transfers > 1 && c.delay > 0ms) {
      EXPECT_EQ(feed.mostOnWire(), static_cast<int>(c.transfers));
    }
    ASSERT_EQ(feed.answers().size(), static_cast<size_t>(count));
    int failed = 0;
    for (const auto& [tag, answers] : feed.answers()) {
      ASSERT_EQ(answers.size(), 1u) << "request " << tag;
      EXPECT_TRUE(answers[0].status == 204 || answers[0].status == 503)
          << "request " << tag << ": " << answers[0].status << " " << answers[0].error;
      if (answers[0].status == 503) ++failed;
    }
    EXPECT_EQ(failed, c.failEvery > 0 ? count / c.failEvery : 0);
    // Each request reached the collector once.
    EXPECT_EQ(collector.requestCount(), static_cast<size_t>(count));
  }
}

}  // namespace
}  // namespace korvel::platform
