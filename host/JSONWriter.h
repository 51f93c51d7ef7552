// Builds one JSON text: objects and arrays with commas and quoting taken care
// of. Strings are escaped as the logs' JSON lines are (LogFormat.h).
//
// Nothing here fails; calls out of order give malformed JSON, which the tests
// of each document catch.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mavrel_host {

class JSONWriter {
 public:
  JSONWriter& beginObject();
  JSONWriter& endObject();
  JSONWriter& beginArray();
  JSONWriter& endArray();
  // The name of the next member of the enclosing object.
  JSONWriter& key(std::string_view name);

  JSONWriter& value(std::string_view text);
  JSONWriter& value(const char* text) { return value(std::string_view(text)); }
  JSONWriter& value(const std::string& text) { return value(std::string_view(text)); }
  JSONWriter& value(std::uint64_t number);
  JSONWriter& value(double number);
  JSONWriter& value(bool flag);
  JSONWriter& null();
  // A string, or null for an empty one.
  JSONWriter& stringOrNull(std::string_view text);

  // key(name).value(v), for brevity.
  template <class T>
  JSONWriter& member(std::string_view name, const T& v) {
    key(name);
    return value(v);
  }

  // The text so far, with a final newline once everything is closed.
  std::string text() const { return out_ + "\n"; }

 private:
  void beforeValue();
  std::string out_;
  // One flag per open object or array: whether it has a member yet.
  std::vector<bool> hasMember_;
  bool afterKey_ = false;
};

}  // namespace mavrel_host
