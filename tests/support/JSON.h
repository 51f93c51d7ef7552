// The documents the programs print (plan, report, progress events, `mavrel
// apps --json`) read back by nlohmann-json, a strict reader, into a tree where
// a missing member reads as null.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace testing_support {

struct JSONValue {
  bool null = true;
  bool boolean = false;
  double number = 0;
  std::string string;
  std::vector<JSONValue> array;
  std::map<std::string, JSONValue> object;

  bool isNull() const { return null; }
  // The member `name` of an object; a null value when there is none.
  const JSONValue& operator[](const std::string& name) const;
  bool has(const std::string& name) const { return object.count(name) != 0; }
  std::uint64_t count() const { return static_cast<std::uint64_t>(number); }
};

// The value of the whole text, or nullopt and where and why it is not JSON in
// `reason`.
std::optional<JSONValue> readJSON(std::string_view text, std::string* reason);
// The same, failing the running test (and giving null) when it is not JSON.
JSONValue parseJSON(std::string_view text);
// The members of a JSON array of objects, keyed by their "path".
std::map<std::string, JSONValue> byPath(const JSONValue& array);

}  // namespace testing_support
