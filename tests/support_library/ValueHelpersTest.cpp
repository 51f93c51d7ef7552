// Coercion of loosely typed values, paths as bytes, and ".." screening.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "shared/support/CVValueHelpers.h"
#include "shared/support/CorvaneAdditions.h"

namespace {

using Kind = CVValue::Kind;

TEST(ValueHelpersTest, StringifyGivesStringsUnformattedAndOtherObjectsTheirDescription) {
  EXPECT_EQ(CVStringifyObject(nullptr), std::nullopt);
  EXPECT_EQ(CVStringifyObject(CVValue()), std::nullopt);
  // A string must not go through the formatter: its "%@" stays as written.
  EXPECT_EQ(CVStringifyObject(CVValue("100%@ sure")), "100%@ sure");
  EXPECT_EQ(CVStringifyObject(CVValue("")), "");
  const CVValue dictionary = CVDictionary{{"ContainerType", "App"}, {"List", CVArray{"a", 1}}};
  EXPECT_EQ(CVStringifyObject(dictionary), dictionary.description());
  EXPECT_EQ(CVStringifyObject(CVValue(42)), "42");
  EXPECT_EQ(CVStringifyObject(CVURL::fileURLWithPath("/var/mobile", true)), "file:///var/mobile/");
}

TEST(ValueHelpersTest, ArrayContainsOnlyClassCountsBooleansAsNumbers) {
  for (const auto& [array, kind, expected] :
       {std::tuple{CVArray{}, Kind::String, true}, std::tuple{CVArray{}, Kind::Dictionary, true},
        std::tuple{CVArray{1, true, 2.5, false}, Kind::Number, true},
        std::tuple{CVArray{true}, Kind::String, false},
        std::tuple{CVArray{"a", "b", "c"}, Kind::String, true},
        std::tuple{CVArray{1, "a"}, Kind::Number, false},
        std::tuple{CVArray{"a", "b", 3}, Kind::String, false},
        std::tuple{CVArray{CVValue(), "a"}, Kind::String, false}}) {
    EXPECT_EQ(CVArrayContainsOnlyClass(array, kind), expected) << CVValue(array).description();
  }
}

// Only numbers are read as booleans; strings never are, whatever they say.
TEST(ValueHelpersTest, BooleanValueReadsNumbersAndGivesTheDefaultOtherwise) {
  for (const bool fallback : {false, true}) {
    for (const CVValue& truthy : {CVValue(true), CVValue(7), CVValue(0.5)})
      EXPECT_TRUE(CVBooleanValue(truthy, fallback)) << truthy.description();
    for (const CVValue& falsy : {CVValue(false), CVValue(0)})
      EXPECT_FALSE(CVBooleanValue(falsy, fallback)) << falsy.description();
    EXPECT_EQ(CVBooleanValue(nullptr, fallback), fallback);
    for (const CVValue& other : {CVValue(), CVValue("true"), CVValue("NO"), CVValue(CVArray{true}),
                                 CVValue(CVDictionary{{"a", true}})})
      EXPECT_EQ(CVBooleanValue(other, fallback), fallback) << other.description();
  }
}

TEST(ValueHelpersTest, ArrayifyWrapsOneObjectKeepsUniformArraysAndSetsAndRefusesTheRest) {
  const CVDictionary info{{"a", 1}};
  const CVArray nested{CVArray{1}, CVArray{2}};
  const CVSet set{1, 2};
  const std::vector<std::tuple<CVValue, Kind, std::optional<CVArray>>> cases = {
      {CVValue(), Kind::Null, std::nullopt},
      {CVValue("com.example.app"), Kind::String, CVArray{"com.example.app"}},
      {CVValue(true), Kind::Number, CVArray{true}},
      {CVValue(info), Kind::Dictionary, CVArray{info}},
      {CVValue("1"), Kind::Number, std::nullopt},
      {CVValue(info), Kind::String, std::nullopt},
      {CVValue(CVArray{"b", "a"}), Kind::String, CVArray{"b", "a"}},
      {CVValue(CVArray{}), Kind::String, CVArray{}},
      {CVValue(CVArray{"a", 1}), Kind::String, std::nullopt},
      // An array is never wrapped, even when arrays are what is asked for.
      {CVValue(nested), Kind::Array, nested},
      {CVValue(CVArray{1, 2}), Kind::Array, std::nullopt},
      {CVValue(CVSet{"z", "a", "m"}), Kind::String, CVArray{"z", "a", "m"}},
      {CVValue(CVSet{"a", 1}), Kind::String, std::nullopt},
      // Asked for sets, a set is an object of the class itself and gets wrapped.
      {CVValue(set), Kind::Set, CVArray{set}},
  };
  EXPECT_EQ(CVArrayifyThing(nullptr, Kind::String), std::nullopt);
  for (const auto& [value, kind, expected] : cases)
    EXPECT_EQ(CVArrayifyThing(value, kind), expected) << value.description();
}

using CorvaneAdditions::containsDotDotPathComponents;
using CorvaneAdditions::stringWithFileSystemRepresentation;

std::optional<std::string> decode(std::string_view bytes) {
  // An exactly sized copy without terminator: reading past it is an
  // AddressSanitizer report.
  const auto buffer = std::make_unique<char[]>(bytes.size() + 1);
  std::memcpy(buffer.get(), bytes.data(), bytes.size());
  return stringWithFileSystemRepresentation(buffer.get(), bytes.size());
}

TEST(CorvaneAdditionsTest, OnlyWholeParentComponentsCountAsDotDot) {
  for (const char* path : {"a/../b", "../x", "..", "/..", "/a/b/..", "a/b/../", "a//..//b"})
    EXPECT_TRUE(containsDotDotPathComponents(path)) << path;
  for (const char* path :
       {"a/..b", "a/.../b", "a/./b", "", "/", "..a", "b..", "a/b.. /c", ". ./a", "a/.", "./."})
    EXPECT_FALSE(containsDotDotPathComponents(path)) << path;
}

TEST(FileSystemRepresentationTest, WellFormedTextDecodesAndIllFormedBytesAreRejected) {
  for (const char* text : {"Documents/Inbox", "caf\xC3\xA9", "\xE6\x97\xA5\xE6\x9C\xAC",
                           "\xF0\x9F\x93\x81",  // U+1F4C1
                           "\xF4\x8F\xBF\xBF",  // U+10FFFF, the last one
                           "\xEF\xBF\xBD",      // U+FFFD
                           "\xED\x9F\xBF",      // U+D7FF, just below surrogates
                           ""})
    EXPECT_EQ(decode(text), text);
  const char* const illFormed[] = {
      "\xC0\xAF",          // overlong "/"
      "\xC1\xBF",          // overlong lead
      "\xE0\x80\xAF",      // overlong "/" in three bytes
      "\xE0\x9F\xBF",      // overlong U+07FF
      "\xF0\x8F\xBF\xBF",  // overlong U+FFFF
      "\xED\xA0\x80",      // high surrogate
      "\xED\xBF\xBF",      // low surrogate
      "\xF4\x90\x80\x80",  // U+110000
      "\xF5\x80\x80\x80",  // lead beyond the range
      "\xFF",
      "\x80",  // stray continuation
      "a\xBF",
      "\xE6\x97",      // truncated at the end
      "\xE6\x41\x97",  // continuation replaced by ASCII
      "\xC3",
  };
  for (const char* bytes : illFormed) {
    SCOPED_TRACE(testing::PrintToString(std::string(bytes)));
    EXPECT_EQ(decode(bytes), std::nullopt);
    EXPECT_EQ(stringWithFileSystemRepresentation(bytes), std::nullopt);
  }
}

// Exactly the given length is decoded; the terminated form stops at the NUL.
TEST(FileSystemRepresentationTest, LengthAndTerminatorBoundTheText) {
  EXPECT_EQ(stringWithFileSystemRepresentation("Library/Caches", 7), "Library");
  // The cut lands inside "é": what is left is a truncated sequence.
  EXPECT_EQ(stringWithFileSystemRepresentation("caf\xC3\xA9", 4), std::nullopt);
  // Bytes beyond the length do not matter, even ill-formed ones.
  EXPECT_EQ(stringWithFileSystemRepresentation("ok\xFF", 2), "ok");
  EXPECT_EQ(decode(std::string_view("a\0b", 3)), std::nullopt);
  EXPECT_EQ(decode(std::string_view("\0", 1)), std::nullopt);
  EXPECT_EQ(stringWithFileSystemRepresentation("tmp/a"), "tmp/a");
  EXPECT_EQ(stringWithFileSystemRepresentation(""), "");
  EXPECT_EQ(stringWithFileSystemRepresentation(nullptr), std::nullopt);
  EXPECT_EQ(stringWithFileSystemRepresentation(nullptr, 0), "");
  EXPECT_EQ(stringWithFileSystemRepresentation(nullptr, 3), std::nullopt);
}

}  // namespace
