// Property lists in memory: what our XML writer makes of every kind, and
// input built to break a reader (deep nesting, shared subtrees, cycles, bad
// offsets, truncation, garbage), each refused with its reason.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

std::optional<CVValue> parse(std::span<const std::uint8_t> bytes, CVError* error = nullptr) {
  return platform::parsePropertyList(bytes, error);
}

std::optional<CVValue> roundTrip(const CVValue& value) {
  CVError error;
  auto result = parse(bytesOf(platform::encodeXMLPropertyList(value)), &error);
  EXPECT_TRUE(result.has_value()) << error.description();
  return result;
}

CVValue nestedArrays(std::size_t depth) {
  CVValue value = "bottom";
  for (std::size_t i = 0; i < depth; ++i)
    value = CVArray{value};
  return value;
}

std::string nestedXMLArrays(std::size_t depth) {
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">";
  for (std::size_t i = 0; i < depth; ++i)
    xml += "<array>";
  xml += "<string>bottom</string>";
  for (std::size_t i = 0; i < depth; ++i)
    xml += "</array>";
  return xml + "</plist>";
}

// Arrays nested `depth` deep, each holding the next; the innermost holds a string.
Bytes nestedBinaryArrays(std::size_t depth) {
  BinaryPlistBuilder builder;
  std::vector<std::uint32_t> arrays;
  for (std::size_t i = 0; i < depth; ++i)
    arrays.push_back(builder.reserve());
  const std::uint32_t leaf = builder.addASCIIString("bottom");
  for (std::size_t i = 0; i < depth; ++i)
    builder.setArray(arrays[i], {i + 1 < depth ? arrays[i + 1] : leaf});
  return builder.build(arrays.front());
}

// Arrays `depth` deep, each holding the next `width` times.
Bytes sharedBinaryArrays(std::size_t depth, std::size_t width) {
  BinaryPlistBuilder builder;
  std::vector<std::uint32_t> arrays;
  for (std::size_t i = 0; i < depth; ++i)
    arrays.push_back(builder.reserve());
  const std::uint32_t leaf = builder.addASCIIString("leaf");
  for (std::size_t i = 0; i < depth; ++i)
    builder.setArray(arrays[i],
                     std::vector<std::uint32_t>(width, i + 1 < depth ? arrays[i + 1] : leaf));
  return builder.build(arrays.front());
}

TEST(PropertyListRoundTripTest, EveryKindSurvivesOurXMLAndOtherValuesTakeTheirNearestForm) {
  const CVDictionary original{
      {"zeta string", "<markup> & \"quotes\" ]]>"},
      {"unicode", "M\xc3\xa4ssig, Ma\xc3\x9f \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x9a\x80"},
      {"zero", 0},
      {"int64 min", std::numeric_limits<std::int64_t>::min()},
      {"uint64 max", CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max())},
      {"whole real", 42.0},
      {"false", false},
      {"data", CVData{0, 0xff, '<', '&', ']'}},
      {"moon landing", CVDate{-14182940}},  // before the libplist reference date
      {"after 2069", CVDate{4102444800}},   // beyond 32 bits from 2001
      {"nested", CVArray{CVDictionary{{"k", CVArray{1, "two", CVArray{}}}}, true}},
      {"alpha", "keys keep their order"},
  };
  const auto result = roundTrip(CVValue(original));
  ASSERT_TRUE(result && result->asDictionary());
  const CVDictionary& read = *result->asDictionary();
  EXPECT_EQ(read, original) << read.description();
  EXPECT_EQ(read.keys(), original.keys());
  EXPECT_TRUE(read.find("false")->isBooleanFalse());
  EXPECT_FALSE(read.findNumber("zero")->isBoolean());
  EXPECT_TRUE(read.findNumber("whole real")->isReal());
  EXPECT_EQ(read.findNumber("uint64 max")->type(), CVNumber::Type::UnsignedInteger);

  // Sets become arrays, URLs and errors their descriptions, and dates keep
  // whole seconds only.
  const CVError error("SomeDomain", 3);
  EXPECT_EQ(roundTrip(CVValue(CVArray{CVSet{1, "two"},
                                      CVURL::fileURLWithPath("/var/mobile/Applications", true),
                                      CVURL(), nullptr, error, CVDate{1000000000.75}})),
            CVValue(CVArray{CVArray{1, "two"}, "file:///var/mobile/Applications/", "(null)",
                            "(null)", error.description(), CVDate{1000000000}}));
  // A value nested deeper than a reader accepts is not written at all.
  EXPECT_TRUE(
      platform::encodeXMLPropertyList(nestedArrays(platform::kMaxPropertyListDepth + 1)).empty());
  EXPECT_FALSE(
      platform::encodeXMLPropertyList(nestedArrays(platform::kMaxPropertyListDepth - 1)).empty());
}

