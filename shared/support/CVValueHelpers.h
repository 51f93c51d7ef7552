// Coercion helpers for loosely typed values (anything a property list or a
// preference may hold).
//
// A "class" here is a value kind; a value is of a class when its kind is that
// kind. Booleans are numbers, as the platform's number type holds both.
//
// Error contract: these never fail loudly on a wrong type and log nothing: they
// answer nullopt, false or the caller's default. An absent value (a null
// pointer) and a value of kind Null are both "null". Results are new values
// owned by the caller.
#pragma once

#include <optional>
#include <string>

#include "platform/Value.h"

// null gives nullopt; a string is returned as it is; anything else gives its
// description, as "%@" prints it.
std::optional<std::string> CVStringifyObject(const CVValue* object);
inline std::optional<std::string> CVStringifyObject(const CVValue& object) {
  return CVStringifyObject(&object);
}

// Whether every element of `array` is of `kind`; true for an empty array.
bool CVArrayContainsOnlyClass(const CVArray& array, CVValue::Kind kind);

// A number's boolean value; `defaultValue` for anything else, strings and null
// included (the string "true" is not a boolean).
bool CVBooleanValue(const CVValue* object, bool defaultValue);
inline bool CVBooleanValue(const CVValue& object, bool defaultValue) {
  return CVBooleanValue(&object, defaultValue);
}

// In this order: null gives nullopt; an array gives itself if every element is
// of `kind`, else nullopt; a value of `kind` gives a one-element array holding
// it; a set gives its elements in the set's order if every element is of
// `kind`, else nullopt; anything else gives nullopt.
std::optional<CVArray> CVArrayifyThing(const CVValue* object, CVValue::Kind kind);
inline std::optional<CVArray> CVArrayifyThing(const CVValue& object, CVValue::Kind kind) {
  return CVArrayifyThing(&object, kind);
}
