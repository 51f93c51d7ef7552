#include "platform/Value.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <unordered_map>
#include <utility>

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

namespace {

// Up to this many keys a lookup compares them in order, which costs less than
// hashing and keeps no second copy of the keys; past it the dictionary keeps
// an index.
constexpr std::size_t kSearchedInOrderUpTo = 16;

struct KeyHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view key) const noexcept {
    return std::hash<std::string_view>()(key);
  }
};

}  // namespace

struct CVDictionary::Entries {
  std::vector<std::string> keys;
  std::vector<CVValue> values;
  // Key to position, kept only while there are more keys than are searched
  // in order.
  std::unordered_map<std::string, std::size_t, KeyHash, std::equal_to<>> index;
  std::vector<CVValue> otherKeys;
  std::vector<CVValue> otherValues;
  std::vector<std::size_t> otherPositions;  // string keys before each

  bool indexed() const { return keys.size() > kSearchedInOrderUpTo; }

  std::optional<std::size_t> positionOf(std::string_view key) const {
    if (indexed()) {
      const auto found = index.find(key);
      if (found == index.end()) return std::nullopt;
      return found->second;
    }
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (keys[i] == key) return i;
    }
    return std::nullopt;
  }

  // Brings the index in line with the keys from `position` on.
  void reindexFrom(std::size_t position) {
    if (!indexed()) {
      index.clear();
      return;
    }
    if (index.empty()) position = 0;
    for (std::size_t i = position; i < keys.size(); ++i)
      index.insert_or_assign(keys[i], i);
  }
};

CVDictionary::CVDictionary() = default;

CVDictionary::CVDictionary(std::initializer_list<std::pair<std::string, CVValue>> entries) {
  for (const auto& [key, value] : entries)
    set(key, value);
}

CVDictionary::CVDictionary(const CVDictionary& other)
    : entries_(other.entries_ ? std::make_unique<Entries>(*other.entries_) : nullptr) {}
CVDictionary::CVDictionary(CVDictionary&&) noexcept = default;
CVDictionary& CVDictionary::operator=(const CVDictionary& other) {
  if (this != &other)
    entries_ = other.entries_ ? std::make_unique<Entries>(*other.entries_) : nullptr;
  return *this;
}
CVDictionary& CVDictionary::operator=(CVDictionary&&) noexcept = default;
CVDictionary::~CVDictionary() = default;

CVDictionary::Entries& CVDictionary::entries() {
  if (!entries_) entries_ = std::make_unique<Entries>();
  return *entries_;
}

std::size_t CVDictionary::count() const {
  return entries_ ? entries_->keys.size() : 0;
}

const std::vector<std::string>& CVDictionary::keys() const {
  static const std::vector<std::string> none;
  return entries_ ? entries_->keys : none;
}

const CVValue* CVDictionary::find(std::string_view key) const {
  if (!entries_) return nullptr;
  const auto position = entries_->positionOf(key);
  return position ? &entries_->values[*position] : nullptr;
}

CVValue* CVDictionary::find(std::string_view key) {
  return const_cast<CVValue*>(std::as_const(*this).find(key));
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
  Entries& stored = entries();
  stored.keys.push_back(std::move(key));
  stored.values.push_back(std::move(value));
  stored.reindexFrom(stored.keys.size() - 1);
}

bool CVDictionary::remove(std::string_view key) {
  if (!entries_) return false;
  Entries& stored = *entries_;
  const auto position = stored.positionOf(key);
  if (!position) return false;
  if (stored.indexed()) stored.index.erase(stored.index.find(key));
  stored.keys.erase(stored.keys.begin() + static_cast<std::ptrdiff_t>(*position));
  stored.values.erase(stored.values.begin() + static_cast<std::ptrdiff_t>(*position));
  stored.reindexFrom(*position);
  for (std::size_t& before : stored.otherPositions) {
    if (before > *position) --before;
  }
  return true;
}

void CVDictionary::reserve(std::size_t count) {
  if (count == 0) return;
  Entries& stored = entries();
  stored.keys.reserve(count);
  stored.values.reserve(count);
}

void CVDictionary::addEntryWithNonStringKey(CVValue key, CVValue value) {
  Entries& stored = entries();
  stored.otherKeys.push_back(std::move(key));
  stored.otherValues.push_back(std::move(value));
  stored.otherPositions.push_back(stored.keys.size());
}

std::size_t CVDictionary::nonStringKeyCount() const {
  return entries_ ? entries_->otherKeys.size() : 0;
}

const CVValue& CVDictionary::nonStringKeyAt(std::size_t index) const {
  return entries_->otherKeys[index];
}

const CVValue& CVDictionary::nonStringKeyValueAt(std::size_t index) const {
  return entries_->otherValues[index];
}

std::size_t CVDictionary::stringKeysBeforeNonStringKey(std::size_t index) const {
  return entries_->otherPositions[index];
}

const CVValue& CVDictionary::valueAt(std::size_t index) const {
  return entries_->values[index];
}

bool CVDictionary::operator==(const CVDictionary& other) const {
  if (count() != other.count() || nonStringKeyCount() != other.nonStringKeyCount()) return false;
  if (nonStringKeyCount() != 0 && (entries_->otherKeys != other.entries_->otherKeys ||
                                   entries_->otherValues != other.entries_->otherValues))
    return false;
  const std::vector<std::string>& names = keys();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const CVValue* theirs = other.find(names[i]);
    if (theirs == nullptr || !(*theirs == entries_->values[i])) return false;
  }
  return true;
}

std::string CVDictionary::description(int indent) const {
  if (count() == 0 && nonStringKeyCount() == 0) return "{\n" + indentation(indent) + "}";
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
