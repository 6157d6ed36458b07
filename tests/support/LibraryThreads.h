// The library's own threads ("korvel-send", "korvel-journal", ...) alive in
// this process now, by their names.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>

#if defined(_WIN32)
#include <windows.h>
#include <tlhelp32.h>
#endif

namespace korvel::testing {

#if defined(_WIN32)
// The threads of this process whose description starts "korvel-".
inline size_t libraryThreads() {
  using GetThreadDescriptionFunction = HRESULT(WINAPI*)(HANDLE, PWSTR*);
  const auto describe = reinterpret_cast<GetThreadDescriptionFunction>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription")));
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (describe == nullptr || snapshot == INVALID_HANDLE_VALUE) return 0;
  size_t count = 0;
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID != GetCurrentProcessId()) continue;
    HANDLE thread = OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, entry.th32ThreadID);
    if (thread == nullptr) continue;
    PWSTR name = nullptr;
    if (SUCCEEDED(describe(thread, &name)) && name != nullptr) {
      if (std::wstring_view(name).starts_with(L"korvel-")) ++count;
      LocalFree(name);
    }
    CloseHandle(thread);
  }
  CloseHandle(snapshot);
  return count;
}
#else
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
#endif

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
