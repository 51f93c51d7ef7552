#include "host/LogFormat.h"

#include <cstdio>

#include "platform/JSONWriter.h"

namespace mavrel_host {
namespace {

using platform::appendJSONString;

std::tm localTime(std::time_t when) {
  std::tm parts{};
  ::localtime_r(&when, &parts);
  return parts;
}

void appendKey(std::string& out, std::string_view key) {
  out += out.size() > 1 ? ",\"" : "\"";
  out += key;
  out += "\":";
}

}  // namespace

std::string formatLineTimestamp(const timespec& when) {
  const std::tm parts = localTime(when.tv_sec);
  char text[96];  // room for any int values the compiler cannot bound
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03ld", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                static_cast<long>(when.tv_nsec / 1000000));
  return text;
}

std::string formatISOLineTimestamp(const timespec& when) {
  const std::tm parts = localTime(when.tv_sec);
  const long offset = parts.tm_gmtoff;
  const long magnitude = offset < 0 ? -offset : offset;
  char text[128];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ld%c%02ld:%02ld",
                parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                parts.tm_sec, static_cast<long>(when.tv_nsec / 1000000), offset < 0 ? '-' : '+',
                magnitude / 3600, magnitude / 60 % 60);
  return text;
}

std::string formatFileTimestamp(std::time_t when) {
  const std::tm parts = localTime(when);
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d-%02d%02d%02d", parts.tm_year + 1900,
                parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  return text;
}

std::string formatTextLine(LogFlavor flavor, const platform::LogLine& line,
                           std::string_view timestamp) {
  std::string out;
  out.reserve(timestamp.size() + line.function.size() + line.message.size() + 64);
  out += timestamp;
  out += " <" + std::to_string(line.level) + "> ";
  if (flavor == LogFlavor::Migration) {
    out += line.category;
    out += ' ';
    out += line.file;
    out += ':' + std::to_string(line.line) + ' ';
  }
  out += line.function;
  out += ": ";
  out += line.message;
  out += '\n';
  return out;
}

std::string formatJSONLine(LogFlavor flavor, const platform::LogLine& line,
                           std::string_view timestamp) {
  std::string out = "{";
  appendKey(out, "time");
  appendJSONString(out, timestamp);
  appendKey(out, "level");
  out += std::to_string(line.level);
  if (flavor == LogFlavor::Migration) {
    appendKey(out, "category");
    appendJSONString(out, line.category);
    appendKey(out, "file");
    appendJSONString(out, line.file);
    appendKey(out, "line");
    out += std::to_string(line.line);
  }
  appendKey(out, "function");
  appendJSONString(out, line.function);
  appendKey(out, "message");
  appendJSONString(out, line.message);
  out += "}\n";
  return out;
}

}  // namespace mavrel_host
