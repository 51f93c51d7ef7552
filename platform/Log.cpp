#include "platform/Log.h"

#include <cstdio>

namespace platform {

void Log::setHandleLevel(std::optional<int> level) {
  handleLevel_.store(level ? *level : -1);
}

std::optional<int> Log::handleLevel() const {
  const int level = handleLevel_.load();
  return level < 0 ? std::nullopt : std::optional<int>(level);
}

bool Log::admits(int level) const {
  const int handle = handleLevel_.load();
  if (level <= kLogLevelNotice && handle < 0) return true;
  return handle >= level;
}

std::shared_ptr<LogSink> Log::setSink(std::shared_ptr<LogSink> sink) {
  std::lock_guard lock(mutex_);
  std::swap(sink_, sink);
  return sink;
}

void Log::write(const LogLine& line) {
  std::lock_guard lock(mutex_);
  if (sink_) {
    sink_->write(line);
    return;
  }
  std::fprintf(stderr, "%s <%d> %.*s: %.*s\n", name_.c_str(), line.level,
               static_cast<int>(line.function.size()), line.function.data(),
               static_cast<int>(line.message.size()), line.message.data());
}

Log& installerLog() {
  static Log* const log = new Log("Corvane");  // never destroyed: used until exit
  return *log;
}

Log& migrationLog() {
  static Log* const log = new Log("Mavrel");
  return *log;
}

void logInstallerV(int level, std::string_view function, std::string_view text,
                   std::span<const FormatArg> args) {
  Log& log = installerLog();
  if (!log.admits(level)) return;
  const std::string message = vformat(text, args);
  log.write(LogLine{level, function, message, {}, {}, 0});
}

ScopedLogSink::ScopedLogSink(Log& log, std::shared_ptr<LogSink> sink,
                             std::optional<int> handleLevel)
    : log_(log), previousSink_(log.setSink(std::move(sink))), previousLevel_(log.handleLevel()) {
  log_.setHandleLevel(handleLevel);
}

ScopedLogSink::~ScopedLogSink() {
  log_.setSink(std::move(previousSink_));
  log_.setHandleLevel(previousLevel_);
}

}  // namespace platform
