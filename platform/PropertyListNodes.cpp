#include "platform/PropertyListNodes.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string_view>

namespace platform::plist_nodes {
namespace {

// libplist keeps dates as seconds since 2001-01-01 00:00:00 UTC.
constexpr double kSecondsFrom1970To2001 = 978307200.0;

struct MallocFree {
  void operator()(void* pointer) const { std::free(pointer); }
};
// Strings and iterators that libplist 2.2 allocates with malloc.
using MallocPointer = std::unique_ptr<void, MallocFree>;

struct XMLFree {
  void operator()(char* xml) const { plist_to_xml_free(xml); }
};

// The XML encoding of a single (scalar) node; libplist prints what its public
// getters cannot tell: the sign of large integers and dates beyond 32 bits.
std::string scalarXML(plist_t node) {
  const PlistNode copy(plist_copy(node));
  if (!copy) return {};
  char* text = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(copy.get(), &text, &length);
  const std::unique_ptr<char, XMLFree> owner(text);
  return text ? std::string(text, length) : std::string();
}

// Whether an integer node whose bits exceed INT64_MAX is an unsigned value
// (rather than a negative one).
bool isLargeUnsigned(plist_t node) {
  return scalarXML(node).find("<integer>-") == std::string::npos;
}

std::optional<double> dateFromXML(plist_t node) {
  const std::string xml = scalarXML(node);
  const auto start = xml.find("<date>");
  if (start == std::string::npos) return std::nullopt;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (std::sscanf(xml.c_str() + start + 6, "%d-%d-%dT%d:%d:%dZ", &year, &month, &day, &hour,
                  &minute, &second) != 6)
    return std::nullopt;
  std::tm utc{};
  utc.tm_year = year - 1900;
  utc.tm_mon = month - 1;
  utc.tm_mday = day;
  utc.tm_hour = hour;
  utc.tm_min = minute;
  utc.tm_sec = second;
  return static_cast<double>(::timegm(&utc));
}

CVDate dateFromNode(plist_t node) {
  std::int32_t seconds = 0, microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  // libplist narrows its stored time to 32 bits here; the extremes are what a
  // date outside that range comes out as, so ask the XML encoding instead.
  if (seconds == std::numeric_limits<std::int32_t>::min() ||
      seconds == std::numeric_limits<std::int32_t>::max()) {
    if (const auto since1970 = dateFromXML(node)) return CVDate{*since1970};
  }
  // The microseconds come without sign: before 2001 they count back from the
  // (truncated) seconds. Within the first second before 2001 the sign is
  // lost altogether and the date reads as after.
  const double fraction = static_cast<double>(microseconds) / 1e6;
  const double since2001 = seconds < 0 ? static_cast<double>(seconds) - fraction
                                       : static_cast<double>(seconds) + fraction;
  return CVDate{since2001 + kSecondsFrom1970To2001};
}

CVValue integerFromNode(plist_t node) {
  std::uint64_t bits = 0;
  plist_get_uint_val(node, &bits);
  if (bits > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) &&
      isLargeUnsigned(node)) {
    return CVNumber::unsignedInteger(bits);
  }
  return CVNumber::integer(static_cast<std::int64_t>(bits));
}

std::optional<CVValue> convert(plist_t node, std::size_t depth, std::size_t maxDepth,
                               std::string& reason);

std::optional<CVValue> convertArray(plist_t node, std::size_t depth, std::size_t maxDepth,
                                    std::string& reason) {
  CVArray array;
  array.reserve(plist_array_get_size(node));
  plist_array_iter iterator = nullptr;
  plist_array_new_iter(node, &iterator);
  const MallocPointer iteratorOwner(iterator);
  while (true) {
    plist_t item = nullptr;
    plist_array_next_item(node, iterator, &item);
    if (item == nullptr) break;
    auto value = convert(item, depth, maxDepth, reason);
    if (!value) return std::nullopt;
    array.append(std::move(*value));
  }
  return CVValue(std::move(array));
}

std::optional<CVValue> convertDictionary(plist_t node, std::size_t depth, std::size_t maxDepth,
                                         std::string& reason) {
  CVDictionary dictionary;
  dictionary.reserve(plist_dict_get_size(node));
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(node, &iterator);
  const MallocPointer iteratorOwner(iterator);
  while (true) {
    char* key = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(node, iterator, &key, &item);
    const MallocPointer keyOwner(key);
    if (item == nullptr) break;
    auto value = convert(item, depth, maxDepth, reason);
    if (!value) return std::nullopt;
    dictionary.set(key ? std::string(key) : std::string(), std::move(*value));
  }
  return CVValue(std::move(dictionary));
}

std::optional<CVValue> convert(plist_t node, std::size_t depth, std::size_t maxDepth,
                               std::string& reason) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return CVValue(value != 0);
    }
    case PLIST_UINT:
      return integerFromNode(node);
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return CVValue(value);
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return CVValue(text ? std::string(text, static_cast<std::size_t>(length)) : std::string());
    }
    case PLIST_KEY: {
      char* text = nullptr;
      plist_get_key_val(node, &text);
      const MallocPointer owner(text);
      return CVValue(text ? std::string(text) : std::string());
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(plist_get_data_ptr(node, &length));
      return CVValue(bytes ? CVData(bytes, bytes + length) : CVData());
    }
    case PLIST_DATE:
      return CVValue(dateFromNode(node));
    case PLIST_UID: {
      std::uint64_t value = 0;
      plist_get_uid_val(node, &value);
      return CVValue(CVDictionary{{"CF$UID", CVValue(CVNumber::unsignedInteger(value))}});
    }
    case PLIST_ARRAY:
    case PLIST_DICT:
      if (depth >= maxDepth) {
        reason = "nested more than " + std::to_string(maxDepth) + " levels deep";
        return std::nullopt;
      }
      return plist_get_node_type(node) == PLIST_ARRAY
                 ? convertArray(node, depth + 1, maxDepth, reason)
                 : convertDictionary(node, depth + 1, maxDepth, reason);
    default:
      reason = "holds an object of an unknown kind";
      return std::nullopt;
  }
}

