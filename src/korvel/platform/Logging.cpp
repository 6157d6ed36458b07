#include <korvel/platform/Logging.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/foundation/internal/SharedSlot.h>
#include <korvel/platform/Env.h>

using korvel::foundation::internal::SharedSlot;
using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::platform {

std::string_view logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::Debug: return "debug";
    case LogLevel::Info: return "info";
    case LogLevel::Default: return "default";
    case LogLevel::Error: return "error";
    case LogLevel::Fault: return "fault";
  }
  return "default";
}

namespace {
bool equalIgnoringASCIICase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

LogLevel levelFromEnvironment() {
  const char* text = std::getenv("KORVEL_LOG_LEVEL");
  if (text == nullptr) return LogLevel::Default;
  for (LogLevel level : {LogLevel::Debug, LogLevel::Info, LogLevel::Default, LogLevel::Error,
                         LogLevel::Fault}) {
    if (equalIgnoringASCIICase(text, logLevelName(level))) return level;
  }
  return LogLevel::Default;
}

// Keeps the lines of concurrent writers whole, across every sink that writes
// to standard error.
Mutex& stderrMutex() {
  static Mutex* mutex = new Mutex;
  return *mutex;
}
}  // namespace

StderrLogSink::StderrLogSink() : minimum_(levelFromEnvironment()) {}

void StderrLogSink::write(const LogRecord& record) {
  if (record.level < minimum_) return;
  MutexLock lock(stderrMutex());
  std::fprintf(stderr, "[%s:%s] %s: %s\n", record.subsystem.c_str(), record.category.c_str(),
               std::string(logLevelName(record.level)).c_str(), record.message.c_str());
}

namespace {

struct HostLog {
  LogLevel minimum;
  LogCallback callback;
};

SharedSlot<const HostLog>& hostLog() {
  static auto* slot = new SharedSlot<const HostLog>;
  return *slot;
}

}  // namespace

void setLogCallback(LogLevel minimum, LogCallback callback) {
  hostLog().store(callback ? std::make_shared<const HostLog>(HostLog{minimum, std::move(callback)})
                           : nullptr);
}

void Logger::log(LogLevel level, std::string message) const {
  if (auto host = hostLog().load()) {
    if (level >= host->minimum) {
      try {
        host->callback(level, category_, message);
      } catch (...) {
        // The host's sink failing is no reason to fail the caller.
      }
    }
    return;
  }
  env().logSink().write(LogRecord{level, subsystem_, category_, std::move(message)});
}

}  // namespace korvel::platform
