// The two log sinks.
//
// The migration log belongs to the migration host: the migrator writes to it
// with its source file, function name, line, the category "MavrelHost", a
// level and a message. Everything else writes to the installer log with a
// level, a function name and a message.
//
// Levels are 3 (failure), 5 (notice) and 7 (trace). A log may have a handle
// with a level. A line of level 3 or 5 is written when no handle is set or the
// handle's level is at least the line's; a line of level 7 only when a handle
// is set and its level is at least 7.
//
// Where lines go is a LogSink, set by the host (files, console) or by a test
// (captured lines). Without a sink, lines go to standard error.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/Format.h"

namespace platform {

inline constexpr int kLogLevelError = 3;
inline constexpr int kLogLevelNotice = 5;
inline constexpr int kLogLevelDebug = 7;

struct LogLine {
  int level = kLogLevelError;
  std::string_view function;
  std::string_view message;
  std::string_view category;  // empty for the installer log
  std::string_view file;      // empty for the installer log
  int line = 0;
};

class LogSink {
 public:
  virtual ~LogSink() = default;
  // Called from any thread; the Log serialises calls to one sink.
  virtual void write(const LogLine& line) = 0;
};

class Log {
 public:
  explicit Log(std::string_view name) : name_(name) {}
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // Sets the handle's level; nullopt removes the handle.
  void setHandleLevel(std::optional<int> level);
  std::optional<int> handleLevel() const;
  // The threshold rule above.
  bool admits(int level) const;

  // Replaces the sink and returns the previous one; nullptr means standard error.
  std::shared_ptr<LogSink> setSink(std::shared_ptr<LogSink> sink);
  void write(const LogLine& line);

 private:
  std::string name_;
  std::atomic<int> handleLevel_{-1};
  std::mutex mutex_;
  std::shared_ptr<LogSink> sink_;
};

Log& installerLog();
Log& migrationLog();

// Writes a line to the installer log under `function`, if the level admits it.
template <class... Args>
void logInstaller(int level, std::string_view function, FormatString<Args...> text,
                  const Args&... args) {
  Log& log = installerLog();
  if (!log.admits(level)) return;
  const std::string message = format<Args...>(text, args...);
  log.write(LogLine{level, function, message, {}, {}, 0});
}

// The same with a format known only at run time and erased arguments.
void logInstallerV(int level, std::string_view function, std::string_view text,
                   std::span<const FormatArg> args);

// Writes a line to the migration log under the category "MavrelHost", with the
// source file and line where the format string was written.
template <class... Args>
void logMigration(int level, std::string_view function, FormatString<Args...> text,
                  const Args&... args) {
  Log& log = migrationLog();
  if (!log.admits(level)) return;
  const std::string message = format<Args...>(text, args...);
  std::string_view file = text.where().file_name();
  if (const auto slash = file.find_last_of('/'); slash != std::string_view::npos)
    file.remove_prefix(slash + 1);
  log.write(
      LogLine{level, function, message, "MavrelHost", file, static_cast<int>(text.where().line())});
}

// Installs a sink on a log for the lifetime of the object, then restores the
// previous sink and handle level.
class ScopedLogSink {
 public:
  ScopedLogSink(Log& log, std::shared_ptr<LogSink> sink, std::optional<int> handleLevel);
  ~ScopedLogSink();
  ScopedLogSink(const ScopedLogSink&) = delete;
  ScopedLogSink& operator=(const ScopedLogSink&) = delete;

 private:
  Log& log_;
  std::shared_ptr<LogSink> previousSink_;
  std::optional<int> previousLevel_;
};

}  // namespace platform
