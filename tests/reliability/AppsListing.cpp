#include "tests/reliability/AppsListing.h"

#include <cctype>
#include <cstdlib>
#include <memory>

namespace reliability {
namespace {

// Just enough JSON for the listing: objects, arrays, strings, numbers,
// true, false and null.
struct JSONValue {
  enum class Kind { Null, Boolean, Number, String, Array, Object } kind = Kind::Null;
  bool boolean = false;
  double number = 0;
  std::string string;
  std::vector<JSONValue> array;
  std::vector<std::pair<std::string, JSONValue>> object;

  const JSONValue* member(const std::string& name) const {
    for (const auto& [key, value] : object) {
      if (key == name) return &value;
    }
    return nullptr;
  }
  std::string text(const std::string& name) const {
    const JSONValue* value = member(name);
    return value && value->kind == Kind::String ? value->string : std::string();
  }
};

class Reader {
 public:
  explicit Reader(const std::string& text) : text_(text) {}

  bool value(JSONValue& out) {
    skipSpace();
    if (at_ >= text_.size()) return fail("unexpected end");
    const char c = text_[at_];
    if (c == '{') return object(out);
    if (c == '[') return array(out);
    if (c == '"') {
      out.kind = JSONValue::Kind::String;
      return string(out.string);
    }
    if (word("true")) {
      out.kind = JSONValue::Kind::Boolean;
      out.boolean = true;
      return true;
    }
    if (word("false")) {
      out.kind = JSONValue::Kind::Boolean;
      return true;
    }
    if (word("null")) return true;
    char* end = nullptr;
    out.number = std::strtod(text_.c_str() + at_, &end);
    if (end == text_.c_str() + at_) return fail("unexpected character");
    out.kind = JSONValue::Kind::Number;
    at_ = static_cast<std::size_t>(end - text_.c_str());
    return true;
  }

  bool atEnd() {
    skipSpace();
    return at_ == text_.size();
  }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& what) {
    if (error_.empty()) error_ = what + " at offset " + std::to_string(at_);
    return false;
  }
  void skipSpace() {
    while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_])))
      ++at_;
  }
  bool word(const std::string& literal) {
    if (text_.compare(at_, literal.size(), literal) != 0) return false;
    at_ += literal.size();
    return true;
  }
  bool expect(char c) {
    skipSpace();
    if (at_ < text_.size() && text_[at_] == c) {
      ++at_;
      return true;
    }
    return fail(std::string("expected '") + c + "'");
  }
  bool string(std::string& out) {
    if (!expect('"')) return false;
    while (at_ < text_.size() && text_[at_] != '"') {
      char c = text_[at_++];
      if (c == '\\' && at_ < text_.size()) {
        const char escaped = text_[at_++];
        switch (escaped) {
          case 'n':
            c = '\n';
            break;
          case 't':
            c = '\t';
            break;
          case 'r':
            c = '\r';
            break;
          case 'b':
            c = '\b';
            break;
          case 'f':
            c = '\f';
            break;
          case 'u': {
            const long code = std::strtol(text_.substr(at_, 4).c_str(), nullptr, 16);
            at_ += 4;
            // Paths of the images are ASCII; other code points are kept as UTF-8.
            if (code < 0x80) {
              c = static_cast<char>(code);
            } else if (code < 0x800) {
              out += static_cast<char>(0xC0 | (code >> 6));
              c = static_cast<char>(0x80 | (code & 0x3F));
            } else {
              out += static_cast<char>(0xE0 | (code >> 12));
              out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
              c = static_cast<char>(0x80 | (code & 0x3F));
            }
            break;
          }
          default:
            c = escaped;
        }
      }
      out += c;
    }
    return expect('"');
  }
  bool array(JSONValue& out) {
    out.kind = JSONValue::Kind::Array;
    if (!expect('[')) return false;
    skipSpace();
    if (at_ < text_.size() && text_[at_] == ']') return expect(']');
    for (;;) {
      out.array.emplace_back();
      if (!value(out.array.back())) return false;
      skipSpace();
      if (at_ < text_.size() && text_[at_] == ',') {
        ++at_;
        continue;
      }
      return expect(']');
    }
  }
  bool object(JSONValue& out) {
    out.kind = JSONValue::Kind::Object;
    if (!expect('{')) return false;
    skipSpace();
    if (at_ < text_.size() && text_[at_] == '}') return expect('}');
    for (;;) {
      std::string key;
      skipSpace();
      if (!string(key) || !expect(':')) return false;
      out.object.emplace_back(key, JSONValue());
      if (!value(out.object.back().second)) return false;
      skipSpace();
      if (at_ < text_.size() && text_[at_] == ',') {
        ++at_;
        continue;
      }
      return expect('}');
    }
  }

  const std::string& text_;
  std::size_t at_ = 0;
  std::string error_;
};

}  // namespace

const ListedApplication* AppsListing::find(const std::string& identifier) const {
  for (const ListedApplication& application : applications) {
    if (application.identifier == identifier) return &application;
  }
  return nullptr;
}

std::optional<AppsListing> parseAppsListing(const std::string& json, std::string* reason) {
  Reader reader(json);
  JSONValue root;
  if (!reader.value(root) || !reader.atEnd() || root.kind != JSONValue::Kind::Object) {
    *reason = "not a JSON object: " + (reader.error().empty() ? "trailing text" : reader.error());
    return std::nullopt;
  }
  AppsListing listing;
  if (const JSONValue* exists = root.member("registryExists"))
    listing.registryExists = exists->boolean;
  if (const JSONValue* pending = root.member("pendingInstalls"))
    listing.pendingInstalls = static_cast<long>(pending->number);
  const JSONValue* applications = root.member("applications");
  if (!applications || applications->kind != JSONValue::Kind::Array) {
    *reason = "no \"applications\" array";
    return std::nullopt;
  }
  for (const JSONValue& entry : applications->array) {
    ListedApplication application;
    application.identifier = entry.text("identifier");
    application.kind = entry.text("kind");
    application.bundleContainer = entry.text("bundleContainer");
    application.bundle = entry.text("bundle");
    application.vpnPlugin = entry.text("vpnPlugin");
    application.dataContainer = entry.text("dataContainer");
    if (const JSONValue* groups = entry.member("groupContainers")) {
      for (const auto& [group, path] : groups->object)
        application.groupContainers[group] = path.string;
    }
    listing.applications.push_back(std::move(application));
  }
  if (const JSONValue* harbors = root.member("safeHarbors")) {
    for (const JSONValue& entry : harbors->array)
      listing.safeHarbors.push_back({entry.text("identifier"), entry.text("path")});
  }
  return listing;
}

}  // namespace reliability
