#include "host/JSONWriter.h"

#include <cmath>
#include <cstdio>

#include "host/LogFormat.h"

namespace mavrel_host {

void JSONWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!hasMember_.empty()) {
    if (hasMember_.back()) out_ += ',';
    hasMember_.back() = true;
  }
}

JSONWriter& JSONWriter::beginObject() {
  beforeValue();
  out_ += '{';
  hasMember_.push_back(false);
  return *this;
}

JSONWriter& JSONWriter::endObject() {
  out_ += '}';
  hasMember_.pop_back();
  return *this;
}

JSONWriter& JSONWriter::beginArray() {
  beforeValue();
  out_ += '[';
  hasMember_.push_back(false);
  return *this;
}

JSONWriter& JSONWriter::endArray() {
  out_ += ']';
  hasMember_.pop_back();
  return *this;
}

JSONWriter& JSONWriter::key(std::string_view name) {
  beforeValue();
  appendJSONString(out_, name);
  out_ += ':';
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
  char text[64];
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

}  // namespace mavrel_host
