// What the executor makes of an answer and how long it waits before trying
// again.
#include <gtest/gtest.h>

#include <korvel/network/internal/DeliveryTransport.h>

namespace korvel::network::internal {
namespace {

using std::chrono::milliseconds;

DeliveryResponse answered(long status) {
  DeliveryResponse r;
  r.status = status;
  r.reachedServer = true;
  return r;
}

TEST(DeliveryRulesTest, ClassifiesAnswersAndTransportFailures) {
  const std::pair<DeliveryVerdict, std::vector<long>> verdicts[] = {
      {DeliveryVerdict::Delivered, {200, 201, 204, 299}},
      {DeliveryVerdict::Retry, {408, 429, 500, 502, 503, 599}},
      {DeliveryVerdict::Drop, {301, 400, 401, 403, 404, 410, 413, 414, 451}},
  };
  for (const auto& [verdict, statuses] : verdicts) {
    for (long s : statuses) EXPECT_EQ(classifyDelivery(answered(s)), verdict) << s;
  }
  DeliveryResponse broken;  // connected, then no complete answer
  broken.reachedServer = true;
  EXPECT_EQ(classifyDelivery(broken), DeliveryVerdict::Retry);
  DeliveryResponse offline;  // never connected
  EXPECT_EQ(classifyDelivery(offline), DeliveryVerdict::RetryUncounted);
}

// Seconds, or an HTTP date read with the leniency of strptime.
TEST(DeliveryRulesTest, ReadsRetryAfterAsSecondsOrAsAnHttpDate) {
  const double now = 784111777;  // Sun, 06 Nov 1994 08:49:37 GMT
  struct Case {
    const char* value;
    std::optional<std::chrono::milliseconds> wait;
    double late = 0;  // seconds past now
  };
  const Case cases[] = {
      {"1", milliseconds(1000)},
      {" 120 ", milliseconds(120'000)},
      {"0", milliseconds(0)},
      {"Sun, 06 Nov 1994 08:49:47 GMT", milliseconds(10'000)},
      {"Sun, 06 Nov 1994 08:49:37 GMT", milliseconds(0), 0.25},  // a date in the past means now
      // Absurd values are clamped, not wrapped.
      {"99999999999999999999999", milliseconds(int64_t{UINT32_MAX} * 1000)},
      {"Sunday, 06 November 1994 08:49:47 GMT", milliseconds(10'000)},
      {"sun, 6 nov 1994 08:49:47 gmt", milliseconds(10'000)},
      {"Sun,06 Nov 1994 08:49:47 GMT ", milliseconds(10'000)},
      {"Mon, 07 Nov 1994 08:49:37 GMT", milliseconds(86'400'000)},
      {"Thu, 01 Jan 1970 00:00:00 GMT", milliseconds(0)},
      {"Tue, 29 Feb 2000 00:00:00 GMT", milliseconds(int64_t{951782400 - 784111777} * 1000)},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(parseRetryAfter(c.value, now + c.late), c.wait) << c.value;
  }
  for (const char* bad :
       {"", "soon", "-5", "1.5", "Sun, 06 Nov 1994", "12abc", "Sun, 06 Nov 1994 08:49:47 GMT later",
        "Sun, 06 Nov 1994 08:49:47", "Sun, 32 Nov 1994 08:49:47 GMT", "Sun, 06 Nox 1994 08:49:47 GMT",
        "Sun, 06 Nov 1994 24:00:00 GMT", "Sun 06 Nov 1994 08:49:47 GMT", "Xyz, 06 Nov 1994 08:49:47 GMT"}) {
    EXPECT_EQ(parseRetryAfter(bad, now), std::nullopt) << bad;
  }
}

TEST(DeliveryRulesTest, BacksOffExponentiallyWithBoundedJitter) {
  const milliseconds base(100), cap(1'000);
  EXPECT_EQ(retryDelay(1, base, cap, 0.0), milliseconds(50));
  EXPECT_EQ(retryDelay(1, base, cap, 0.999), milliseconds(99));
  EXPECT_EQ(retryDelay(2, base, cap, 0.0), milliseconds(100));
  EXPECT_EQ(retryDelay(3, base, cap, 0.0), milliseconds(200));
  EXPECT_EQ(retryDelay(4, base, cap, 0.0), milliseconds(400));
  // The step stops at the cap however many attempts came before.
  EXPECT_EQ(retryDelay(5, base, cap, 1.0), cap);
  EXPECT_EQ(retryDelay(1'000, base, cap, 0.0), cap / 2);
  for (int attempt = 1; attempt < 12; ++attempt) {
    for (double jitter : {0.0, 0.3, 0.7, 1.0}) {
      const auto d = retryDelay(attempt, base, cap, jitter);
      const auto step = std::min(cap, base * (1 << (attempt - 1)));
      EXPECT_GE(d, step / 2);
      EXPECT_LE(d, step);
    }
  }
}

}  // namespace
}  // namespace korvel::network::internal
