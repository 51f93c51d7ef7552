#include "tests/support/JSON.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace testing_support {
namespace {

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  bool value(JSONValue& out) {
    space();
    if (at_ >= text_.size()) return false;
    const char c = text_[at_];
    if (c == '{' || c == '[') {
      const bool object = c == '{';
      out.type = object ? JSONValue::Type::Object : JSONValue::Type::Array;
      ++at_;
      if (take(object ? '}' : ']')) return true;
      do {
        if (object) {
          std::string name;
          space();
          if (!string(name) || !take(':') || !value(out.object[name])) return false;
        } else if (!value(out.array.emplace_back())) {
          return false;
        }
      } while (take(','));
      return take(object ? '}' : ']');
    }
    if (c == '"') {
      out.type = JSONValue::Type::String;
      return string(out.string);
    }
    for (const auto& [word, type, truth] : {std::tuple{"true", JSONValue::Type::Boolean, true},
                                            std::tuple{"false", JSONValue::Type::Boolean, false},
                                            std::tuple{"null", JSONValue::Type::Null, false}}) {
      if (text_.substr(at_).starts_with(word)) {
        at_ += std::string_view(word).size();
        out.type = type;
        out.boolean = truth;
        return true;
      }
    }
    const std::string number(text_.substr(at_, 40));
    char* end = nullptr;
    out.number = std::strtod(number.c_str(), &end);
    if (end == number.c_str()) return false;
    out.type = JSONValue::Type::Number;
    at_ += static_cast<std::size_t>(end - number.c_str());
    return true;
  }

  bool atEnd() {
    space();
    return at_ == text_.size();
  }
  std::size_t offset() const { return at_; }

 private:
  void space() {
    while (at_ < text_.size() && std::string_view(" \t\r\n").find(text_[at_]) != text_.npos)
      ++at_;
  }
  bool take(char c) {
    space();
    if (at_ >= text_.size() || text_[at_] != c) return false;
    ++at_;
    return true;
  }
  bool string(std::string& out) {
    if (at_ >= text_.size() || text_[at_++] != '"') return false;
    while (at_ < text_.size() && text_[at_] != '"') {
      char c = text_[at_++];
      if (c == '\\' && at_ < text_.size()) {
        c = text_[at_++];
        if (c == 'u') {
          const unsigned long code =
              std::strtoul(std::string(text_.substr(at_, 4)).c_str(), nullptr, 16);
          at_ += 4;
          if (code >= 0x800) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
          } else if (code >= 0x80) {
            out += static_cast<char>(0xC0 | (code >> 6));
          }
          c = static_cast<char>(code < 0x80 ? code : 0x80 | (code & 0x3F));
        } else if (const auto escaped = std::string_view("n\nt\tr\rb\bf\f").find(c);
                   escaped != std::string_view::npos && escaped % 2 == 0) {
          c = std::string_view("n\nt\tr\rb\bf\f")[escaped + 1];
        }
      }
      out += c;
    }
    return at_++ < text_.size();
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace

const JSONValue& JSONValue::operator[](const std::string& name) const {
  static const JSONValue missing;
  const auto found = object.find(name);
  return found == object.end() ? missing : found->second;
}

std::optional<JSONValue> readJSON(std::string_view text, std::string* reason) {
  Reader reader(text);
  JSONValue value;
  if (reader.value(value) && reader.atEnd()) return value;
  if (reason) *reason = "not JSON at offset " + std::to_string(reader.offset());
  return std::nullopt;
}

JSONValue parseJSON(std::string_view text) {
  std::string reason;
  std::optional<JSONValue> value = readJSON(text, &reason);
  if (!value) ADD_FAILURE() << reason << ": " << text.substr(0, 200);
  return value.value_or(JSONValue());
}

std::map<std::string, JSONValue> byPath(const JSONValue& array) {
  std::map<std::string, JSONValue> entries;
  for (const JSONValue& entry : array.array)
    entries[entry["path"].string] = entry;
  return entries;
}

}  // namespace testing_support
