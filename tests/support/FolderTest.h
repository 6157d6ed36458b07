// A test with an Env of its own and a fresh folder under /tmp (the user's
// temporary folder on Windows), removed when the test ends: the fixture the
// store and journal tests share.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <system_error>

#include "support/TestEnv.h"

namespace korvel::testing {

class FolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scope_.emplace(env_);
#ifdef _WIN32
    const std::filesystem::path base = std::filesystem::temp_directory_path();
#else
    const std::filesystem::path base = "/tmp";
#endif
    std::random_device seed;
    std::mt19937_64 random(seed());
    for (int attempt = 0; attempt < 100 && folder_.empty(); ++attempt) {
      const auto candidate = base / ("korvel-test-" + std::to_string(random() % 100'000'000));
      std::error_code ec;
      if (!std::filesystem::create_directory(candidate, ec)) continue;
      std::filesystem::permissions(candidate, std::filesystem::perms::owner_all, ec);  // 0700
      folder_ = candidate;
    }
    ASSERT_FALSE(folder_.empty()) << "no test folder could be made in " << base;
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
