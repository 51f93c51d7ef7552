// Builds one JSON text: objects and arrays with commas and quoting taken care
// of, either on one line (Layout::Compact: `{"a":1,"b":[2,3]}`) or one member
// per line, two spaces deeper per level (Layout::Indented: `"a": 1`). Empty
// objects and arrays stay "{}" and "[]" in both layouts. Reals are written with
// three decimals ("1.500"); a real that is not finite becomes null.
//
// appendJSONString() is the one quoting rule for every JSON string the system
// writes (these documents and the logs' JSON lines): quotes, backslashes and
// control characters (and DEL) are escaped, other valid UTF-8 is kept as is,
// and each ill-formed UTF-8 sequence becomes U+FFFD.
//
// Error contract: nothing here fails. Calls out of order give malformed JSON,
// which the tests of each document catch.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Appends `text` to `out` as a quoted JSON string.
void appendJSONString(std::string& out, std::string_view text);

class JSONWriter {
 public:
  enum class Layout { Compact, Indented };

  explicit JSONWriter(Layout layout = Layout::Compact) : layout_(layout) {}

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
  // An array of strings.
  JSONWriter& strings(const std::vector<std::string>& items);

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
  void close(char bracket);
  void newLine();

  Layout layout_;
  std::string out_;
  // One flag per open object or array: whether it has a member yet.
  std::vector<bool> hasMember_;
  bool afterKey_ = false;
};

}  // namespace platform
