#include "host/LogFormat.h"

#include <cstdint>
#include <cstdio>

namespace mavrel_host {
namespace {

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";  // U+FFFD

std::tm localTime(std::time_t when) {
  std::tm parts{};
  ::localtime_r(&when, &parts);
  return parts;
}

// Length of the well-formed UTF-8 sequence at the start of `text`, or 0 when
// it does not start with one. Follows the table of well-formed byte sequences:
// no overlong forms, no surrogates, nothing above U+10FFFF.
std::size_t wellFormedSequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const auto continuation = [&](std::size_t i, std::uint8_t low, std::uint8_t high) {
    return i < text.size() && byte(i) >= low && byte(i) <= high;
  };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return continuation(1, 0x80, 0xBF) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const std::uint8_t low = lead == 0xE0 ? 0xA0 : 0x80;
    const std::uint8_t high = lead == 0xED ? 0x9F : 0xBF;
    return continuation(1, low, high) && continuation(2, 0x80, 0xBF) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const std::uint8_t low = lead == 0xF0 ? 0x90 : 0x80;
    const std::uint8_t high = lead == 0xF4 ? 0x8F : 0xBF;
    return continuation(1, low, high) && continuation(2, 0x80, 0xBF) && continuation(3, 0x80, 0xBF)
               ? 4
               : 0;
  }
  return 0;
}

// How many bytes one U+FFFD stands for at the start of an ill-formed
// sequence: the longest prefix that could still have begun a valid one (the
// "maximal subpart"), at least one byte.
std::size_t illFormedPrefixLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  std::size_t expected = 0;
  std::uint8_t low = 0x80, high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    expected = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    expected = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    expected = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 1;
  }
  std::size_t length = 1;
  while (length < expected && length < text.size()) {
    const std::uint8_t next = byte(length);
    const bool fits = length == 1 ? next >= low && next <= high : next >= 0x80 && next <= 0xBF;
    if (!fits) break;
    ++length;
  }
  return length;
}

void appendEscapedASCII(std::string& out, char c) {
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\b':
      out += "\\b";
      return;
    case '\f':
      out += "\\f";
      return;
    default:
      break;
  }
  if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
    out += escaped;
    return;
  }
  out += c;
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

void appendJSONString(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const std::size_t length = wellFormedSequenceLength(text);
    if (length == 1) {
      appendEscapedASCII(out, text.front());
    } else if (length > 1) {
      out += text.substr(0, length);
    } else {
      out += kReplacementCharacter;
      text.remove_prefix(illFormedPrefixLength(text));
      continue;
    }
    text.remove_prefix(length);
  }
  out += '"';
}

}  // namespace mavrel_host
