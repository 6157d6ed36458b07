// A test with an Env of its own and a fresh temporary folder, removed when
// the test ends: the fixture the store and journal tests share.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <system_error>

#include "support/TestEnv.h"

namespace korvel::testing {

class FolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scope_.emplace(env_);
    folder_ = makeTemporaryFolder("korvel-test");
    ASSERT_FALSE(folder_.empty());
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
