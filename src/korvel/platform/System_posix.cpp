// Clocks, local time and the user's folders on Linux and other POSIX systems.
#include <korvel/platform/internal/System.h>

#include <pwd.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

namespace korvel::platform::internal {

double wallClockSeconds() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

uint64_t monotonicClockNanos() noexcept {
  // CLOCK_MONOTONIC does not advance while the machine is suspended.
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000ull + static_cast<uint64_t>(ts.tv_nsec);
}

std::tm localTimeOf(std::time_t moment) noexcept {
  std::tm tm{};
  localtime_r(&moment, &tm);
  return tm;
}

// $XDG_DOCUMENTS_DIR, else ~/Documents, else the working directory.
std::string documentsFolder() {
  if (const char* xdg = std::getenv("XDG_DOCUMENTS_DIR"); xdg != nullptr && *xdg != 0) {
    return xdg;
  }
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != 0) {
    return std::string(home) + "/Documents";
  }
  return ".";
}

// $XDG_DATA_HOME when it is absolute, else ~/.local/share, the home folder
// taken from the password database when $HOME is unset or relative.
std::filesystem::path userDataFolder() {
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') {
    return xdg;
  }
  const char* home = std::getenv("HOME");
  std::string fromPasswd;
  if (home == nullptr || home[0] != '/') {
    struct passwd entry {};
    struct passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr) {
      fromPasswd = found->pw_dir;
    }
    home = fromPasswd.empty() ? nullptr : fromPasswd.c_str();
  }
  if (home == nullptr) return {};
  return std::filesystem::path(home) / ".local" / "share";
}

std::filesystem::path userConfigFolder() {
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && *xdg == '/') return xdg;
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != 0) {
    return std::filesystem::path(home) / ".config";
  }
  return ".config";
}

unsigned long currentProcessId() noexcept { return static_cast<unsigned long>(::getpid()); }

}  // namespace korvel::platform::internal
