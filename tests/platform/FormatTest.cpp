// The formatter: every conversion the system's messages use, and the markers
// that a format known only at run time prints for bad arguments.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Format.h"
#include "platform/Value.h"

namespace {

using platform::format;
using platform::makeFormatArg;
using platform::vformat;

TEST(FormatTest, ObjectsPrintTheirDescription) {
  EXPECT_EQ(format("at %@", CVURL::fileURLWithPath("/tmp/x", true)), "at file:///tmp/x/");
  EXPECT_EQ(format("%@", CVValue(CVArray{1})), "(\n    1\n)");
  EXPECT_EQ(format("%@", std::string("text")), "text");
  EXPECT_EQ(format("%@", std::string_view("view")), "view");
  EXPECT_EQ(format("%@", nullptr), "(null)");
  EXPECT_EQ(format("%@", CVError()), "(null)");
  const std::optional<CVURL> none;
  EXPECT_EQ(format("%@", none), "(null)");
  const CVValue* missing = nullptr;
  EXPECT_EQ(format("%@", missing), "(null)");
}

TEST(FormatTest, CStrings) {
  const char* text = "abc";
  EXPECT_EQ(format("[%s]", text), "[abc]");
  EXPECT_EQ(format("[%s]", std::string("def")), "[def]");
  const char* null = nullptr;
  EXPECT_EQ(format("[%s]", null), "[(null)]");
}

TEST(FormatTest, SignedIntegers) {
  EXPECT_EQ(format("%d", -17), "-17");
  EXPECT_EQ(format("%d", std::numeric_limits<int>::min()), "-2147483648");
  EXPECT_EQ(format("%ld", std::numeric_limits<long>::min()), "-9223372036854775808");
  EXPECT_EQ(format("%lld", -5LL), "-5");
  EXPECT_EQ(format("%i", 12), "12");
  // %d takes an int: a wider argument is narrowed as C would pass it.
  EXPECT_EQ(format("%d", 4294967297L), "1");
}

TEST(FormatTest, UnsignedIntegers) {
  EXPECT_EQ(format("%u", 7u), "7");
  EXPECT_EQ(format("%u", -1), "4294967295");
  EXPECT_EQ(format("%lu", std::numeric_limits<unsigned long>::max()), "18446744073709551615");
  EXPECT_EQ(format("%llu", std::numeric_limits<unsigned long long>::max()), "18446744073709551615");
  EXPECT_EQ(format("%lu", std::size_t{42}), "42");
  EXPECT_EQ(format("%d", 4294967295u), "-1");
}

TEST(FormatTest, HexadecimalWithWidthAndFlags) {
  EXPECT_EQ(format("0x%08X", 0xBEEFu), "0x0000BEEF");
  EXPECT_EQ(format("0x%08X", -1), "0xFFFFFFFF");
  EXPECT_EQ(format("%x", 255), "ff");
  EXPECT_EQ(format("%5d|%-5d|", 42, 42), "   42|42   |");
}

TEST(FormatTest, RealsAndPercent) {
  EXPECT_EQ(format("%.2f", 0.125), "0.12");
  EXPECT_EQ(format("%f", 1.5), "1.500000");
  EXPECT_EQ(format("100%%"), "100%");
  EXPECT_EQ(format("%d%%", 50), "50%");
}

TEST(FormatTest, MixedMessage) {
  EXPECT_EQ(
      format("%d: %@ (%@)", 12, std::string("description"), CVURL::fileURLWithPath("/x", false)),
      "12: description (file:///x)");
}

TEST(FormatRuntimeTest, MismatchedArgumentsAreMarked) {
  // Erased string arguments refer to the caller's text, which must outlive them.
  const std::string text = "x";
  const std::array args{makeFormatArg(text), makeFormatArg(5)};
  EXPECT_EQ(vformat("%d and %@", args), "<bad argument> and <bad argument>");
  const std::array urlForString{makeFormatArg(CVURL::fileURLWithPath("/x", false))};
  EXPECT_EQ(vformat("%s", urlForString), "<bad argument>");
  const std::array realForInteger{makeFormatArg(1.5)};
  EXPECT_EQ(vformat("%d", realForInteger), "<bad argument>");
}

TEST(FormatRuntimeTest, MissingArgumentsAreMarked) {
  const std::string text = "x";
  const std::array one{makeFormatArg(text)};
  EXPECT_EQ(vformat("%@ %@ %d", one), "x <missing> <missing>");
  EXPECT_EQ(vformat("%@", {}), "<missing>");
}

TEST(FormatRuntimeTest, MatchingArgumentsFormatAsAtCompileTime) {
  const std::string text = "s";
  const std::array args{makeFormatArg(-3), makeFormatArg(text), makeFormatArg(9ul)};
  EXPECT_EQ(vformat("%d %s %lu %%", args), "-3 s 9 %");
  // Surplus arguments are ignored; conversions the system does not use stay
  // as written.
  EXPECT_EQ(vformat("none", args), "none");
  EXPECT_EQ(vformat("%q and 100%", {}), "%q and 100%");
}

}  // namespace