TEST(PropertyListHostileInputTest, WhatIsWithinTheLimitsIsRead) {
  const std::size_t limit = platform::kMaxPropertyListDepth;
  // A key that is not a string is carried, in the file's order, and never written.
  BinaryPlistBuilder oddKeys;
  const std::uint32_t root = oddKeys.reserve();
  const std::uint32_t one = oddKeys.addInteger(1);
  const std::uint32_t nameKey = oddKeys.addASCIIString("name");
  const std::uint32_t kept = oddKeys.addASCIIString("kept");
  oddKeys.setDictionary(root, {one, nameKey}, {kept, kept});
  const CVArray pair{"leaf", "leaf"};
  const std::vector<std::tuple<const char*, Bytes, CVValue>> cases = {
      {"XML at the depth limit", bytesOf(nestedXMLArrays(limit)), nestedArrays(limit)},
      {"binary at the depth limit", nestedBinaryArrays(limit), nestedArrays(limit)},
      {"shared subtrees within bounds", sharedBinaryArrays(2, 2), CVArray{pair, pair}},
      {"comments and CDATA",
       bytesOf("<plist><!-- a <comment> --><dict><key>k</key>"
               "<string><![CDATA[x<y]]></string></dict></plist>"),
       CVDictionary{{"k", "x<y"}}},
  };
  for (const auto& [name, bytes, expected] : cases) {
    CVError error;
    const auto value = parse(bytes, &error);
    ASSERT_TRUE(value) << name << ": " << error.description();
    EXPECT_EQ(*value, expected) << name;
  }
  const auto odd = parse(oddKeys.build(root));
  ASSERT_TRUE(odd && odd->asDictionary());
  EXPECT_EQ(*odd->asDictionary()->findString("name"), "kept");
  ASSERT_EQ(odd->asDictionary()->nonStringKeyCount(), 1u);
  EXPECT_EQ(odd->asDictionary()->nonStringKeyAt(0), CVValue(1));
  EXPECT_EQ(roundTrip(*odd), CVValue(CVDictionary{{"name", "kept"}}));

  // Success leaves the caller's error alone; no place for an error is no crash.
  CVError untouched("Marker", 1);
  ASSERT_TRUE(parse(bytesOf(platform::encodeXMLPropertyList(CVValue(1))), &untouched));
  EXPECT_EQ(untouched.domain(), "Marker");
  EXPECT_FALSE(parse(bytesOf("junk"), nullptr));
}

