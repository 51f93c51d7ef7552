// Type-safe message formatting with the system's printf-style format strings.
//
// Every message in the code reads exactly as its text is quoted: "%@" prints an
// object's description, "%s" a C string, "%d", "%ld", "%lld", "%u", "%lu",
// "%llu", "%x" and "%X" (with flags and widths such as "0x%08X") integers,
// "%f" and "%.Nf" reals, and "%%" a percent sign.
//
// A literal format string is checked against its arguments at compile time: a
// wrong number of arguments or an argument of the wrong kind (an integer for
// "%@", a URL for "%s", ...) does not compile. Strings (std::string,
// std::string_view) are objects and C strings at once. A format that is only
// known at run time goes through vformat(), which prints a visible marker for a
// mismatched argument instead of misbehaving.
#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <optional>
#include <source_location>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace platform {

enum class ArgClass { Object, String, Integer, Floating, Invalid };

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <class T>
concept Describable = requires(const T& value) {
  { value.description() } -> std::convertible_to<std::string>;
};

template <class T>
consteval ArgClass argClassOf() {
  using U = std::remove_cvref_t<T>;
  if constexpr (std::is_same_v<U, bool>) {
    return ArgClass::Invalid;
  } else if constexpr (std::is_integral_v<U>) {
    return ArgClass::Integer;
  } else if constexpr (std::is_floating_point_v<U>) {
    return ArgClass::Floating;
  } else if constexpr (std::is_same_v<std::decay_t<U>, const char*> ||
                       std::is_same_v<std::decay_t<U>, char*> || std::is_same_v<U, std::string> ||
                       std::is_same_v<U, std::string_view>) {
    return ArgClass::String;
  } else if constexpr (std::is_same_v<U, std::nullptr_t> || Describable<U>) {
    return ArgClass::Object;
  } else if constexpr (std::is_pointer_v<U>) {
    return Describable<std::remove_cv_t<std::remove_pointer_t<U>>> ? ArgClass::Object
                                                                   : ArgClass::Invalid;
  } else if constexpr (IsOptional<U>::value) {
    return Describable<typename U::value_type> ? ArgClass::Object : ArgClass::Invalid;
  } else {
    return ArgClass::Invalid;
  }
}

// One parsed conversion of a format string.
struct FormatSpec {
  char conversion = 0;             // '@', 's', 'd', 'u', 'x', 'X', 'f' or '%'
  std::size_t begin = 0, end = 0;  // the conversion's text, '%' included
};

// Parses the conversion starting at `text[position]` (a '%'). Returns false when
// the conversion is not one the system uses.
constexpr bool parseSpec(std::string_view text, std::size_t position, FormatSpec& spec) {
  std::size_t i = position + 1;
  while (i < text.size() && (text[i] == '-' || text[i] == '0' || text[i] == '+' || text[i] == ' '))
    ++i;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9')
    ++i;
  if (i < text.size() && text[i] == '.') {
    ++i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9')
      ++i;
  }
  while (i < text.size() && (text[i] == 'l' || text[i] == 'h' || text[i] == 'z' || text[i] == 'q'))
    ++i;
  if (i >= text.size()) return false;
  char c = text[i];
  if (c == 'i') c = 'd';
  if (c != '@' && c != 's' && c != 'd' && c != 'u' && c != 'x' && c != 'X' && c != 'f' && c != '%')
    return false;
  spec = FormatSpec{c, position, i + 1};
  return true;
}

constexpr bool accepts(char conversion, ArgClass argClass) {
  switch (conversion) {
    case '@':
      return argClass == ArgClass::Object || argClass == ArgClass::String;
    case 's':
      return argClass == ArgClass::String;
    case 'd':
    case 'u':
    case 'x':
    case 'X':
      return argClass == ArgClass::Integer;
    case 'f':
      return argClass == ArgClass::Floating;
    default:
      return false;
  }
}

// Compile-time check of a literal format against its argument classes. A throw
// inside a consteval evaluation is a compile error that points here.
template <std::size_t N>
consteval void checkFormat(std::string_view text, const std::array<ArgClass, N>& classes) {
  std::size_t argument = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') continue;
    FormatSpec spec;
    if (!parseSpec(text, i, spec)) throw "format string: unsupported conversion";
    i = spec.end - 1;
    if (spec.conversion == '%') continue;
    if (argument >= N) throw "format string: more conversions than arguments";
    if (!accepts(spec.conversion, classes[argument]))
      throw "format string: argument does not match its conversion";
    ++argument;
  }
  if (argument != N) throw "format string: more arguments than conversions";
}

// A format string checked against the argument types Args at compile time. It
// also records where it was written, which the migration log reports.
template <class... Args>
class BasicFormatString {
 public:
  template <class S>
  requires std::convertible_to<const S&, std::string_view>
  consteval BasicFormatString(const S& text,
                              std::source_location where = std::source_location::current())
      : text_(text), where_(where) {
    checkFormat(text_, std::array<ArgClass, sizeof...(Args)>{argClassOf<Args>()...});
  }
  constexpr std::string_view text() const { return text_; }
  constexpr std::source_location where() const { return where_; }

 private:
  std::string_view text_;
  std::source_location where_;
};

template <class... Args>
using FormatString = BasicFormatString<std::type_identity_t<Args>...>;

// One argument, erased to what the formatter needs.
struct FormatArg {
  ArgClass argClass = ArgClass::Invalid;
  std::int64_t signedValue = 0;
  std::uint64_t unsignedValue = 0;
  bool isUnsigned = false;
  double floatingValue = 0;
  std::string_view text;  // ArgClass::String
  std::string described;  // ArgClass::Object, rendered eagerly
};

// String arguments are referenced, not copied: the text must outlive the
// returned FormatArg (format() and the log functions guarantee it).
template <class T>
FormatArg makeFormatArg(const T& value) {
  using U = std::remove_cvref_t<T>;
  FormatArg arg;
  arg.argClass = argClassOf<U>();
  if constexpr (std::is_integral_v<U> && !std::is_same_v<U, bool>) {
    if constexpr (std::is_unsigned_v<U>) {
      arg.isUnsigned = true;
      arg.unsignedValue = value;
    } else {
      arg.signedValue = value;
    }
  } else if constexpr (std::is_floating_point_v<U>) {
    arg.floatingValue = value;
  } else if constexpr (std::is_same_v<std::decay_t<U>, const char*> ||
                       std::is_same_v<std::decay_t<U>, char*>) {
    const char* pointer = value;
    arg.text = pointer ? std::string_view(pointer) : std::string_view("(null)");
  } else if constexpr (std::is_same_v<U, std::string> || std::is_same_v<U, std::string_view>) {
    arg.text = value;
  } else if constexpr (std::is_same_v<U, std::nullptr_t>) {
    arg.described = "(null)";
  } else if constexpr (Describable<U>) {
    arg.described = value.description();
  } else if constexpr (std::is_pointer_v<U>) {
    arg.described = value ? value->description() : std::string("(null)");
  } else if constexpr (IsOptional<U>::value) {
    arg.described = value ? value->description() : std::string("(null)");
  }
  return arg;
}

// Formats `text` with already erased arguments. Conversions without an argument
// print "<missing>", arguments of the wrong kind "<bad argument>".
std::string vformat(std::string_view text, std::span<const FormatArg> args);

template <class... Args>
std::string format(FormatString<Args...> text, const Args&... args) {
  const std::array<FormatArg, sizeof...(Args)> erased{makeFormatArg(args)...};
  return vformat(text.text(), erased);
}

}  // namespace platform
