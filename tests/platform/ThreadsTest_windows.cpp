#include <korvel/platform/internal/Threads.h>

#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <thread>

using korvel::platform::internal::batchThisThread;
using korvel::platform::internal::lowerThisThreadPriority;
using korvel::platform::internal::nameThisThread;

namespace korvel::platform {
namespace {

using GetThreadDescriptionFunction = HRESULT(WINAPI*)(HANDLE, PWSTR*);

std::wstring threadName() {
  HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
  auto get = reinterpret_cast<GetThreadDescriptionFunction>(
      reinterpret_cast<void*>(GetProcAddress(kernel, "GetThreadDescription")));
  if (get == nullptr) return L"(no GetThreadDescription)";
  PWSTR name = nullptr;
  if (FAILED(get(GetCurrentThread(), &name))) return L"(failed)";
  std::wstring out = name;
  LocalFree(name);
  return out;
}

TEST(ThreadsTest, NamesTheCallingThreadInFull) {
  struct Case {
    const char* name;
    const wchar_t* shown;
  };
  const Case cases[] = {
      {"korvel-send", L"korvel-send"},
      {"korvel-journal-writer", L"korvel-journal-writer"},  // no 15-byte cut
      {"korvel-\xC3\xA9", L"korvel-\u00E9"},                  // UTF-8
  };
  for (const Case& c : cases) {
    std::wstring shown;
    std::thread([&] {
      nameThisThread(c.name);
      shown = threadName();
    }).join();
    EXPECT_EQ(shown, c.shown) << c.name;
  }
}

// Whether the system keeps a thread's priority-boost setting (Wine accepts
// the call and reads back the default).
bool boostSettingIsKept() {
  BOOL disabled = FALSE;
  std::thread([&] {
    SetThreadPriorityBoost(GetCurrentThread(), TRUE);
    GetThreadPriorityBoost(GetCurrentThread(), &disabled);
  }).join();
  return disabled != FALSE;
}

TEST(ThreadsTest, ChangesTheCallingThreadAloneToItsLevel) {
  const int mainPriority = GetThreadPriority(GetCurrentThread());
  const bool boostKept = boostSettingIsKept();
  struct Case {
    const char* name;
    void (*change)() noexcept;
    int priority;
  };
  const Case cases[] = {
      {"batch", batchThisThread, THREAD_PRIORITY_NORMAL},
      {"lowered", lowerThisThreadPriority, THREAD_PRIORITY_BELOW_NORMAL},
  };
  for (const Case& c : cases) {
    int priority = 0;
    BOOL boostDisabled = FALSE;
    std::thread([&] {
      c.change();
      priority = GetThreadPriority(GetCurrentThread());
      GetThreadPriorityBoost(GetCurrentThread(), &boostDisabled);
    }).join();
    EXPECT_EQ(priority, c.priority) << c.name;
    if (boostKept) {
      EXPECT_TRUE(boostDisabled) << c.name;
    }
    EXPECT_EQ(GetThreadPriority(GetCurrentThread()), mainPriority) << c.name;
  }
}

}  // namespace
}  // namespace korvel::platform
