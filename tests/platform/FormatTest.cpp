// The formatter: the conversions the system's messages use, and the markers
// that a format known only at run time prints for bad or missing arguments.
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <optional>
#include <string>

#include "platform/Format.h"
#include "platform/Value.h"

namespace {

using platform::format;
using platform::makeFormatArg;
using platform::vformat;

TEST(FormatTest, ConversionsAndRunTimeMarkers) {
  const std::optional<CVURL> none;
  const CVValue* missing = nullptr;
  const char* null = nullptr;
  // Erased string arguments refer to the caller's text, which must outlive them.
  const std::string text = "x";
  const std::array mismatched{makeFormatArg(text), makeFormatArg(5)};
  const std::array one{makeFormatArg(text)};
  const std::array matching{makeFormatArg(-3), makeFormatArg(text), makeFormatArg(9ul)};
  const std::array url{makeFormatArg(CVURL::fileURLWithPath("/x", false))};
  const std::vector<std::pair<std::string, std::string>> cases = {
      {format("at %@", CVURL::fileURLWithPath("/tmp/x", true)), "at file:///tmp/x/"},
      {format("%@ %@", std::string("text"), std::string_view("view")), "text view"},
      {format("%@ %@ %@ %@", nullptr, CVError(), none, missing), "(null) (null) (null) (null)"},
      {format("[%s][%s]", "abc", null), "[abc][(null)]"},
      {format("%d %i %lld", -17, 12, -5LL), "-17 12 -5"},
      {format("%d", 4294967297L), "1"},  // %d takes an int, as C would pass it
      {format("%u %lu %d", -1, std::size_t{42}, 4294967295u), "4294967295 42 -1"},
      {format("%llu", std::numeric_limits<unsigned long long>::max()), "18446744073709551615"},
      {format("0x%08X %x %5d|%-5d|", 0xBEEFu, 255, 42, 42), "0x0000BEEF ff    42|42   |"},
      {format("%.2f %f 100%%", 0.125, 1.5), "0.12 1.500000 100%"},
      {vformat("%d and %@", mismatched), "<bad argument> and <bad argument>"},
      {vformat("%s", url), "<bad argument>"},
      {vformat("%@ %@ %d", one), "x <missing> <missing>"},
      {vformat("%d %s %lu %%", matching), "-3 x 9 %"},
      {vformat("none", matching), "none"},  // surplus arguments are ignored
      {vformat("%q and 100%", {}), "%q and 100%"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got, expected);
}

}  // namespace
