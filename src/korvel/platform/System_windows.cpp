// Clocks, local time and the user's folders on Windows.
#include <korvel/platform/internal/System.h>

#include <windows.h>
#include <knownfolders.h>
#include <objbase.h>
#include <shlobj.h>

#include <stdlib.h>
#include <time.h>

namespace korvel::platform::internal {

namespace {

// 100-nanosecond intervals between 1601-01-01 (FILETIME's epoch) and 1970.
constexpr uint64_t kFileTimeOf1970 = 116444736000000000ull;

std::filesystem::path knownFolder(REFKNOWNFOLDERID id) {
  PWSTR path = nullptr;
  std::filesystem::path out;
  if (SUCCEEDED(SHGetKnownFolderPath(id, KF_FLAG_DEFAULT, nullptr, &path)) && path != nullptr) {
    out = path;
  }
  CoTaskMemFree(path);
  return out;
}

}  // namespace

double wallClockSeconds() noexcept {
  FILETIME ft{};
  GetSystemTimePreciseAsFileTime(&ft);
  const uint64_t ticks = (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  const uint64_t since1970 = ticks - kFileTimeOf1970;
  return static_cast<double>(since1970 / 10'000'000ull) +
         static_cast<double>(since1970 % 10'000'000ull) / 1e7;
}

uint64_t monotonicClockNanos() noexcept {
  // The performance counter: steady and fine-grained. Unlike Linux's
  // CLOCK_MONOTONIC it goes on counting while the machine sleeps.
  static const uint64_t frequency = [] {
    LARGE_INTEGER f{};
    QueryPerformanceFrequency(&f);
    return static_cast<uint64_t>(f.QuadPart);
  }();
  LARGE_INTEGER counter{};
  QueryPerformanceCounter(&counter);
  const auto ticks = static_cast<uint64_t>(counter.QuadPart);
  return ticks / frequency * 1'000'000'000ull + ticks % frequency * 1'000'000'000ull / frequency;
}

std::tm localTimeOf(std::time_t moment) noexcept {
  std::tm tm{};
  localtime_s(&tm, &moment);
  return tm;
}

std::string documentsFolder() {
  const std::filesystem::path documents = knownFolder(FOLDERID_Documents);
  if (documents.empty()) return ".";
  const std::u8string text = documents.u8string();
  return std::string(text.begin(), text.end());
}

// %LOCALAPPDATA% as the environment says when it names an absolute folder
// (as $XDG_DATA_HOME may move it on Linux), else the known folder.
std::filesystem::path localAppData() {
  if (const wchar_t* set = _wgetenv(L"LOCALAPPDATA"); set != nullptr && *set != 0) {
    std::filesystem::path folder(set);
    if (folder.is_absolute()) return folder;
  }
  return knownFolder(FOLDERID_LocalAppData);
}

std::filesystem::path userDataFolder() { return localAppData(); }

std::filesystem::path userConfigFolder() {
  std::filesystem::path folder = localAppData();
  return folder.empty() ? std::filesystem::path(".") : folder;
}

unsigned long currentProcessId() noexcept { return GetCurrentProcessId(); }

}  // namespace korvel::platform::internal
