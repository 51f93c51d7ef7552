#include "platform/Format.h"

#include <cstdio>

namespace platform {
namespace {

// Renders one numeric conversion through snprintf, with the flags and width
// of the original text and a length modifier that matches the 64-bit value.
template <class T>
std::string renderNumber(std::string_view specText, char conversion, const char* lengthModifier,
                         T value) {
  std::string c_format(specText.substr(0, specText.size() - 1));
  while (!c_format.empty() && (c_format.back() == 'l' || c_format.back() == 'h' ||
                               c_format.back() == 'z' || c_format.back() == 'q')) {
    c_format.pop_back();
  }
  c_format += lengthModifier;
  c_format += conversion;
  char buffer[128];
  const int length = std::snprintf(buffer, sizeof buffer, c_format.c_str(), value);
  if (length < 0) return "<bad argument>";
  return std::string(buffer, static_cast<std::size_t>(length) < sizeof buffer
                                 ? static_cast<std::size_t>(length)
                                 : sizeof buffer - 1);
}

// The number of 'l' modifiers in a conversion: none means a 32-bit argument.
int longModifiers(std::string_view specText) {
  int count = 0;
  for (const char c : specText)
    count += c == 'l' || c == 'q' || c == 'z' ? 1 : 0;
  return count;
}

std::string renderInteger(std::string_view specText, char conversion, const FormatArg& arg) {
  const bool wide = longModifiers(specText) > 0;
  if (conversion == 'd') {
    long long value = arg.isUnsigned ? static_cast<long long>(arg.unsignedValue)
                                     : static_cast<long long>(arg.signedValue);
    if (!wide) value = static_cast<int>(value);
    return renderNumber(specText, 'd', "ll", value);
  }
  unsigned long long value =
      arg.isUnsigned ? arg.unsignedValue : static_cast<unsigned long long>(arg.signedValue);
  if (!wide) value = static_cast<unsigned>(value);
  return renderNumber(specText, conversion, "ll", value);
}

}  // namespace

std::string vformat(std::string_view text, std::span<const FormatArg> args) {
  std::string result;
  result.reserve(text.size() + 32 * args.size());
  std::size_t argument = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      result += text[i];
      continue;
    }
    FormatSpec spec;
    if (!parseSpec(text, i, spec)) {
      result += text[i];
      continue;
    }
    i = spec.end - 1;
    if (spec.conversion == '%') {
      result += '%';
      continue;
    }
    if (argument >= args.size()) {
      result += "<missing>";
      continue;
    }
    const FormatArg& arg = args[argument++];
    if (!accepts(spec.conversion, arg.argClass)) {
      result += "<bad argument>";
      continue;
    }
    const std::string_view specText = text.substr(spec.begin, spec.end - spec.begin);
    switch (spec.conversion) {
      case '@':
        if (arg.argClass == ArgClass::String) {
          result += arg.text;
        } else {
          result += arg.described;
        }
        break;
      case 's':
        result += arg.text;
        break;
      case 'f':
        result += renderNumber(specText, 'f', "", arg.floatingValue);
        break;
      default:
        result += renderInteger(specText, spec.conversion, arg);
        break;
    }
  }
  return result;
}

}  // namespace platform
