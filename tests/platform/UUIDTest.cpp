#include <korvel/platform/Env.h>

#include <gtest/gtest.h>

#include <thread>
#include <unordered_set>

namespace korvel::platform {
namespace {

bool isCanonicalV4(const std::string& uuid) {
  if (uuid.size() != 36) return false;
  for (size_t i = 0; i < uuid.size(); ++i) {
    const char c = uuid[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return false;
    } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
      return false;
    }
  }
  return uuid[14] == '4' && std::string_view("89AB").find(uuid[19]) != std::string_view::npos;
}

TEST(UUIDTest, CanonicalUpperCaseVersion4) {
  // Enough calls to pass through several buffer refills.
  for (int i = 0; i < 1000; ++i) {
    const std::string uuid = makeRandomUUIDString();
    ASSERT_TRUE(isCanonicalV4(uuid)) << uuid;
  }
}

TEST(UUIDTest, ThreadsGetDistinctValues) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 2000;
  std::vector<std::vector<std::string>> results(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&results, t] {
      for (int i = 0; i < kPerThread; ++i) results[t].push_back(makeRandomUUIDString());
    });
  }
  for (auto& thread : threads) thread.join();

  std::unordered_set<std::string> all;
  for (const auto& list : results) {
    for (const auto& uuid : list) {
      EXPECT_TRUE(isCanonicalV4(uuid)) << uuid;
      all.insert(uuid);
    }
  }
  EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kPerThread));
}

}  // namespace
}  // namespace korvel::platform
