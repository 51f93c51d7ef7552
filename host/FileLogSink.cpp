#include "host/FileLogSink.h"

#include <cstring>

namespace mavrel_host {
namespace {

timespec now() {
  timespec when{};
  ::clock_gettime(CLOCK_REALTIME, &when);
  return when;
}

bool reportFailure(const AppendOnlyFile& file, std::string* reason) {
  if (file.firstError() == 0) return true;
  if (reason != nullptr)
    *reason = "cannot write '" + file.path() + "': " + std::strerror(file.firstError());
  return false;
}

}  // namespace

FileLogSink::FileLogSink(LogFlavor flavor, AppendOnlyFile text, std::optional<AppendOnlyFile> json,
                         std::optional<int> fileLevel, Clock clock)
    : flavor_(flavor),
      text_(std::move(text)),
      json_(std::move(json)),
      fileLevel_(fileLevel),
      clock_(clock ? std::move(clock) : Clock(now)) {}

void FileLogSink::write(const platform::LogLine& line) {
  if (fileLevel_ && *fileLevel_ < line.level) return;
  const timespec when = clock_();
  text_.write(formatTextLine(flavor_, line, formatLineTimestamp(when)));
  if (json_) json_->write(formatJSONLine(flavor_, line, formatISOLineTimestamp(when)));
}

bool FileLogSink::finish(std::string* reason) {
  text_.sync();
  if (json_) json_->sync();
  if (!reportFailure(text_, reason)) return false;
  return !json_ || reportFailure(*json_, reason);
}

}  // namespace mavrel_host
