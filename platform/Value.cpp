#include "platform/Value.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

namespace {

std::string indentation(int depth) {
  return std::string(static_cast<std::size_t>(depth) * 4, ' ');
}

// Strings inside collections are quoted unless they are plain words, so that a
// description stays readable and unambiguous.
bool needsQuotes(std::string_view text) {
  if (text.empty()) return true;
  for (const char c : text) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '_' || c == '.' || c == '/' || c == '-' || c == ':';
    if (!plain) return true;
  }
  return false;
}

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    if (c == '\n') {
      result += "\\n";
      continue;
    }
    result += c;
  }
  result += '"';
  return result;
}

// The description of a value nested in a collection at `depth`.
std::string nestedDescription(const CVValue& value, int depth) {
  if (const std::string* text = value.asString()) {
    return needsQuotes(*text) ? quoted(*text) : *text;
  }
  return value.description(depth);
}

}  // namespace

// ---- CVNumber

CVNumber CVNumber::unsignedInteger(std::uint64_t value) {
  if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return CVNumber(Type::Integer, static_cast<std::int64_t>(value));
  }
  return CVNumber(Type::UnsignedInteger, static_cast<std::int64_t>(value));
}

CVNumber CVNumber::real(double value) {
  CVNumber number(Type::Real, 0);
  number.real_ = value;
  return number;
}

std::int64_t CVNumber::int64Value() const {
  if (type_ == Type::Real) {
    if (std::isnan(real_)) return 0;
    if (real_ >= 9.2233720368547758e18) return std::numeric_limits<std::int64_t>::max();
    if (real_ <= -9.2233720368547758e18) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(real_);
  }
  return integer_;
}

std::uint64_t CVNumber::uint64Value() const {
  if (type_ == Type::Real) return static_cast<std::uint64_t>(int64Value());
  return static_cast<std::uint64_t>(integer_);
}

double CVNumber::doubleValue() const {
  switch (type_) {
    case Type::Real:
      return real_;
    case Type::UnsignedInteger:
      return static_cast<double>(static_cast<std::uint64_t>(integer_));
    default:
      return static_cast<double>(integer_);
  }
}

bool CVNumber::boolValue() const {
  return type_ == Type::Real ? real_ != 0 : integer_ != 0;
}

std::string CVNumber::description() const {
  switch (type_) {
    case Type::Real: {
      char buffer[64];
      std::snprintf(buffer, sizeof buffer, "%.17g", real_);
      return buffer;
    }
    case Type::UnsignedInteger:
      return std::to_string(static_cast<std::uint64_t>(integer_));
    default:
      return std::to_string(integer_);
  }
}

bool CVNumber::operator==(const CVNumber& other) const {
  // A boolean equals only a boolean: false is not the number 0.
  if (isBoolean() != other.isBoolean()) return false;
  if (type_ == Type::Real || other.type_ == Type::Real) return doubleValue() == other.doubleValue();
  return type_ == other.type_ ? integer_ == other.integer_
                              : false;  // Integer vs UnsignedInteger never overlap by construction.
}

// ---- CVDate

std::string CVDate::description() const {
  const std::time_t seconds = static_cast<std::time_t>(std::floor(secondsSince1970));
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char buffer[64];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
  return buffer;
}

// ---- CVArray

CVArray::CVArray(std::initializer_list<CVValue> values) : items_(values) {}

void CVArray::append(CVValue value) {
  items_.push_back(std::move(value));
}

void CVArray::insertAtFront(CVValue value) {
  items_.insert(items_.begin(), std::move(value));
}

bool CVArray::operator==(const CVArray& other) const {
  return items_ == other.items_;
}

std::string CVArray::description(int indent) const {
  if (items_.empty()) return "(\n" + indentation(indent) + ")";
  std::string text = "(\n";
  for (std::size_t i = 0; i < items_.size(); ++i) {
    text += indentation(indent + 1) + nestedDescription(items_[i], indent + 1);
    text += i + 1 < items_.size() ? ",\n" : "\n";
  }
  return text + indentation(indent) + ")";
}

// ---- CVDictionary

CVDictionary::CVDictionary(std::initializer_list<std::pair<std::string, CVValue>> entries) {
  for (const auto& [key, value] : entries)
    set(key, value);
}

CVDictionary::CVDictionary(const CVDictionary&) = default;
CVDictionary::CVDictionary(CVDictionary&&) noexcept = default;
CVDictionary& CVDictionary::operator=(const CVDictionary&) = default;
CVDictionary& CVDictionary::operator=(CVDictionary&&) noexcept = default;
CVDictionary::~CVDictionary() = default;

const CVValue* CVDictionary::find(std::string_view key) const {
  const auto it = index_.find(std::string(key));
  return it == index_.end() ? nullptr : &values_[it->second];
}

CVValue* CVDictionary::find(std::string_view key) {
  const auto it = index_.find(std::string(key));
  return it == index_.end() ? nullptr : &values_[it->second];
}

const std::string* CVDictionary::findString(std::string_view key) const {
  const CVValue* value = find(key);
  return value ? value->asString() : nullptr;
}

const CVDictionary* CVDictionary::findDictionary(std::string_view key) const {
  const CVValue* value = find(key);
  return value ? value->asDictionary() : nullptr;
}

const CVArray* CVDictionary::findArray(std::string_view key) const {
  const CVValue* value = find(key);
  return value ? value->asArray() : nullptr;
}

const CVNumber* CVDictionary::findNumber(std::string_view key) const {
  const CVValue* value = find(key);
  return value ? value->asNumber() : nullptr;
}

