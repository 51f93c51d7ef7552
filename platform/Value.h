// The value model: every loosely typed object the system passes around.
//
// Property lists, preferences, container info records, install options and
// error user-information are trees of CVValue. A value is one of: null, string,
// number (integer, real or boolean), data, date, array, dictionary, set, file
// URL or error record. Values have value semantics: copying a value copies the
// tree. Dictionaries keep their keys in insertion order.
//
// Every value has a description, the text that "%@" prints: a string prints
// as itself, a URL as its string form, a null as "(null)", collections in the
// familiar bracketed form.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Error.h"
#include "platform/URL.h"

class CVValue;

// A number holds an integer, a real or a boolean. A boolean is a number (as the
// platform's number type holds both), but a stored boolean false is never equal
// to the integer 0.
class CVNumber {
 public:
  enum class Type { Integer, UnsignedInteger, Real, Boolean };

  static CVNumber integer(std::int64_t value) { return CVNumber(Type::Integer, value); }
  static CVNumber unsignedInteger(std::uint64_t value);
  static CVNumber real(double value);
  static CVNumber boolean(bool value) { return CVNumber(Type::Boolean, value ? 1 : 0); }

  Type type() const { return type_; }
  bool isBoolean() const { return type_ == Type::Boolean; }
  bool isReal() const { return type_ == Type::Real; }
  std::int64_t int64Value() const;
  std::uint64_t uint64Value() const;
  double doubleValue() const;
  bool boolValue() const;
  std::string description() const;
  bool operator==(const CVNumber& other) const;

 private:
  CVNumber(Type type, std::int64_t bits) : type_(type), integer_(bits) {}
  Type type_;
  std::int64_t integer_ = 0;
  double real_ = 0;
};

// Bytes, as property-list data carries them.
using CVData = std::vector<std::uint8_t>;

// A point in time, seconds since 1970-01-01 00:00:00 UTC.
struct CVDate {
  double secondsSince1970 = 0;
  bool operator==(const CVDate&) const = default;
  std::string description() const;
};

class CVArray {
 public:
  CVArray() = default;
  CVArray(std::initializer_list<CVValue> values);

  // Defined after CVValue: clang instantiates the vector's constexpr members
  // here and needs the element type complete.
  std::size_t count() const;
  bool empty() const { return items_.empty(); }
  const CVValue& operator[](std::size_t index) const;
  void append(CVValue value);
  void insertAtFront(CVValue value);
  void reserve(std::size_t count);  // makes room (a parser knows how many come)
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }
  bool operator==(const CVArray& other) const;
  std::string description(int indent = 0) const;

 private:
  std::vector<CVValue> items_;
};

// String-keyed, insertion-ordered dictionary. A small dictionary is
// searched in order; a larger one keeps a hash index, so lookups stay
// constant-time. The entries live behind one pointer (none while the
// dictionary is empty), so that a value of any kind stays small: a parsed
// property list is mostly values.
class CVDictionary {
 public:
  CVDictionary();
  CVDictionary(std::initializer_list<std::pair<std::string, CVValue>> entries);
  CVDictionary(const CVDictionary&);
  CVDictionary(CVDictionary&&) noexcept;
  CVDictionary& operator=(const CVDictionary&);
  CVDictionary& operator=(CVDictionary&&) noexcept;
  ~CVDictionary();

  std::size_t count() const;
  bool empty() const { return count() == 0; }
  // The value stored under `key`, or null when there is none.
  const CVValue* find(std::string_view key) const;
  CVValue* find(std::string_view key);
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  // Typed lookups: null when the key is absent or holds another kind.
  const std::string* findString(std::string_view key) const;
  const CVDictionary* findDictionary(std::string_view key) const;
  const CVArray* findArray(std::string_view key) const;
  const CVNumber* findNumber(std::string_view key) const;

  // Stores `value` under `key`, replacing an existing value in place.
  void set(std::string key, CVValue value);
  // Removes `key`; returns whether it was there.
  bool remove(std::string_view key);
  // Makes room for `count` string keys (a parser knows how many come).
  void reserve(std::size_t count);

  const std::vector<std::string>& keys() const;
  const CVValue& valueAt(std::size_t index) const;

  // Entries under a key that is not a string, which binary property lists can
  // hold. Lookups and keys() never see them; count() does not count them.
  // Each remembers how many string keys came before it, so that the file's
  // order of all keys can be followed (see forEachEntry). Property lists the
  // system writes leave them out.
  void addEntryWithNonStringKey(CVValue key, CVValue value);
  std::size_t nonStringKeyCount() const;
  const CVValue& nonStringKeyAt(std::size_t index) const;
  const CVValue& nonStringKeyValueAt(std::size_t index) const;
  // Visits every entry in key order, string keys and others alike.
  template <typename Visitor>  // void(const CVValue& key, const CVValue& value)
  void forEachEntry(Visitor&& visit) const;

