// The library's own threads ("korvel-send", "korvel-journal", ...) alive in
// this process now, by their names.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

namespace korvel::testing {

inline size_t libraryThreads() {
  size_t count = 0;
  std::error_code ec;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ec)) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    std::getline(comm, name);
    if (name.starts_with("korvel-")) ++count;
  }
  return count;
}

}  // namespace korvel::testing
