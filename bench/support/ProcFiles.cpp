// Linux's /proc/<pid>/task/<tid>/stat and status files, read as text (the
// files themselves are opened in BenchSystem_posix.cpp).
#include "BenchSystem.h"

#include <algorithm>
#include <charconv>

namespace korvel::bench::procfs {

namespace {

// The whole number at the start of text after blanks; nothing when none.
std::optional<long long> leadingNumber(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return std::nullopt;
  long long value = 0;
  const auto [end, error] = std::from_chars(text.data() + first, text.data() + text.size(), value);
  if (error != std::errc()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<TaskStat> parseTaskStat(std::string_view stat, double ticksPerSecond) {
  // "tid (name) state ppid ...": the name may hold blanks and parentheses,
  // so it ends at the last ')'. After it, counting from the state as the
  // 3rd field, utime is the 14th and stime the 15th.
  const size_t open = stat.find('(');
  const size_t close = stat.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
    return std::nullopt;
  }
  TaskStat task;
  task.name = std::string(stat.substr(open + 1, close - open - 1));
  std::string_view rest = stat.substr(close + 1);
  long long ticks = 0;
  for (int field = 3; field <= 15; ++field) {
    const size_t start = rest.find_first_not_of(' ');
    if (start == std::string_view::npos) return std::nullopt;
    rest.remove_prefix(start);
    const size_t end = std::min(rest.find(' '), rest.size());
    if (field >= 14) {
      const auto value = leadingNumber(rest.substr(0, end));
      if (!value) return std::nullopt;
      ticks += *value;
    }
    rest.remove_prefix(end);
  }
  task.cpuSeconds = static_cast<double>(ticks) / ticksPerSecond;
  return task;
}

long long statusField(std::string_view status, std::string_view key) {
  while (!status.empty()) {
    const size_t end = std::min(status.find('\n'), status.size());
    const std::string_view line = status.substr(0, end);
    status.remove_prefix(std::min(end + 1, status.size()));
    if (line.size() > key.size() && line.starts_with(key) && line[key.size()] == ':') {
      return leadingNumber(line.substr(key.size() + 1)).value_or(-1);
    }
  }
  return -1;
}

}  // namespace korvel::bench::procfs
