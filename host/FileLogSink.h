// A log sink that writes each line to a text file and, optionally, to a JSON
// lines file (formats in LogFormat.h).
//
// `fileLevel` lets the files be stricter than the log itself: the host may
// admit notices to the migration log so that the progress display sees them
// while the user asked for errors only. With a level set, a line is written
// when the level is at least the line's; without one, every line the log
// passes on is written.
//
// Error contract: write failures never reach the logging code; the first one
// is kept and reported by finish().
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "host/LogFile.h"
#include "host/LogFormat.h"
#include "platform/Log.h"

namespace mavrel_host {

class FileLogSink final : public platform::LogSink {
 public:
  using Clock = std::function<timespec()>;

  FileLogSink(LogFlavor flavor, AppendOnlyFile text, std::optional<AppendOnlyFile> json,
              std::optional<int> fileLevel, Clock clock = {});

  void write(const platform::LogLine& line) override;

  // Flushes both files to stable storage. False, with the reason naming the
  // file and the error, when a write or the flush failed at any time.
  bool finish(std::string* reason);

  const std::string& textPath() const { return text_.path(); }

 private:
  LogFlavor flavor_;
  AppendOnlyFile text_;
  std::optional<AppendOnlyFile> json_;
  std::optional<int> fileLevel_;
  Clock clock_;
};

}  // namespace mavrel_host
