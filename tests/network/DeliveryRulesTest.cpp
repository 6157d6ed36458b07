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
  for (long s : {200L, 201L, 204L, 299L}) {
    EXPECT_EQ(classifyDelivery(answered(s)), DeliveryVerdict::Delivered) << s;
  }
  for (long s : {408L, 429L, 500L, 502L, 503L, 599L}) {
    EXPECT_EQ(classifyDelivery(answered(s)), DeliveryVerdict::Retry) << s;
  }
  for (long s : {301L, 400L, 401L, 403L, 404L, 410L, 413L, 414L, 451L}) {
    EXPECT_EQ(classifyDelivery(answered(s)), DeliveryVerdict::Drop) << s;
  }
  DeliveryResponse broken;  // connected, then no complete answer
  broken.reachedServer = true;
  EXPECT_EQ(classifyDelivery(broken), DeliveryVerdict::Retry);
  DeliveryResponse offline;  // never connected
  EXPECT_EQ(classifyDelivery(offline), DeliveryVerdict::RetryUncounted);
}

TEST(DeliveryRulesTest, ReadsRetryAfterAsSecondsOrAsAnHttpDate) {
  const double now = 784111777;  // Sun, 06 Nov 1994 08:49:37 GMT
  EXPECT_EQ(parseRetryAfter("1", now), milliseconds(1000));
  EXPECT_EQ(parseRetryAfter(" 120 ", now), milliseconds(120'000));
  EXPECT_EQ(parseRetryAfter("0", now), milliseconds(0));
  EXPECT_EQ(parseRetryAfter("Sun, 06 Nov 1994 08:49:47 GMT", now), milliseconds(10'000));
  EXPECT_EQ(parseRetryAfter("Sun, 06 Nov 1994 08:49:37 GMT", now + 0.25), milliseconds(0))
      << "a date in the past means now";
  EXPECT_EQ(parseRetryAfter("99999999999999999999999", now), milliseconds(int64_t{UINT32_MAX} * 1000))
      << "absurd values are clamped, not wrapped";
  for (const char* bad : {"", "soon", "-5", "1.5", "Sun, 06 Nov 1994", "12abc"}) {
    EXPECT_EQ(parseRetryAfter(bad, now), std::nullopt) << bad;
  }
}

TEST(DeliveryRulesTest, ReadsHttpDatesWithTheLeniencyOfStrptime) {
  const double now = 784111777;  // Sun, 06 Nov 1994 08:49:37 GMT
  struct Case {
    const char* value;
    std::optional<std::chrono::milliseconds> wait;
  };
  const Case cases[] = {
      {"Sunday, 06 November 1994 08:49:47 GMT", milliseconds(10'000)},
      {"sun, 6 nov 1994 08:49:47 gmt", milliseconds(10'000)},
      {"Sun,06 Nov 1994 08:49:47 GMT ", milliseconds(10'000)},
      {"Mon, 07 Nov 1994 08:49:37 GMT", milliseconds(86'400'000)},
      {"Thu, 01 Jan 1970 00:00:00 GMT", milliseconds(0)},
      {"Tue, 29 Feb 2000 00:00:00 GMT", milliseconds(int64_t{951782400 - 784111777} * 1000)},
      {"Sun, 06 Nov 1994 08:49:47 GMT later", std::nullopt},
      {"Sun, 06 Nov 1994 08:49:47", std::nullopt},
      {"Sun, 32 Nov 1994 08:49:47 GMT", std::nullopt},
      {"Sun, 06 Nox 1994 08:49:47 GMT", std::nullopt},
      {"Sun, 06 Nov 1994 24:00:00 GMT", std::nullopt},
      {"Sun 06 Nov 1994 08:49:47 GMT", std::nullopt},
      {"Xyz, 06 Nov 1994 08:49:47 GMT", std::nullopt},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(parseRetryAfter(c.value, now), c.wait) << c.value;
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
