#include "support/BenchSystem.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace korvel::bench {
namespace {

TEST(BenchSystemTest, AChildProcessGivesBackWhatItsBodyReturnsOrNothingWhenItFails) {
  EXPECT_EQ(inChildProcess([] { return std::vector<double>{1.5, -2, 1e300}; }),
            (std::vector<double>{1.5, -2, 1e300}));
  EXPECT_TRUE(inChildProcess([] { return std::vector<double>{}; }).empty());
  // Far more than a pipe holds at once: read while the child still writes.
  std::vector<double> many(100'000);
  for (size_t i = 0; i < many.size(); ++i) many[i] = static_cast<double>(i) / 3;
  EXPECT_EQ(inChildProcess([&] { return many; }), many);
  // A body that gives up: whatever it wrote before does not count.
  EXPECT_TRUE(inChildProcess([]() -> std::vector<double> { std::_Exit(3); }).empty());
}

TEST(BenchSystemTest, TheLoadAverageIsThreeFigures) {
  double one = -1, five = -1, fifteen = -1;
  ASSERT_EQ(std::sscanf(loadAverage().c_str(), "%lf %lf %lf", &one, &five, &fifteen), 3);
  EXPECT_GE(one, 0);
  EXPECT_GE(five, 0);
  EXPECT_GE(fifteen, 0);
}

}  // namespace
}  // namespace korvel::bench
