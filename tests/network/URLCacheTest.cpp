#include <korvel/network/URLCache.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/TestEnv.h"

using korvel::platform::ScopedEnv;

namespace korvel {
namespace {

CachedURLResponse response(std::string body, std::optional<std::string> etag = std::nullopt) {
  CachedURLResponse r;
  r.body = std::move(body);
  r.etag = std::move(etag);
  return r;
}

class URLCacheTest : public ::testing::Test {
 protected:
  void SetUp() override { scope_.emplace(env_); }
  testing::TestEnv env_;
  std::optional<ScopedEnv> scope_;
};

TEST_F(URLCacheTest, StoresReplacesAndRemovesByURL) {
  URLCache cache;
  EXPECT_FALSE(cache.cachedResponseForURL("http://a.test/x"));
  cache.storeCachedResponse("http://a.test/x", response("one", "\"1\""));
  cache.storeCachedResponse("http://a.test/x?q=1", response("query"));

  auto hit = cache.cachedResponseForURL("http://a.test/x");
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->body, "one");
  EXPECT_EQ(hit->etag, "\"1\"");
  EXPECT_EQ(hit->storedAt, env_.now());
  // The query is part of the key.
  EXPECT_EQ(cache.cachedResponseForURL("http://a.test/x?q=1")->body, "query");

  cache.storeCachedResponse("http://a.test/x", response("two"));
  EXPECT_EQ(cache.cachedResponseForURL("http://a.test/x")->body, "two");
  EXPECT_FALSE(cache.cachedResponseForURL("http://a.test/x")->etag);
  EXPECT_EQ(cache.count(), 2u);
  EXPECT_EQ(cache.currentBytes(), 3u + 5u);

  cache.removeCachedResponseForURL("http://a.test/x");
  EXPECT_FALSE(cache.cachedResponseForURL("http://a.test/x"));
  cache.removeAllCachedResponses();
  EXPECT_EQ(cache.count(), 0u);
  EXPECT_EQ(cache.currentBytes(), 0u);
}

TEST_F(URLCacheTest, EvictsTheLeastRecentlyUsedEntryWhenFull) {
  URLCache byCount(2, 1000);
  byCount.storeCachedResponse("a", response("a"));
  byCount.storeCachedResponse("b", response("b"));
  (void)byCount.cachedResponseForURL("a");  // a is now the most recent
  byCount.storeCachedResponse("c", response("c"));
  EXPECT_TRUE(byCount.cachedResponseForURL("a"));
  EXPECT_FALSE(byCount.cachedResponseForURL("b"));
  EXPECT_TRUE(byCount.cachedResponseForURL("c"));

  URLCache byBytes(10, 10);
  byBytes.storeCachedResponse("a", response("aaaa"));
  byBytes.storeCachedResponse("b", response("bbbb"));
  byBytes.storeCachedResponse("c", response("cccc"));  // 12 bytes: a goes
  EXPECT_FALSE(byBytes.cachedResponseForURL("a"));
  EXPECT_EQ(byBytes.currentBytes(), 8u);

  // Larger than the whole cache: not stored, and nothing else is lost.
  byBytes.storeCachedResponse("huge", response(std::string(11, 'h')));
  EXPECT_FALSE(byBytes.cachedResponseForURL("huge"));
  EXPECT_EQ(byBytes.count(), 2u);
}

// Built with += (g++ 12 gives a false -Wrestrict on "u" + std::to_string()).
std::string urlFor(int n) {
  std::string url = "u";
  url += std::to_string(n);
  return url;
}

TEST_F(URLCacheTest, ConcurrentUseKeepsTheBookkeepingRight) {
  URLCache cache(8, 64);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&cache, t] {
      for (int i = 0; i < 500; ++i) {
        const std::string url = urlFor((t * 7 + i) % 12);
        cache.storeCachedResponse(url, response(std::string(i % 9, 'x')));
        (void)cache.cachedResponseForURL(urlFor(i % 12));
        if (i % 50 == 0) cache.removeAllCachedResponses();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_LE(cache.count(), 8u);
  EXPECT_LE(cache.currentBytes(), 64u);
  size_t bytes = 0;
  for (int i = 0; i < 12; ++i) {
    if (auto r = cache.cachedResponseForURL(urlFor(i))) bytes += r->body.size();
  }
  EXPECT_EQ(bytes, cache.currentBytes());
}

}  // namespace
}  // namespace korvel
