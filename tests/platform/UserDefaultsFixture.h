// The user-defaults tests' shared set-up: a fake environment whose documents
// folder holds the store, and helpers to read, plant and list its files.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestEnv.h"

namespace korvel::testing {

class UserDefaultsFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    scope_.emplace(env_);
    dir_ = env_.documentsDirectory() + "/prefs";
    path_ = dir_ + "/defaults.json";
  }

  std::string readFile(const std::string& path) const {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  void writeFile(const std::string& path, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
  }
  std::vector<std::string> filesIn(const std::string& dir) const {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
      names.push_back(e.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  bool logged(const std::string& fragment) {
    return env_.logs().messagesContaining(fragment) > 0;
  }

  TestEnv env_;
  std::optional<platform::ScopedEnv> scope_;
  std::string dir_;
  std::string path_;
};

}  // namespace korvel::testing
