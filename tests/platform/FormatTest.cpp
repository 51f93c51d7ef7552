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

TEST(FormatTest, ConversionsOfTheSystemsMessages) {
  const std::optional<CVURL> none;
  const CVValue* missing = nullptr;
  const char* null = nullptr;
  const std::vector<std::pair<std::string, std::string>> cases = {
      {format("at %@", CVURL::fileURLWithPath("/tmp/x", true)), "at file:///tmp/x/"},
      {format("%@", CVValue(CVArray{1})), "(\n    1\n)"},
      {format("%@ %@", std::string("text"), std::string_view("view")), "text view"},
      {format("%@ %@ %@ %@", nullptr, CVError(), none, missing), "(null) (null) (null) (null)"},
      {format("[%s][%s]", "abc", null), "[abc][(null)]"},
      {format("%d %i %lld", -17, 12, -5LL), "-17 12 -5"},
      {format("%ld", std::numeric_limits<long>::min()), "-9223372036854775808"},
      {format("%d", 4294967297L), "1"},  // %d takes an int, as C would pass it
      {format("%u %u", 7u, -1), "7 4294967295"},
      {format("%llu", std::numeric_limits<unsigned long long>::max()), "18446744073709551615"},
      {format("%lu %d", std::size_t{42}, 4294967295u), "42 -1"},
      {format("0x%08X 0x%08X %x", 0xBEEFu, -1, 255), "0x0000BEEF 0xFFFFFFFF ff"},
      {format("%5d|%-5d|", 42, 42), "   42|42   |"},
      {format("%.2f %f", 0.125, 1.5), "0.12 1.500000"},
      {format("100%% %d%%", 50), "100% 50%"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got, expected);
}

TEST(FormatTest, RunTimeFormatsMarkBadAndMissingArguments) {
  // Erased string arguments refer to the caller's text, which must outlive them.
  const std::string text = "x";
  const std::array mismatched{makeFormatArg(text), makeFormatArg(5)};
  EXPECT_EQ(vformat("%d and %@", mismatched), "<bad argument> and <bad argument>");
  const std::array url{makeFormatArg(CVURL::fileURLWithPath("/x", false))};
  EXPECT_EQ(vformat("%s", url), "<bad argument>");
  const std::array real{makeFormatArg(1.5)};
  EXPECT_EQ(vformat("%d", real), "<bad argument>");
  const std::array one{makeFormatArg(text)};
  EXPECT_EQ(vformat("%@ %@ %d", one), "x <missing> <missing>");
  EXPECT_EQ(vformat("%@", {}), "<missing>");
  const std::array matching{makeFormatArg(-3), makeFormatArg(text), makeFormatArg(9ul)};
  EXPECT_EQ(vformat("%d %s %lu %%", matching), "-3 x 9 %");
  // Surplus arguments are ignored; conversions the system does not use stay.
  EXPECT_EQ(vformat("none", matching), "none");
  EXPECT_EQ(vformat("%q and 100%", {}), "%q and 100%");
}

}  // namespace
