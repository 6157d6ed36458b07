// Unified logging: every record carries a subsystem, a category and a level,
// and goes to the current Env's LogSink.
#pragma once

#include <korvel/export.h>

#include <functional>
#include <string>
#include <string_view>

namespace korvel::platform {

enum class LogLevel { Debug, Info, Default, Error, Fault };

KORVEL_EXPORT std::string_view logLevelName(LogLevel level);

struct KORVEL_EXPORT LogRecord {
  LogLevel level;
  std::string subsystem;
  std::string category;
  std::string message;
};

class KORVEL_EXPORT LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(const LogRecord& record) = 0;
};

// Writes one line per record to standard error:
//   [subsystem:category] level: message
// Records below the minimum level are dropped; the minimum comes from the
// KORVEL_LOG_LEVEL environment variable (debug, info, default, error, fault;
// "default" when unset). Any thread may write, and lines stay whole whichever
// sink writes them; the Env that made the sink owns it.
class KORVEL_EXPORT StderrLogSink : public LogSink {
 public:
  StderrLogSink();
  void write(const LogRecord& record) override;

 private:
  LogLevel minimum_;
};

// A host's own log sink: while one is set, every record at or above its
// minimum level goes to it (from the thread that logs, which may be any
// thread), and no record goes to the Env's sink. A null callback goes back to
// the Env's sink. The callback must not block for long and must not call
// back into the library.
using LogCallback = std::function<void(LogLevel level, std::string_view category,
                                       std::string_view message)>;
KORVEL_EXPORT void setLogCallback(LogLevel minimum, LogCallback callback);

// A logger bound to one subsystem and category.
class KORVEL_EXPORT Logger {
 public:
  Logger(std::string subsystem, std::string category)
      : subsystem_(std::move(subsystem)), category_(std::move(category)) {}
  void log(LogLevel level, std::string message) const;
  void log(std::string message) const { log(LogLevel::Default, std::move(message)); }
  const std::string& subsystem() const { return subsystem_; }
  const std::string& category() const { return category_; }

 private:
  std::string subsystem_;
  std::string category_;
};

}  // namespace korvel::platform
