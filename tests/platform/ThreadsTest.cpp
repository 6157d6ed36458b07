#include <korvel/platform/internal/Threads.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <string>
#include <thread>

namespace korvel::platform {
namespace {

std::string threadName() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST(ThreadsTest, NamesTheCallingThreadKeepingWhatLinuxKeeps) {
  struct Case {
    const char* name;
    const char* shown;
  };
  const Case cases[] = {
      {"korvel-send", "korvel-send"},
      {"korvel-journal-writer", "korvel-journal-"},  // 15 bytes
      {"", ""},
  };
  for (const Case& c : cases) {
    std::string shown;
    std::thread([&] {
      nameThisThread(c.name);
      shown = threadName();
    }).join();
    EXPECT_EQ(shown, c.shown) << c.name;
  }
}

TEST(ThreadsTest, LowersTheCallingThreadAloneToBatchBelowNormal) {
  const int mainNice = getpriority(PRIO_PROCESS, 0);
  const int mainPolicy = sched_getscheduler(0);
  if (mainNice >= 19) GTEST_SKIP() << "already at the lowest priority";
  int nice = 0;
  int policy = -1;
  std::thread([&] {
    lowerThisThreadPriority();
    nice = getpriority(PRIO_PROCESS, 0);
    policy = sched_getscheduler(0);
  }).join();
  EXPECT_GT(nice, mainNice);
  EXPECT_EQ(policy, SCHED_BATCH);
  EXPECT_EQ(getpriority(PRIO_PROCESS, 0), mainNice);
  EXPECT_EQ(sched_getscheduler(0), mainPolicy);
}

}  // namespace
}  // namespace korvel::platform
