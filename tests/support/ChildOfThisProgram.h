// This test program started again as a child process whose standard output
// the test reads line by line, and killed at once (SIGKILL on POSIX,
// TerminateProcess on Windows) or waited for. The child finds its part by the variables
// it is given, during static initialisation, and never reaches the tests.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/ChildProcess.h"
#endif

#include <string>
#include <utility>
#include <vector>

namespace korvel::testing {

class ChildOfThisProgram {
 public:
  ChildOfThisProgram() = default;
  ChildOfThisProgram(const ChildOfThisProgram&) = delete;
  ChildOfThisProgram& operator=(const ChildOfThisProgram&) = delete;
  ~ChildOfThisProgram() {
    if (running_) kill();
    closeOutput();
  }

  // Its environment is this process's with variables ("NAME=value") set
  // and the other variables starting with dropPrefix left out.
  bool start(const std::vector<std::string>& variables, const std::string& dropPrefix) {
#ifdef _WIN32
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE write = nullptr;
    if (!CreatePipe(&read_, &write, &inherit, 0)) return false;
    SetHandleInformation(read_, HANDLE_FLAG_INHERIT, 0);
    std::wstring environment = environmentBlock(variables, dropPrefix);
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    std::wstring commandLine = L"\"" + std::wstring(self) + L"\"";
    running_ = CreateProcessW(self, commandLine.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                              environment.data(), nullptr, &startup, &process_);
    CloseHandle(write);
    if (running_) CloseHandle(process_.hThread);
#else
    int fds[2];
    if (pipe(fds) != 0) return false;
    // Only the child's standard output is the pipe's write end.
    fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    fcntl(fds[1], F_SETFD, FD_CLOEXEC);
    pid_ = spawnSelf(variables, dropPrefix, fds[1], 1);
    ::close(fds[1]);
    read_ = fds[0];
    running_ = pid_ > 0;
#endif
    return running_;
  }

  // Kills it at once; true when the kill ended it (it had not ended by
  // itself, nor crashed).
  bool kill() {
#ifdef _WIN32
    const bool killed = TerminateProcess(process_.hProcess, kKilledExitCode);
    return killed && reap() == kKilledExitCode;
#else
    ::kill(pid_, SIGKILL);
    const int status = reap();
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
#endif
  }

  // Waits for it to end by itself: its exit code, or -1 when a signal
  // ended it.
  int wait() {
#ifdef _WIN32
    return static_cast<int>(reap());
#else
    const int status = reap();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
  }

  // The next line it wrote (without its end); false once its output ended.
  bool readLine(std::string& line) {
    for (;;) {
      if (const size_t end = partial_.find('\n'); end != std::string::npos) {
        line = partial_.substr(0, end);
        partial_.erase(0, end + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return true;
      }
      char buffer[4096];
#ifdef _WIN32
      DWORD n = 0;
      if (!ReadFile(read_, buffer, sizeof buffer, &n, nullptr) || n == 0) return false;
#else
      const ssize_t n = ::read(read_, buffer, sizeof buffer);
      if (n <= 0) return false;
#endif
      partial_.append(buffer, static_cast<size_t>(n));
    }
  }

 private:
  // Waits for it to end: its exit code (Windows) or wait status (POSIX).
#ifdef _WIN32
  DWORD reap() {
    running_ = false;
    WaitForSingleObject(process_.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(process_.hProcess, &code);
    CloseHandle(process_.hProcess);
    return code;
  }
#else
  int reap() {
    running_ = false;
    int status = 0;
    waitpid(pid_, &status, 0);
    return status;
  }
#endif

#ifdef _WIN32
  static constexpr DWORD kKilledExitCode = 9;

  static std::wstring wide(const std::string& text) {
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size);
    return out;
  }
  static std::wstring environmentBlock(const std::vector<std::string>& variables, const std::string& dropPrefix) {
    std::wstring block;
    for (const auto& variable : variables) block += wide(variable) + L'\0';
    const std::wstring drop = wide(dropPrefix);
    wchar_t* own = GetEnvironmentStringsW();
    for (const wchar_t* entry = own; *entry != L'\0'; entry += wcslen(entry) + 1) {
      if (std::wstring_view(entry).substr(0, drop.size()) != drop) block += std::wstring(entry) + L'\0';
    }
    FreeEnvironmentStringsW(own);
    block += L'\0';
    return block;
  }
  void closeOutput() {
    if (read_ != nullptr) CloseHandle(read_);
    read_ = nullptr;
  }

  HANDLE read_ = nullptr;
  PROCESS_INFORMATION process_{};
#else
  void closeOutput() {
    if (read_ >= 0) ::close(read_);
    read_ = -1;
  }

  int read_ = -1;
  pid_t pid_ = -1;
#endif
  bool running_ = false;
  std::string partial_;
};

}  // namespace korvel::testing
