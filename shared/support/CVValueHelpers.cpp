#include "shared/support/CVValueHelpers.h"

#include <algorithm>

#include "platform/Format.h"

namespace {

bool isNull(const CVValue* object) {
  return object == nullptr || object->isNull();
}

template <class Collection>
bool containsOnly(const Collection& collection, CVValue::Kind kind) {
  return std::all_of(collection.begin(), collection.end(),
                     [kind](const CVValue& element) { return element.kind() == kind; });
}

}  // namespace

std::optional<std::string> CVStringifyObject(const CVValue* object) {
  if (isNull(object)) return std::nullopt;
  if (const std::string* string = object->asString()) return *string;
  return platform::format("%@", *object);
}

bool CVArrayContainsOnlyClass(const CVArray& array, CVValue::Kind kind) {
  return containsOnly(array, kind);
}

bool CVBooleanValue(const CVValue* object, bool defaultValue) {
  if (isNull(object)) return defaultValue;
  if (const CVNumber* number = object->asNumber()) return number->boolValue();
  return defaultValue;
}

std::optional<CVArray> CVArrayifyThing(const CVValue* object, CVValue::Kind kind) {
  if (isNull(object)) return std::nullopt;
  if (const CVArray* array = object->asArray()) {
    if (!containsOnly(*array, kind)) return std::nullopt;
    return *array;
  }
  if (object->kind() == kind) return CVArray{*object};
  if (const CVSet* set = object->asSet()) {
    if (!containsOnly(*set, kind)) return std::nullopt;
    CVArray elements;
    for (const CVValue& element : *set)
      elements.append(element);
    return elements;
  }
  return std::nullopt;
}
