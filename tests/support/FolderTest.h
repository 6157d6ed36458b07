// A test with an Env of its own and a fresh folder under /tmp, removed when
// the test ends: the fixture the store and journal tests share.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <system_error>

#include "support/TestEnv.h"

namespace korvel::testing {

class FolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scope_.emplace(env_);
    char pattern[] = "/tmp/korvel-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    folder_ = pattern;
    dir_ = folder_;
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(folder_, ec);
    scope_.reset();
  }

  mutable TestEnv env_;
  std::optional<platform::ScopedEnv> scope_;
  // The test's folder; a fixture may point it lower down (the whole folder
  // is removed all the same).
  std::filesystem::path dir_;

 private:
  std::filesystem::path folder_;
};

}  // namespace korvel::testing
