// Thread names and priorities on Windows.
#include <korvel/platform/internal/Threads.h>

#include <windows.h>

#include <string>

namespace korvel::platform::internal {

namespace {

using SetThreadDescriptionFunction = HRESULT(WINAPI*)(HANDLE, PCWSTR);

// SetThreadDescription arrived with Windows 10 1607: looked up, so that the
// library still loads on a system without it (and under older Wine).
SetThreadDescriptionFunction setThreadDescription() {
  static const auto function = [] {
    HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    FARPROC found = kernel != nullptr ? GetProcAddress(kernel, "SetThreadDescription") : nullptr;
    return reinterpret_cast<SetThreadDescriptionFunction>(reinterpret_cast<void*>(found));
  }();
  return function;
}

}  // namespace

void nameThisThread(const char* name) noexcept {
  const SetThreadDescriptionFunction describe = setThreadDescription();
  if (describe == nullptr) return;
  const int size = MultiByteToWideChar(CP_UTF8, 0, name, -1, nullptr, 0);
  if (size <= 0) return;
  std::wstring wide(static_cast<size_t>(size), L'\0');
  if (MultiByteToWideChar(CP_UTF8, 0, name, -1, wide.data(), size) <= 0) return;
  describe(GetCurrentThread(), wide.c_str());
}

void batchThisThread() noexcept {
  // Windows has no batch class: a thread that wakes preempts one of the same
  // priority or lower only at the end of its quantum, as batch threads do,
  // and a priority boost on wake-up is what would let it cut in. Without
  // the boost it keeps its fair share and waits its turn.
  SetThreadPriorityBoost(GetCurrentThread(), TRUE);
}

void lowerThisThreadPriority() noexcept {
  // Below the host's threads (normal priority), as nice +10 is on Linux.
  batchThisThread();
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL);
}

}  // namespace korvel::platform::internal
