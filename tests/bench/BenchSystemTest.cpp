#include "support/BenchSystem.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

namespace korvel::bench {
namespace {

namespace fs = std::filesystem;

TEST(BenchSystemTest, EachTemporaryDirectoryIsNewAndEmptyAndNamedForItsPurpose) {
  const fs::path first = temporaryDirectory("unit");
  const fs::path second = temporaryDirectory("unit");
  ASSERT_FALSE(first.empty());
  ASSERT_FALSE(second.empty());
  EXPECT_NE(first, second);
  for (const fs::path& directory : {first, second}) {
    EXPECT_TRUE(fs::is_directory(directory));
    EXPECT_TRUE(fs::is_empty(directory));
    EXPECT_EQ(directory.filename().string().rfind("korvel-unit-", 0), 0u) << directory;
    std::error_code ec;
    fs::remove_all(directory, ec);
  }
}

TEST(BenchSystemTest, WorkOnTheCpuCountsAsUserTime) {
  const ProcessCpu before = processCpu();
  ProcessCpu now = before;
  volatile unsigned long sink = 0;
  // Until the clock of user time has moved on by a few ticks; bounded so a
  // clock that never moves fails instead of hanging.
  for (int round = 0; round < 20'000 && now.user - before.user < 0.05; ++round) {
    for (int i = 0; i < 100'000; ++i) sink = sink + static_cast<unsigned long>(i);
    now = processCpu();
  }
  EXPECT_GE(now.user - before.user, 0.05);
  EXPECT_LT(now.system - before.system, now.user - before.user);
}

TEST(BenchSystemTest, ThePeakIsAtLeastWhatIsResident) {
  const Memory now = memory();
  EXPECT_GT(now.residentKiB, 0);
  EXPECT_GE(now.peakKiB, now.residentKiB);
}

}  // namespace
}  // namespace korvel::bench