TEST(PropertyListHostileInputTest, HostileInputIsRefusedWithItsReason) {
  const std::size_t limit = platform::kMaxPropertyListDepth;
  BinaryPlistBuilder cycle;
  const std::uint32_t first = cycle.reserve(), second = cycle.reserve();
  cycle.setArray(first, {second});
  cycle.setArray(second, {first});
  BinaryPlistBuilder outside;
  const std::uint32_t root = outside.reserve();
  outside.setArray(root, {7});
  const std::string xml = platform::encodeXMLPropertyList(CVValue(CVDictionary{{"k", "v"}}));
  const Bytes binary = nestedBinaryArrays(1);
  Bytes noise;
  for (int i = 0; i < 4096; ++i)
    noise.push_back(static_cast<std::uint8_t>(i * 7919 % 251));
  Bytes binaryNoise = bytesOf("bplist00");
  binaryNoise.insert(binaryNoise.end(), noise.begin(), noise.end());
  const std::vector<std::tuple<const char*, Bytes, std::string>> cases = {
      {"XML too deep", bytesOf(nestedXMLArrays(limit + 1)),
       "not a valid XML property list (nested too deeply)"},
      {"XML far too deep", bytesOf(nestedXMLArrays(200000)),
       "not a valid XML property list (nested too deeply)"},
      {"binary too deep", nestedBinaryArrays(limit + 1),
       "not a valid binary property list (nested too deeply)"},
      {"2^64 nodes once expanded", sharedBinaryArrays(64, 2),
       "the property list holds more than 262144 objects"},
      {"cycle", cycle.build(first),
       "not a valid binary property list (contains a reference cycle)"},
      {"reference outside the table", outside.build(root),
       "not a valid binary property list (object reference outside the object table)"},
      {"XML cut in half", bytesOf(xml.substr(0, xml.size() / 2)),
       "not a valid XML property list (unterminated tag)"},
      {"unterminated comment", bytesOf("<plist><!-- no end <string/></plist>"),
       "not a valid XML property list (unterminated comment)"},
      {"mismatched end tag", bytesOf("<plist><dict><key>a</key></array></plist>"),
       "not a valid XML property list (mismatched end tag)"},
      {"binary without its last byte", Bytes(binary.begin(), binary.end() - 1),
       "not a valid binary property list (invalid binary property list trailer)"},
      {"binary cut to its header", Bytes(binary.begin(), binary.begin() + 8),
       "not a valid binary property list (truncated binary property list)"},
      {"empty", Bytes{}, "the data is empty"},
      {"text", bytesOf("this is not a property list"), "not a valid XML property list"},
      {"noise", noise, "not a valid XML property list (contains NUL bytes (not UTF-8 XML))"},
      {"binary noise", binaryNoise,
       "not a valid binary property list (invalid binary property list trailer)"},
  };
  for (const auto& [name, bytes, reason] : cases) {
    CVError error;
    EXPECT_FALSE(parse(bytes, &error)) << name;
    EXPECT_EQ(error.domain(), kPlatformErrorDomain) << name;
    EXPECT_EQ(error.code(), kPlatformPropertyListReadCorruptError) << name;
    EXPECT_EQ(error.localizedDescription(),
              "The data could not be read as a property list: " + reason)
        << name;
  }
}

// A handful of other writers' files that probe our reading: integers keep
// their sign and width, twins read alike, and broken tables are refused with
// the file's path.
TEST(PropertyListHostileInputTest, OtherWritersFiles) {
  const std::string suite = MAVREL_TESTDATA_DIR "/plist/suite/";
  const auto read = [&suite](const std::string& relative, CVError* error = nullptr) {
    return platform::readPropertyList(CVURL::fileURLWithPath(suite + relative, false), error);
  };
  EXPECT_EQ(read("libplist/signedunsigned.bplist"),
            CVValue(CVArray{
                -1, CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max()),
                std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min(),
                CVNumber::unsignedInteger(std::uint64_t{1} << 63)}));
  EXPECT_EQ(read("cpython/TESTDATA_FMT_BINARY.plist"), read("cpython/TESTDATA_FMT_XML.plist"));
  for (const char* relative :
       {"rust-plist/binary_zero_offset_size.plist", "biplist/data/invalid_object_ref_size.plist",
        "dd-plist/test-xml-utf-16le-bom.plist"}) {
    CVError error;
    EXPECT_FALSE(read(relative, &error)) << relative;
    EXPECT_EQ(error.code(), kPlatformPropertyListReadCorruptError) << relative;
    EXPECT_NE(error.localizedDescription().find(suite + relative), std::string::npos);
  }
}

}  // namespace
