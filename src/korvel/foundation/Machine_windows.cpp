// The machine's identity on Windows: the firmware's product name as the
// system keeps it in the registry (the same SMBIOS field Linux shows in
// /sys/devices/virtual/dmi/id/product_name), and the version and build from
// RtlGetVersion, which, unlike GetVersionEx, is not capped at the version
// the program's manifest declares.
#include <korvel/foundation/internal/Machine.h>

#include <windows.h>

#include <string>

namespace korvel::foundation::internal {

namespace {

using RtlGetVersionFunction = LONG(WINAPI*)(OSVERSIONINFOW*);

std::string narrow(const wchar_t* text, int length) {
  if (length <= 0) return {};
  const int size = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
  if (size <= 0) return {};
  std::string out(static_cast<size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, length, out.data(), size, nullptr, nullptr);
  return out;
}

std::optional<std::string> registryText(const wchar_t* key, const wchar_t* name) {
  wchar_t buffer[256];
  DWORD size = sizeof buffer;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ, nullptr, buffer, &size) !=
      ERROR_SUCCESS) {
    return std::nullopt;
  }
  // size counts bytes, the terminating null included.
  int length = static_cast<int>(size / sizeof(wchar_t));
  while (length > 0 && (buffer[length - 1] == L'\0' || buffer[length - 1] == L' ')) --length;
  if (length == 0) return std::nullopt;
  return narrow(buffer, length);
}

std::optional<DWORD> registryNumber(const wchar_t* key, const wchar_t* name) {
  DWORD value = 0;
  DWORD size = sizeof value;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_DWORD, nullptr, &value, &size) !=
      ERROR_SUCCESS) {
    return std::nullopt;
  }
  return value;
}

std::optional<OSVERSIONINFOW> systemVersion() {
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  if (ntdll == nullptr) return std::nullopt;
  auto rtlGetVersion = reinterpret_cast<RtlGetVersionFunction>(
      reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlGetVersion")));
  if (rtlGetVersion == nullptr) return std::nullopt;
  OSVERSIONINFOW info{};
  info.dwOSVersionInfoSize = sizeof info;
  if (rtlGetVersion(&info) != 0) return std::nullopt;
  return info;
}

}  // namespace

MachineIdentity readMachineIdentity() {
  MachineIdentity identity;
  identity.model = registryText(L"HARDWARE\\DESCRIPTION\\System\\BIOS", L"SystemProductName")
                       .value_or("Windows");
  if (const auto version = systemVersion()) {
    std::string text = std::to_string(version->dwMajorVersion);
    text.append(".").append(std::to_string(version->dwMinorVersion));
    text.append(".").append(std::to_string(version->dwBuildNumber));
    identity.systemVersion = std::move(text);
    std::string build = std::to_string(version->dwBuildNumber);
    if (const auto revision =
            registryNumber(L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", L"UBR")) {
      build.append(".").append(std::to_string(*revision));
    }
    identity.osBuild = std::move(build);
  }
  return identity;
}

}  // namespace korvel::foundation::internal
