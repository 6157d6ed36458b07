#include <korvel/platform/internal/Threads.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <string>
#include <thread>

using korvel::platform::internal::batchThisThread;
using korvel::platform::internal::lowerThisThreadPriority;
using korvel::platform::internal::nameThisThread;

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

TEST(ThreadsTest, ChangesTheCallingThreadAloneToItsLevel) {
  const int mainNice = getpriority(PRIO_PROCESS, 0);
  const int mainPolicy = sched_getscheduler(0);
  if (mainNice >= 19) GTEST_SKIP() << "already at the lowest priority";
  struct Case {
    const char* name;
    void (*change)() noexcept;
    bool nicer;  // a smaller share of a busy core than the host's threads
  };
  const Case cases[] = {
      {"batch", batchThisThread, false},
      {"lowered", lowerThisThreadPriority, true},
  };
  for (const Case& c : cases) {
    int nice = 0;
    int policy = -1;
    std::thread([&] {
      c.change();
      nice = getpriority(PRIO_PROCESS, 0);
      policy = sched_getscheduler(0);
    }).join();
    EXPECT_EQ(policy, SCHED_BATCH) << c.name;
    if (c.nicer) {
      EXPECT_GT(nice, mainNice) << c.name;
    } else {
      EXPECT_EQ(nice, mainNice) << c.name;
    }
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), mainNice) << c.name;
    EXPECT_EQ(sched_getscheduler(0), mainPolicy) << c.name;
  }
}

}  // namespace
}  // namespace korvel::platform