void CVDictionary::set(std::string key, CVValue value) {
  if (CVValue* existing = find(key)) {
    *existing = std::move(value);
    return;
  }
  index_.emplace(key, keys_.size());
  keys_.push_back(std::move(key));
  values_.push_back(std::move(value));
}

bool CVDictionary::remove(std::string_view key) {
  const auto it = index_.find(std::string(key));
  if (it == index_.end()) return false;
  const std::size_t position = it->second;
  index_.erase(it);
  keys_.erase(keys_.begin() + static_cast<std::ptrdiff_t>(position));
  values_.erase(values_.begin() + static_cast<std::ptrdiff_t>(position));
  reindexFrom(position);
  for (std::size_t& before : otherPositions_) {
    if (before > position) --before;
  }
  return true;
}

void CVDictionary::addEntryWithNonStringKey(CVValue key, CVValue value) {
  otherKeys_.push_back(std::move(key));
  otherValues_.push_back(std::move(value));
  otherPositions_.push_back(keys_.size());
}

const CVValue& CVDictionary::nonStringKeyAt(std::size_t index) const {
  return otherKeys_[index];
}

const CVValue& CVDictionary::nonStringKeyValueAt(std::size_t index) const {
  return otherValues_[index];
}

void CVDictionary::reindexFrom(std::size_t position) {
  for (std::size_t i = position; i < keys_.size(); ++i)
    index_[keys_[i]] = i;
}

const CVValue& CVDictionary::valueAt(std::size_t index) const {
  return values_[index];
}

bool CVDictionary::operator==(const CVDictionary& other) const {
  if (count() != other.count() || otherKeys_ != other.otherKeys_ ||
      otherValues_ != other.otherValues_)
    return false;
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    const CVValue* theirs = other.find(keys_[i]);
    if (theirs == nullptr || !(*theirs == values_[i])) return false;
  }
  return true;
}

std::string CVDictionary::description(int indent) const {
  if (keys_.empty() && otherKeys_.empty()) return "{\n" + indentation(indent) + "}";
  std::string text = "{\n";
  forEachEntry([&](const CVValue& key, const CVValue& value) {
    const std::string* name = key.asString();
    text += indentation(indent + 1) +
            (name == nullptr      ? nestedDescription(key, indent + 1)
             : needsQuotes(*name) ? quoted(*name)
                                  : *name) +
            " = " + nestedDescription(value, indent + 1) + ";\n";
  });
  return text + indentation(indent) + "}";
}

// ---- CVSet

CVSet::CVSet(std::initializer_list<CVValue> values) {
  for (const CVValue& value : values)
    add(value);
}

bool CVSet::contains(const CVValue& value) const {
  for (const CVValue& item : items_) {
    if (item == value) return true;
  }
  return false;
}

void CVSet::add(CVValue value) {
  if (!contains(value)) items_.push_back(std::move(value));
}

bool CVSet::operator==(const CVSet& other) const {
  if (count() != other.count()) return false;
  for (const CVValue& item : items_) {
    if (!other.contains(item)) return false;
  }
  return true;
}

std::string CVSet::description(int indent) const {
  std::string text = "{(\n";
  for (std::size_t i = 0; i < items_.size(); ++i) {
    text += indentation(indent + 1) + nestedDescription(items_[i], indent + 1);
    text += i + 1 < items_.size() ? ",\n" : "\n";
  }
  return text + indentation(indent) + ")}";
}

// ---- CVValue

bool CVValue::isBooleanFalse() const {
  const CVNumber* number = asNumber();
  return number && number->isBoolean() && !number->boolValue();
}

bool CVValue::isBooleanTrue() const {
  const CVNumber* number = asNumber();
  return number && number->isBoolean() && number->boolValue();
}

std::string CVValue::description(int indent) const {
  switch (kind()) {
    case Kind::Null:
      return "(null)";
    case Kind::String:
      return *asString();
    case Kind::Number:
      return asNumber()->description();
    case Kind::Data: {
      const CVData& data = *asData();
      static constexpr char kHex[] = "0123456789abcdef";
      std::string text = "{length = " + std::to_string(data.size()) + ", bytes = 0x";
      const std::size_t shown = data.size() <= 24 ? data.size() : 16;
      for (std::size_t i = 0; i < shown; ++i) {
        text += kHex[data[i] >> 4];
        text += kHex[data[i] & 0xf];
      }
      if (shown < data.size()) text += "...";
      return text + "}";
    }
    case Kind::Date:
      return asDate()->description();
    case Kind::Array:
      return asArray()->description(indent);
    case Kind::Dictionary:
      return asDictionary()->description(indent);
    case Kind::Set:
      return asSet()->description(indent);
    case Kind::URL:
      return asURL()->description();
    case Kind::Error:
      return asError()->description(indent);
  }
  return "(null)";
}

std::string_view CVValue::kindName(Kind kind) {
  switch (kind) {
    case Kind::Null:
      return "null";
    case Kind::String:
      return "string";
    case Kind::Number:
      return "number";
    case Kind::Data:
      return "data";
    case Kind::Date:
      return "date";
    case Kind::Array:
      return "array";
    case Kind::Dictionary:
      return "dictionary";
    case Kind::Set:
      return "set";
    case Kind::URL:
      return "URL";
    case Kind::Error:
      return "error";
  }
  return "unknown";
}

bool CVValue::operator==(const CVValue& other) const {
  return storage_ == other.storage_;
}
