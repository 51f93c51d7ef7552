// The host's log line formats.
//
// Text, migration log:
//   2026-11-21 08:32:00.123 <5> MavrelHost AppMigrator.cpp:123 <function>: <message>
// Text, installer log:
//   2026-11-21 08:32:00.123 <3> <function>: <message>
// JSON (both logs): one object per line with "time" (ISO 8601 with the zone), "level", "function"
// and "message", plus "category", "file" and "line" for the migration log. The message is carried
// exactly; JSON strings are quoted by platform::appendJSONString (platform/JSONWriter.h): quotes,
// backslashes and control characters are escaped, and each invalid UTF-8 sequence becomes U+FFFD.
//
// These functions cannot fail. Every returned line ends with "\n".
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "platform/Log.h"

namespace mavrel_host {

enum class LogFlavor { Migration, Installer };

// "2026-11-21 08:32:00.123" in local time.
std::string formatLineTimestamp(const timespec& when);
// "2026-11-21T08:32:00.123+01:00": ISO 8601 in local time with the zone, for JSON lines.
std::string formatISOLineTimestamp(const timespec& when);
// "2026-11-21-083200" in local time, for log file names.
std::string formatFileTimestamp(std::time_t when);

std::string formatTextLine(LogFlavor flavor, const platform::LogLine& line,
                           std::string_view timestamp);
std::string formatJSONLine(LogFlavor flavor, const platform::LogLine& line,
                           std::string_view timestamp);

}  // namespace mavrel_host
