#include "platform/JSONWriter.h"

#include <cmath>
#include <cstdio>

namespace platform {
namespace {

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";  // U+FFFD

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

}  // namespace

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

void JSONWriter::newLine() {
  out_ += '\n';
  out_.append(hasMember_.size() * 2, ' ');
}

void JSONWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (hasMember_.empty()) return;
  if (hasMember_.back()) out_ += ',';
  hasMember_.back() = true;
  if (layout_ == Layout::Indented) newLine();
}

void JSONWriter::close(char bracket) {
  const bool hadMember = hasMember_.back();
  hasMember_.pop_back();
  if (hadMember && layout_ == Layout::Indented) newLine();
  out_ += bracket;
}

JSONWriter& JSONWriter::beginObject() {
  beforeValue();
  out_ += '{';
  hasMember_.push_back(false);
  return *this;
}

JSONWriter& JSONWriter::endObject() {
  close('}');
  return *this;
}

JSONWriter& JSONWriter::beginArray() {
  beforeValue();
  out_ += '[';
  hasMember_.push_back(false);
  return *this;
}

JSONWriter& JSONWriter::endArray() {
  close(']');
  return *this;
}

JSONWriter& JSONWriter::key(std::string_view name) {
  beforeValue();
  appendJSONString(out_, name);
  out_ += layout_ == Layout::Indented ? ": " : ":";
  afterKey_ = true;
  return *this;
}

JSONWriter& JSONWriter::value(std::string_view text) {
  beforeValue();
  appendJSONString(out_, text);
  return *this;
}

JSONWriter& JSONWriter::value(std::uint64_t number) {
  beforeValue();
  out_ += std::to_string(number);
  return *this;
}

JSONWriter& JSONWriter::value(double number) {
  beforeValue();
  if (!std::isfinite(number)) {
    out_ += "null";
    return *this;
  }
  char text[400];  // room for any finite double in fixed notation
  std::snprintf(text, sizeof text, "%.3f", number);
  out_ += text;
  return *this;
}

JSONWriter& JSONWriter::value(bool flag) {
  beforeValue();
  out_ += flag ? "true" : "false";
  return *this;
}

JSONWriter& JSONWriter::null() {
  beforeValue();
  out_ += "null";
  return *this;
}

JSONWriter& JSONWriter::stringOrNull(std::string_view text) {
  return text.empty() ? null() : value(text);
}

JSONWriter& JSONWriter::strings(const std::vector<std::string>& items) {
  beginArray();
  for (const std::string& item : items)
    value(item);
  return endArray();
}

}  // namespace platform
