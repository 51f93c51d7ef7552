// A small JSON reader for the tests that check the host's JSON documents
// (the plan, the report): parses a whole text into a tree, or fails the test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace host_test {

struct JSONValue {
  enum class Type { Null, Boolean, Number, String, Array, Object };
  Type type = Type::Null;
  bool boolean = false;
  double number = 0;
  std::string string;
  std::vector<JSONValue> array;
  std::map<std::string, JSONValue> object;

  bool isNull() const { return type == Type::Null; }
  // The member `name` of an object; a null value when there is none.
  const JSONValue& operator[](const std::string& name) const {
    static const JSONValue missing;
    const auto found = object.find(name);
    return found == object.end() ? missing : found->second;
  }
  bool has(const std::string& name) const { return object.count(name) != 0; }
  std::uint64_t count() const { return static_cast<std::uint64_t>(number); }
};

class JSONParser {
 public:
  explicit JSONParser(std::string_view text) : text_(text) {}

  // The value of the whole text; `ok` false (with a test failure) when it is
  // not one JSON value.
  JSONValue parse(bool* ok) {
    JSONValue value = parseValue();
    skipSpace();
    if (failed_ || position_ != text_.size()) {
      ADD_FAILURE() << "not JSON at offset " << position_ << ": " << text_.substr(0, 200);
      *ok = false;
      return JSONValue();
    }
    *ok = true;
    return value;
  }

 private:
  void skipSpace() {
    while (position_ < text_.size() &&
           std::string_view(" \t\r\n").find(text_[position_]) != std::string_view::npos)
      ++position_;
  }
  bool take(char c) {
    skipSpace();
    if (position_ < text_.size() && text_[position_] == c) {
      ++position_;
      return true;
    }
    return false;
  }
  bool takeWord(std::string_view word) {
    if (text_.substr(position_, word.size()) != word) return false;
    position_ += word.size();
    return true;
  }
  JSONValue fail() {
    failed_ = true;
    return JSONValue();
  }

  std::string parseString() {
    std::string out;
    ++position_;  // the opening quote
    while (position_ < text_.size() && text_[position_] != '"') {
      char c = text_[position_++];
      if (c != '\\') {
        out += c;
        continue;
      }
      if (position_ >= text_.size()) break;
      c = text_[position_++];
      switch (c) {
        case 'n':
          out += '\n';
          break;
        case 't':
          out += '\t';
          break;
        case 'r':
          out += '\r';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'u': {
          const unsigned code = std::stoul(std::string(text_.substr(position_, 4)), nullptr, 16);
          position_ += 4;
          if (code < 0x80) {
            out += static_cast<char>(code);
          } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
          } else {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
          }
          break;
        }
        default:
          out += c;
          break;
      }
    }
    if (position_ >= text_.size()) failed_ = true;
    ++position_;  // the closing quote
    return out;
  }

  JSONValue parseValue() {
    skipSpace();
    if (position_ >= text_.size()) return fail();
    JSONValue value;
    const char c = text_[position_];
    if (c == '{') {
      ++position_;
      value.type = JSONValue::Type::Object;
      if (take('}')) return value;
      do {
        skipSpace();
        if (position_ >= text_.size() || text_[position_] != '"') return fail();
        std::string name = parseString();
        if (!take(':')) return fail();
        value.object[name] = parseValue();
      } while (take(','));
      if (!take('}')) return fail();
    } else if (c == '[') {
      ++position_;
      value.type = JSONValue::Type::Array;
      if (take(']')) return value;
      do {
        value.array.push_back(parseValue());
      } while (take(','));
      if (!take(']')) return fail();
    } else if (c == '"') {
      value.type = JSONValue::Type::String;
      value.string = parseString();
    } else if (takeWord("true")) {
      value.type = JSONValue::Type::Boolean;
      value.boolean = true;
    } else if (takeWord("false")) {
      value.type = JSONValue::Type::Boolean;
    } else if (takeWord("null")) {
      value.type = JSONValue::Type::Null;
    } else {
      std::size_t used = 0;
      try {
        value.number = std::stod(std::string(text_.substr(position_, 40)), &used);
      } catch (...) {
        return fail();
      }
      value.type = JSONValue::Type::Number;
      position_ += used;
    }
    return value;
  }

  std::string_view text_;
  std::size_t position_ = 0;
  bool failed_ = false;
};

// Parses `text`; fails the test (and gives null) when it is not JSON.
inline JSONValue parseJSON(std::string_view text) {
  bool ok = false;
  return JSONParser(text).parse(&ok);
}

}  // namespace host_test
