// The library's own threads ("korvel-send", "korvel-journal", ...) alive in
// this process now, by their names.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

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

// Whether the library's threads show up within the deadline: a thread
// names itself once it runs, a moment after the call that started it.
inline bool libraryThreadsAppear(std::chrono::milliseconds deadline = std::chrono::seconds(5)) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (libraryThreads() == 0) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

}  // namespace korvel::testing
