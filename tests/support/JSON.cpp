#include "tests/support/JSON.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace testing_support {
namespace {

JSONValue adapt(const nlohmann::json& from) {
  JSONValue to;
  to.null = from.is_null();
  if (from.is_boolean()) to.boolean = from.get<bool>();
  if (from.is_number()) to.number = from.get<double>();
  if (from.is_string()) to.string = from.get<std::string>();
  if (from.is_array())
    for (const nlohmann::json& element : from)
      to.array.push_back(adapt(element));
  if (from.is_object())
    for (const auto& [name, member] : from.items())
      to.object[name] = adapt(member);
  return to;
}

}  // namespace

const JSONValue& JSONValue::operator[](const std::string& name) const {
  static const JSONValue missing;
  const auto found = object.find(name);
  return found == object.end() ? missing : found->second;
}

std::optional<JSONValue> readJSON(std::string_view text, std::string* reason) {
  try {
    return adapt(nlohmann::json::parse(text));
  } catch (const nlohmann::json::parse_error& error) {
    if (reason) *reason = std::string("not JSON: ") + error.what();
    return std::nullopt;
  }
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
