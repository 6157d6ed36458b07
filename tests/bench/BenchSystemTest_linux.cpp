#include "support/BenchSystem.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace korvel::bench {
namespace {

TEST(BenchSystemLinuxTest, MemoryGrowsByWhatIsTouchedAndTheParts) {
  const Memory before = memory();
  ASSERT_GT(before.residentKiB, 0);
  // 64 MiB written to, so every page is resident.
  constexpr size_t kBytes = size_t{64} << 20;
  auto* block = new char[kBytes];
  std::memset(block, 1, kBytes);
  const Memory after = memory();
  delete[] block;

  EXPECT_GE(after.residentKiB - before.residentKiB, 60 * 1024);
  EXPECT_GE(after.anonymousKiB - before.anonymousKiB, 60 * 1024);
  EXPECT_GE(after.peakKiB, after.residentKiB);
  EXPECT_GT(after.fileKiB, 0);
  EXPECT_LE(after.anonymousKiB + after.fileKiB, after.residentKiB);
}

TEST(BenchSystemLinuxTest, ANamedThreadIsListedWithItsCpuTimeAndSwitches) {
  std::mutex mutex;
  std::condition_variable changed;
  int step = 0;  // 1: named and spun; 2: may end
  std::thread worker([&] {
    pthread_setname_np(pthread_self(), "korvel-probe");
    // Blocks once, which is a switch away from it however idle the machine.
    std::this_thread::sleep_for(std::chrono::microseconds(1));
    // CPU time by itself, in clock ticks (10 ms): spins until it has some.
    const auto own = [] {
      for (const ThreadSample& t : threadSamples()) {
        if (t.name == "korvel-probe") return t.cpuSeconds;
      }
      return 0.0;
    };
    volatile unsigned long sink = 0;
    for (int round = 0; round < 20'000 && own() < 0.02; ++round) {
      for (int i = 0; i < 100'000; ++i) sink = sink + static_cast<unsigned long>(i);
    }
    std::unique_lock lock(mutex);
    step = 1;
    changed.notify_all();
    changed.wait(lock, [&] { return step == 2; });
  });
  {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return step == 1; });
  }
  const std::vector<ThreadSample> samples = threadSamples();
  {
    std::lock_guard lock(mutex);
    step = 2;
  }
  changed.notify_all();
  worker.join();

  EXPECT_GE(samples.size(), 2u);
  const auto probe = std::find_if(samples.begin(), samples.end(),
                                  [](const ThreadSample& t) { return t.name == "korvel-probe"; });
  ASSERT_NE(probe, samples.end());
  EXPECT_GE(probe->cpuSeconds, 0.02);
  EXPECT_GT(probe->switches, 0);
  EXPECT_FALSE(probe->id.empty());
  const auto others = std::count_if(samples.begin(), samples.end(),
                                    [&](const ThreadSample& t) { return t.id == probe->id; });
  EXPECT_EQ(others, 1);
}

}  // namespace
}  // namespace korvel::bench
