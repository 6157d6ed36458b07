#include "support/BenchSystem.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace korvel::bench::procfs {
namespace {

// A task's stat line as Linux writes it: utime (14th field) 250 ticks,
// stime (15th) 50, cutime and cstime (children's, not counted) 7000 and 9000.
std::string statLine(const std::string& name) {
  return "4242 (" + name + ") S 1 4242 4242 0 -1 4194560 3096 0 0 0 250 50 7000 9000 20 0 9 0 "
         "1234567 123456789 2345 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n";
}

TEST(ProcFilesTest, ATaskStatLineGivesItsNameAndItsOwnCpuTime) {
  struct Case {
    const char* name;
    std::string stat;
    std::optional<std::string> threadName;  // nothing: not a stat line
    double cpuSeconds = 0;
  };
  const Case cases[] = {
      {"a library thread", statLine("korvel-send-1"), "korvel-send-1", 3.0},
      {"a name with blanks and parentheses", statLine("a) (b c"), "a) (b c", 3.0},
      {"an empty name", statLine(""), "", 3.0},
      {"cut off before stime", "4242 (x) S 1 4242 4242 0 -1 4194560 3096 0 0 0 250", std::nullopt},
      {"no name", "4242 x S 1 2 3", std::nullopt},
      {"a closing parenthesis first", "4242 )x( S 1 2 3 4 5 6 7 8 9 10 11 12 13", std::nullopt},
      {"letters where the ticks stand", "4242 (x) S 1 4242 4242 0 -1 4194560 3096 0 0 0 ab 50 1",
       std::nullopt},
      {"empty", "", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto task = parseTaskStat(c.stat, 100);
    ASSERT_EQ(task.has_value(), c.threadName.has_value());
    if (!task) continue;
    EXPECT_EQ(task->name, *c.threadName);
    EXPECT_DOUBLE_EQ(task->cpuSeconds, c.cpuSeconds);
  }
}

TEST(ProcFilesTest, AStatusFieldIsTheNumberOnItsOwnLine) {
  const std::string status =
      "Name:\tkorvel-journal\n"
      "VmPeak:\t  812344 kB\n"
      "VmHWM:\t   40960 kB\n"
      "VmRSS:\t   30720 kB\n"
      "RssAnon:\t   20480 kB\n"
      "RssFile:\t   10240 kB\n"
      "Threads:\t9\n"
      "nonvoluntary_ctxt_switches:\t17\n"
      "voluntary_ctxt_switches:\t250\n"
      "Broken:\tnone\n"
      "Last:\t7";
  const struct {
    const char* key;
    long long value;
  } cases[] = {
      {"VmHWM", 40960},
      {"VmRSS", 30720},
      {"RssAnon", 20480},
      {"RssFile", 10240},
      {"voluntary_ctxt_switches", 250},  // not the nonvoluntary line before it
      {"nonvoluntary_ctxt_switches", 17},
      {"Last", 7},                       // the last line has no newline
      {"Vm", -1},                        // a key is a whole name
      {"Rss", -1},
      {"VmSwap", -1},                    // no such line
      {"Broken", -1},                    // no number on it
      {"", -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    EXPECT_EQ(statusField(status, c.key), c.value);
  }
  EXPECT_EQ(statusField("", "VmHWM"), -1);
}

}  // namespace
}  // namespace korvel::bench::procfs