// A node made by libplist's own XML parser from `element`, for the values that
// its constructors cannot make (unsigned integers above INT64_MAX, dates
// beyond 32 bits of seconds).
PlistNode nodeFromXMLElement(const std::string& element) {
  const std::string document = "<plist version=\"1.0\">" + element + "</plist>";
  plist_t node = nullptr;
  plist_from_xml(document.data(), static_cast<std::uint32_t>(document.size()), &node);
  return PlistNode(node);
}

PlistNode dateNode(const CVDate& date) {
  double since2001 = date.secondsSince1970 - kSecondsFrom1970To2001;
  if (std::isnan(since2001)) since2001 = 0;
  const double whole = std::floor(since2001);
  constexpr double kMin = std::numeric_limits<std::int32_t>::min();
  constexpr double kMax = std::numeric_limits<std::int32_t>::max();
  if (whole > kMin && whole < kMax) {
    auto microseconds = static_cast<std::int32_t>(std::lround((since2001 - whole) * 1e6));
    auto seconds = static_cast<std::int32_t>(whole);
    if (microseconds >= 1000000) {
      microseconds -= 1000000;
      seconds += 1;
    }
    return PlistNode(plist_new_date(seconds, microseconds));
  }
  // Outside the range of the constructor: through the XML form, which holds
  // whole seconds of years 1 to 9999.
  if (std::isfinite(date.secondsSince1970) && std::fabs(date.secondsSince1970) < 4e11) {
    const auto since1970 = static_cast<std::time_t>(std::floor(date.secondsSince1970));
    std::tm utc{};
    if (::gmtime_r(&since1970, &utc) != nullptr && utc.tm_year + 1900 >= 1 &&
        utc.tm_year + 1900 <= 9999) {
      char element[64];
      std::snprintf(element, sizeof element, "<date>%04d-%02d-%02dT%02d:%02d:%02dZ</date>",
                    utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                    utc.tm_sec);
      if (PlistNode node = nodeFromXMLElement(element)) return node;
    }
  }
  return PlistNode(plist_new_date(since2001 < 0 ? std::numeric_limits<std::int32_t>::min() + 1
                                                : std::numeric_limits<std::int32_t>::max() - 1,
                                  0));
}

