// The operating system's clocks, local time and well-known folders, one
// implementation per system (System_posix.cpp, System_windows.cpp).
#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>

namespace korvel::platform::internal {

// Seconds since 1970 (UTC), with the system clock's resolution.
double wallClockSeconds() noexcept;

// A clock that never goes back, in nanoseconds from an unspecified start.
uint64_t monotonicClockNanos() noexcept;

// The local calendar time of a moment, in the system's time zone.
std::tm localTimeOf(std::time_t moment) noexcept;

// The user's documents folder; "." when the system names none.
std::string documentsFolder();

// The folder where applications keep the user's data on this machine
// ($XDG_DATA_HOME or ~/.local/share on Linux, %LOCALAPPDATA% on Windows);
// empty when the system names none.
std::filesystem::path userDataFolder();

// The folder where applications keep the user's settings ($XDG_CONFIG_HOME
// or ~/.config on Linux, else .config in the working folder;
// %LOCALAPPDATA% on Windows, else the working folder). On Windows the
// environment's LOCALAPPDATA is taken when it names an absolute folder.
std::filesystem::path userConfigFolder();

// This process's identifier, for names no other process picks at once.
unsigned long currentProcessId() noexcept;

}  // namespace korvel::platform::internal