  bool operator==(const CVDictionary& other) const;
  std::string description(int indent = 0) const;

 private:
  struct Entries;
  Entries& entries();  // made on the first write
  // How many string keys come before the non-string key `index`.
  std::size_t stringKeysBeforeNonStringKey(std::size_t index) const;
  std::unique_ptr<Entries> entries_;
};

// An unordered collection of distinct values that remembers insertion order.
class CVSet {
 public:
  CVSet() = default;
  CVSet(std::initializer_list<CVValue> values);
  std::size_t count() const;  // defined after CVValue, as CVArray::count
  bool empty() const { return items_.empty(); }
  bool contains(const CVValue& value) const;
  // Adds `value` unless an equal value is already present.
  void add(CVValue value);
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }
  bool operator==(const CVSet& other) const;
  std::string description(int indent = 0) const;

 private:
  std::vector<CVValue> items_;
};

class CVValue {
 public:
  enum class Kind { Null, String, Number, Data, Date, Array, Dictionary, Set, URL, Error };

  CVValue() = default;
  CVValue(std::nullptr_t) {}
  CVValue(std::string value) : storage_(std::move(value)) {}
  CVValue(std::string_view value) : storage_(std::string(value)) {}
  CVValue(const char* value) : storage_(std::string(value)) {}
  CVValue(CVNumber value) : storage_(value) {}
  CVValue(bool value) : storage_(CVNumber::boolean(value)) {}
  CVValue(int value) : storage_(CVNumber::integer(value)) {}
  CVValue(long value) : storage_(CVNumber::integer(value)) {}
  CVValue(long long value) : storage_(CVNumber::integer(value)) {}
  CVValue(unsigned value) : storage_(CVNumber::integer(value)) {}
  CVValue(unsigned long value) : storage_(CVNumber::unsignedInteger(value)) {}
  CVValue(unsigned long long value) : storage_(CVNumber::unsignedInteger(value)) {}
  CVValue(double value) : storage_(CVNumber::real(value)) {}
  CVValue(CVData value) : storage_(std::move(value)) {}
  CVValue(CVDate value) : storage_(value) {}
  CVValue(CVArray value) : storage_(std::move(value)) {}
  CVValue(CVDictionary value) : storage_(std::move(value)) {}
  CVValue(CVSet value) : storage_(std::move(value)) {}
  CVValue(CVURL value) : storage_(std::move(value)) {}
  CVValue(CVError value) : storage_(std::move(value)) {}

  Kind kind() const { return static_cast<Kind>(storage_.index()); }
  bool isNull() const { return kind() == Kind::Null; }
  // True for a number that is a stored boolean with value false (not for 0).
  bool isBooleanFalse() const;
  bool isBooleanTrue() const;

  // Typed views: null when the value is of another kind.
  const std::string* asString() const { return std::get_if<std::string>(&storage_); }
  const CVNumber* asNumber() const { return std::get_if<CVNumber>(&storage_); }
  const CVData* asData() const { return std::get_if<CVData>(&storage_); }
  const CVDate* asDate() const { return std::get_if<CVDate>(&storage_); }
  const CVArray* asArray() const { return std::get_if<CVArray>(&storage_); }
  const CVDictionary* asDictionary() const { return std::get_if<CVDictionary>(&storage_); }
  CVDictionary* asDictionary() { return std::get_if<CVDictionary>(&storage_); }
  const CVSet* asSet() const { return std::get_if<CVSet>(&storage_); }
  const CVURL* asURL() const { return std::get_if<CVURL>(&storage_); }
  const CVError* asError() const { return std::get_if<CVError>(&storage_); }

  // The text "%@" prints. `indent` is the nesting depth inside a collection.
  std::string description(int indent = 0) const;
  // The kind's name as descriptions of types print it ("string", "number", ...).
  static std::string_view kindName(Kind kind);

  bool operator==(const CVValue& other) const;

 private:
  std::variant<std::monostate, std::string, CVNumber, CVData, CVDate, CVArray, CVDictionary, CVSet,
               CVURL, CVError>
      storage_;
};

inline std::size_t CVArray::count() const {
  return items_.size();
}
inline const CVValue& CVArray::operator[](std::size_t index) const {
  return items_[index];
}
inline void CVArray::reserve(std::size_t count) {
  items_.reserve(count);
}
inline std::size_t CVSet::count() const {
  return items_.size();
}

template <typename Visitor>
void CVDictionary::forEachEntry(Visitor&& visit) const {
  const std::vector<std::string>& names = keys();
  const std::size_t others = nonStringKeyCount();
  std::size_t other = 0;
  for (std::size_t i = 0; i <= names.size(); ++i) {
    for (; other < others && stringKeysBeforeNonStringKey(other) == i; ++other)
      visit(nonStringKeyAt(other), nonStringKeyValueAt(other));
    if (i < names.size()) visit(CVValue(names[i]), valueAt(i));
  }
}