PlistNode numberNode(const CVNumber& number) {
  switch (number.type()) {
    case CVNumber::Type::Boolean:
      return PlistNode(plist_new_bool(number.boolValue() ? 1 : 0));
    case CVNumber::Type::Real:
      return PlistNode(plist_new_real(number.doubleValue()));
    case CVNumber::Type::UnsignedInteger:
      if (PlistNode node = nodeFromXMLElement("<integer>" + number.description() + "</integer>"))
        return node;
      return PlistNode(plist_new_uint(number.uint64Value()));
    case CVNumber::Type::Integer:
      break;
  }
  return PlistNode(plist_new_uint(static_cast<std::uint64_t>(number.int64Value())));
}

PlistNode encode(const CVValue& value, std::size_t depth, std::size_t maxDepth);

template <class Items>
PlistNode arrayNode(const Items& items, std::size_t depth, std::size_t maxDepth) {
  PlistNode array(plist_new_array());
  for (const CVValue& item : items) {
    PlistNode child = encode(item, depth, maxDepth);
    if (!child) return nullptr;
    plist_array_append_item(array.get(), child.release());
  }
  return array;
}

PlistNode dictionaryNode(const CVDictionary& dictionary, std::size_t depth, std::size_t maxDepth) {
  PlistNode node(plist_new_dict());
  for (std::size_t i = 0; i < dictionary.count(); ++i) {
    PlistNode child = encode(dictionary.valueAt(i), depth, maxDepth);
    if (!child) return nullptr;
    plist_dict_set_item(node.get(), dictionary.keys()[i].c_str(), child.release());
  }
  return node;
}

PlistNode encode(const CVValue& value, std::size_t depth, std::size_t maxDepth) {
  switch (value.kind()) {
    case CVValue::Kind::String:
      return PlistNode(plist_new_string(value.asString()->c_str()));
    case CVValue::Kind::Number:
      return numberNode(*value.asNumber());
    case CVValue::Kind::Data: {
      const CVData& data = *value.asData();
      static const char kNoBytes = 0;
      return PlistNode(plist_new_data(
          data.empty() ? &kNoBytes : reinterpret_cast<const char*>(data.data()), data.size()));
    }
    case CVValue::Kind::Date:
      return dateNode(*value.asDate());
    case CVValue::Kind::Array:
    case CVValue::Kind::Set:
    case CVValue::Kind::Dictionary:
      if (depth >= maxDepth) return nullptr;
      if (const CVArray* array = value.asArray()) return arrayNode(*array, depth + 1, maxDepth);
      if (const CVSet* set = value.asSet()) return arrayNode(*set, depth + 1, maxDepth);
      return dictionaryNode(*value.asDictionary(), depth + 1, maxDepth);
    case CVValue::Kind::URL:
      return PlistNode(plist_new_string(value.asURL()->description().c_str()));
    case CVValue::Kind::Null:
    case CVValue::Kind::Error:
      break;
  }
  return PlistNode(plist_new_string(value.description().c_str()));
}

}  // namespace

std::optional<CVValue> valueFromNode(plist_t node, std::size_t maxDepth, std::string& reason) {
  if (node == nullptr) {
    reason = "empty";
    return std::nullopt;
  }
  return convert(node, 0, maxDepth, reason);
}

PlistNode nodeFromValue(const CVValue& value, std::size_t maxDepth) {
  return encode(value, 0, maxDepth);
}

}  // namespace platform::plist_nodes
