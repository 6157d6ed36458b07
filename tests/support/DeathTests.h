// Death tests run their statement in a fresh copy of the test program
// ("threadsafe"), so that threads the library started in the test process
// cannot hold a lock the dying child needs. A cross build's tests run under
// an emulator (KORVEL_TEST_EMULATOR), which the kernel cannot start the
// program under by itself: there the child is forked ("fast").
#pragma once

#include <cstdlib>

#include <gtest/gtest.h>

namespace korvel::testing {

inline void useThreadsafeDeathTests() {
  GTEST_FLAG_SET(death_test_style, std::getenv("KORVEL_TEST_EMULATOR") != nullptr ? "fast" : "threadsafe");
}

}  // namespace korvel::testing
