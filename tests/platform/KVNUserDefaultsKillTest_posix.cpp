// A writer killed at an arbitrary instant (SIGKILL to a forked child).
#include <korvel/platform/KVNUserDefaults.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/UserDefaultsFixture.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;

using KVNUserDefaultsKillTest = testing::UserDefaultsFixture;

TEST_F(KVNUserDefaultsKillTest, AKilledWriterLeavesACompleteOldOrNewFile) {
  // A child process rewrites the store as fast as it can with values of
  // two different sizes; it is killed at an arbitrary point of a write.
  const std::string a(200'000, 'a');
  const std::string b(100'000, 'b');
  { KVNUserDefaults(path_).setObject(a, "v"); }
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(ready[0]);
    KVNUserDefaults defaults(path_);
    for (int i = 0; i < 100'000; ++i) {
      defaults.setObject(i % 2 == 0 ? b : a, "v");
      if (i == 2) {
        const char one = 1;
        if (write(ready[1], &one, 1) != 1) _exit(2);
      }
    }
    _exit(0);
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);

  KVNUserDefaults after(path_);
  auto v = after.stringForKey("v");
  ASSERT_TRUE(v) << "the store did not survive the kill";
  EXPECT_TRUE(*v == a || *v == b);
  EXPECT_FALSE(logged("unusable"));
  for (const auto& name : filesIn(dir_)) EXPECT_EQ(name.find(".corrupt"), std::string::npos);
}

}  // namespace
}  // namespace korvel
