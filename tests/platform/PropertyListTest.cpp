// Property lists in memory: every kind through an XML write and read, the
// forms of values that property lists cannot hold, and input built to break a
// reader (deep nesting, shared subtrees, cycles, garbage).
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
  const std::string xml = platform::encodeXMLPropertyList(value);
  EXPECT_FALSE(xml.empty());
  CVError error;
  auto result = parse(bytesOf(xml), &error);
  EXPECT_TRUE(result.has_value()) << error.description() << "\n" << xml;
  return result;
}

void expectCorrupt(const std::optional<CVValue>& result, const CVError& error) {
  EXPECT_FALSE(result.has_value());
  EXPECT_EQ(error.domain(), kPlatformErrorDomain);
  EXPECT_EQ(error.code(), kPlatformPropertyListReadCorruptError);
  EXPECT_FALSE(error.localizedDescription().empty());
}

CVData everyByte() {
  CVData data;
  for (int i = 0; i < 256; ++i)
    data.push_back(static_cast<std::uint8_t>(i));
  return data;
}

CVDictionary everyKind() {
  return CVDictionary{
      {"zeta string", "text with <markup> & \"quotes\" and 'apostrophes' ]]>"},
      {"empty string", ""},
      {"unicode", "M\xc3\xa4ssig, Ma\xc3\x9f \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x9a\x80"},
      {"zero", 0},
      {"one", 1},
      {"negative", -1234567890123LL},
      {"int64 min", std::numeric_limits<std::int64_t>::min()},
      {"int64 max", std::numeric_limits<std::int64_t>::max()},
      {"uint64 max", CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max())},
      {"just above int64", CVNumber::unsignedInteger(std::uint64_t{1} << 63)},
      {"real", 0.1},
      {"tiny real", -2.5e-300},
      {"huge real", 1e300},
      {"whole real", 42.0},
      {"true", true},
      {"false", false},
      {"empty data", CVData{}},
      {"data", everyByte()},
      {"date", CVDate{1098786813}},          // 2004-10-26 10:33:33
      {"epoch", CVDate{0}},                  // before the libplist reference date
      {"moon landing", CVDate{-14182940}},   // 1969-07-20 20:17:40
      {"after 2069", CVDate{4102444800}},    // 2100-01-01, beyond 32 bits from 2001
      {"before 1933", CVDate{-2208988800}},  // 1900-01-01
      {"empty array", CVArray{}},
      {"empty dictionary", CVDictionary{}},
      {"nested", CVArray{CVDictionary{{"k", CVArray{1, "two", CVArray{}}}}, true}},
      {"alpha", "keys keep their order"},
  };
}

TEST(PropertyListRoundTripTest, EveryKindSurvivesXML) {
  const CVDictionary original = everyKind();
  const auto result = roundTrip(CVValue(original));
  ASSERT_TRUE(result);
  const CVDictionary* read = result->asDictionary();
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(*read, original) << read->description();
  EXPECT_EQ(read->keys(), original.keys());
}

TEST(PropertyListRoundTripTest, NumberKindsStayApart) {
  const auto result = roundTrip(CVValue(everyKind()));
  ASSERT_TRUE(result);
  const CVDictionary& read = *result->asDictionary();
  EXPECT_TRUE(read.find("false")->isBooleanFalse());
  EXPECT_TRUE(read.find("true")->isBooleanTrue());
  EXPECT_FALSE(read.findNumber("zero")->isBoolean());
  EXPECT_FALSE(read.findNumber("one")->isBoolean());
  EXPECT_TRUE(read.findNumber("whole real")->isReal());
  EXPECT_EQ(read.findNumber("int64 min")->int64Value(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(read.findNumber("uint64 max")->type(), CVNumber::Type::UnsignedInteger);
  EXPECT_EQ(read.findNumber("uint64 max")->uint64Value(),
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(read.findNumber("just above int64")->uint64Value(), std::uint64_t{1} << 63);
  EXPECT_EQ(read.findNumber("negative")->int64Value(), -1234567890123LL);
}

TEST(PropertyListRoundTripTest, ScalarAndArrayRoots) {
  for (const CVValue& value :
       {CVValue("just a string"), CVValue(-7), CVValue(false), CVValue(CVArray{1, "a"}),
        CVValue(CVDate{86400}), CVValue(CVData{1, 2, 3})}) {
    const auto result = roundTrip(value);
    ASSERT_TRUE(result);
    EXPECT_EQ(*result, value) << value.description();
  }
}

TEST(PropertyListRoundTripTest, XMLDatesKeepWholeSeconds) {
  const auto result = roundTrip(CVValue(CVDate{1000000000.75}));
  ASSERT_TRUE(result && result->asDate());
  EXPECT_EQ(result->asDate()->secondsSince1970, 1000000000.0);
}

TEST(PropertyListEncodingTest, OtherValuesTakeTheirNearestForm) {
  const CVError error("SomeDomain", 3);
  const CVValue value(CVArray{
      CVSet{1, "two"},
      CVURL::fileURLWithPath("/var/mobile/Applications", true),
      CVURL::fileURLWithPath("/var/mobile/a.plist", false),
      CVURL(),
      nullptr,
      error,
  });
  const auto result = roundTrip(value);
  ASSERT_TRUE(result);
  EXPECT_EQ(*result, CVValue(CVArray{
                         CVArray{1, "two"},
                         "file:///var/mobile/Applications/",
                         "file:///var/mobile/a.plist",
                         "(null)",
                         "(null)",
                         error.description(),
                     }))
      << result->description();
}

TEST(PropertyListEncodingTest, WritesAnXMLDocument) {
  const std::string xml = platform::encodeXMLPropertyList(CVValue(CVDictionary{{"k", true}}));
  EXPECT_EQ(xml.rfind("<?xml", 0), 0u) << xml;
  EXPECT_EQ(xml.find("DOCTYPE"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<plist version=\"1.0\">"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<key>k</key>"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<true/>"), std::string::npos) << xml;
}

// ---- Hostile input

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

std::size_t depthOf(const CVValue& value) {
  std::size_t depth = 0;
  for (const CVValue* level = &value; level->asArray(); level = &(*level->asArray())[0])
    ++depth;
  return depth;
}

TEST(PropertyListHostileInputTest, BinaryBuilderMakesReadableLists) {
  BinaryPlistBuilder builder;
  const std::uint32_t root = builder.reserve();
  const std::uint32_t key = builder.addASCIIString("key");
  const std::uint32_t value = builder.addASCIIString("value");
  const std::uint32_t list = builder.reserve();
  std::vector<std::uint32_t> many(20, value);
  builder.setArray(list, many);
  builder.setDictionary(root, {key, builder.addASCIIString("list")}, {value, list});
  CVError error;
  const auto result = parse(builder.build(root), &error);
  ASSERT_TRUE(result) << error.description();
  CVArray expectedList;
  for (int i = 0; i < 20; ++i)
    expectedList.append("value");
  EXPECT_EQ(*result, CVValue(CVDictionary{{"key", "value"}, {"list", expectedList}}));
}

TEST(PropertyListHostileInputTest, KeysThatAreNotStringsAreCarriedAndNeverWritten) {
  BinaryPlistBuilder builder;
  const std::uint32_t root = builder.reserve();
  const std::uint32_t inner = builder.reserve();
  const std::uint32_t one = builder.addInteger(1);
  const std::uint32_t name = builder.addASCIIString("name");
  const std::uint32_t kept = builder.addASCIIString("kept");
  builder.setDictionary(inner, {one, name}, {kept, kept});
  builder.setDictionary(root, {name, one}, {inner, kept});
  CVError error;
  const auto value = parse(builder.build(root), &error);
  ASSERT_TRUE(value) << error.description();
  const CVDictionary& outer = *value->asDictionary();
  ASSERT_EQ(outer.count(), 1u);
  ASSERT_EQ(outer.nonStringKeyCount(), 1u);
  EXPECT_EQ(outer.nonStringKeyAt(0), CVValue(1));
  EXPECT_EQ(outer.nonStringKeyValueAt(0), CVValue("kept"));
  const CVDictionary& nested = *outer.findDictionary("name");
  EXPECT_EQ(*nested.findString("name"), "kept");
  // In the file's order, the odd key first.
  std::vector<CVValue> order;
  nested.forEachEntry([&](const CVValue& key, const CVValue&) { order.push_back(key); });
  EXPECT_EQ(order, (std::vector<CVValue>{CVValue(1), CVValue("name")}));
  EXPECT_EQ(roundTrip(*value), CVValue(CVDictionary{{"name", CVDictionary{{"name", "kept"}}}}));
}

TEST(PropertyListHostileInputTest, NestingUpToTheLimitIsRead) {
  const std::size_t limit = platform::kMaxPropertyListDepth;
  CVError error;
  const auto xml = parse(bytesOf(nestedXMLArrays(limit)), &error);
  ASSERT_TRUE(xml) << error.description();
  EXPECT_EQ(depthOf(*xml), limit);
  const auto binary = parse(nestedBinaryArrays(limit), &error);
  ASSERT_TRUE(binary) << error.description();
  EXPECT_EQ(depthOf(*binary), limit);
}

TEST(PropertyListHostileInputTest, NestingBeyondTheLimitIsRefused) {
  const std::size_t limit = platform::kMaxPropertyListDepth;
  for (const std::size_t depth : {limit + 1, std::size_t{200000}}) {
    CVError xmlError;
    expectCorrupt(parse(bytesOf(nestedXMLArrays(depth)), &xmlError), xmlError);
    CVError binaryError;
    expectCorrupt(parse(nestedBinaryArrays(depth), &binaryError), binaryError);
  }
}

TEST(PropertyListHostileInputTest, SharedSubtreesMayNotExpandWithoutBound) {
  // 64 arrays, each holding the next one twice: 2^64 nodes once expanded.
  BinaryPlistBuilder builder;
  std::vector<std::uint32_t> arrays;
  for (int i = 0; i < 64; ++i)
    arrays.push_back(builder.reserve());
  const std::uint32_t leaf = builder.addASCIIString("leaf");
  for (std::size_t i = 0; i < arrays.size(); ++i) {
    const std::uint32_t next = i + 1 < arrays.size() ? arrays[i + 1] : leaf;
    builder.setArray(arrays[i], {next, next});
  }
  CVError error;
  expectCorrupt(parse(builder.build(arrays.front()), &error), error);
}

TEST(PropertyListHostileInputTest, SharedSubtreesWithinBoundsAreRead) {
  BinaryPlistBuilder builder;
  const std::uint32_t root = builder.reserve();
  const std::uint32_t shared = builder.reserve();
  const std::uint32_t leaf = builder.addASCIIString("leaf");
  builder.setArray(shared, {leaf, leaf});
  builder.setArray(root, {shared, shared, shared});
  CVError error;
  const auto result = parse(builder.build(root), &error);
  ASSERT_TRUE(result) << error.description();
  const CVArray pair{"leaf", "leaf"};
  EXPECT_EQ(*result, CVValue(CVArray{pair, pair, pair}));
}

TEST(PropertyListHostileInputTest, ReferenceCyclesAreRefused) {
  BinaryPlistBuilder builder;
  const std::uint32_t first = builder.reserve();
  const std::uint32_t second = builder.reserve();
  builder.setArray(first, {second});
  builder.setArray(second, {first});
  CVError error;
  expectCorrupt(parse(builder.build(first), &error), error);

  BinaryPlistBuilder selfReference;
  const std::uint32_t only = selfReference.reserve();
  selfReference.setArray(only, {only});
  expectCorrupt(parse(selfReference.build(only), &error), error);
}

TEST(PropertyListHostileInputTest, ReferencesOutsideTheObjectTableAreRefused) {
  BinaryPlistBuilder builder;
  const std::uint32_t root = builder.reserve();
  builder.setArray(root, {7});
  CVError error;
  expectCorrupt(parse(builder.build(root), &error), error);
}

TEST(PropertyListHostileInputTest, TruncatedInputIsRefused) {
  const std::string xml = platform::encodeXMLPropertyList(CVValue(everyKind()));
  CVError error;
  expectCorrupt(parse(bytesOf(std::string_view(xml).substr(0, xml.size() / 2)), &error), error);

  BinaryPlistBuilder builder;
  const std::uint32_t root = builder.reserve();
  builder.setArray(root, {builder.addASCIIString("text")});
  const Bytes binary = builder.build(root);
  for (const std::size_t length : {binary.size() - 1, binary.size() / 2, std::size_t{8}}) {
    expectCorrupt(parse(std::span(binary).first(length), &error), error);
  }
}

TEST(PropertyListHostileInputTest, GarbageAndEmptyInputAreRefused) {
  CVError error;
  expectCorrupt(parse(Bytes{}, &error), error);
  expectCorrupt(parse(bytesOf("this is not a property list"), &error), error);
  expectCorrupt(parse(bytesOf("<plist><dict><key>a</key></array></plist>"), &error), error);
  expectCorrupt(parse(bytesOf("bplist00"), &error), error);
  Bytes noise;
  for (int i = 0; i < 4096; ++i)
    noise.push_back(static_cast<std::uint8_t>(i * 7919 % 251));
  expectCorrupt(parse(noise, &error), error);
  Bytes binaryNoise = bytesOf("bplist00");
  binaryNoise.insert(binaryNoise.end(), noise.begin(), noise.end());
  expectCorrupt(parse(binaryNoise, &error), error);
}

TEST(PropertyListHostileInputTest, FailureLeavesNoValueAndSuccessLeavesTheErrorAlone) {
  CVError untouched("Marker", 1);
  ASSERT_TRUE(parse(bytesOf(platform::encodeXMLPropertyList(CVValue(1))), &untouched));
  EXPECT_EQ(untouched.domain(), "Marker");
  EXPECT_FALSE(parse(bytesOf("junk"), nullptr));  // no place for an error: no crash
}

TEST(PropertyListHostileInputTest, OverlyDeepValuesAreNotEncoded) {
  CVValue deep = CVArray{};
  for (std::size_t i = 0; i < platform::kMaxPropertyListDepth; ++i)
    deep = CVArray{deep};
  EXPECT_TRUE(platform::encodeXMLPropertyList(deep).empty());
}

// Files of other writers that probe our reading: twins must read alike,
// integers keep their sign and width, keys their order and odd kinds, and
// broken tables are refused, not followed.
TEST(PropertyListSuiteTest, OtherWritersFilesThatProbeOurHandling) {
  const std::string suite = MAVREL_TESTDATA_DIR "/plist/suite/";
  const auto read = [&suite](const std::string& relative, CVError* error = nullptr) {
    return platform::readPropertyList(CVURL::fileURLWithPath(suite + relative, false), error);
  };
  EXPECT_EQ(read("libplist/signedunsigned.bplist"),
            CVValue(CVArray{
                -1, CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max()),
                std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min(),
                CVNumber::unsignedInteger(std::uint64_t{1} << 63)}));
  EXPECT_EQ(read("libplist/signedunsigned.bplist"), read("libplist/signedunsigned.plist"));
  EXPECT_EQ(read("cpython/TESTDATA_FMT_BINARY.plist"), read("cpython/TESTDATA_FMT_XML.plist"));
  for (const char* relative : {"libplist/order.plist", "libplist/order.bplist"}) {
    const auto order = read(relative);
    ASSERT_TRUE(order && order->asDictionary()) << relative;
    EXPECT_EQ(order->asDictionary()->keys(), (std::vector<std::string>{"test", "foo"}));
  }
  EXPECT_EQ(read("libplist/uid.bplist"),
            CVValue(CVDictionary{{"CF$UID", CVValue(CVNumber::integer(7))}}));
  const auto odd = read("libplist/malformed_dict.bplist");  // a key that is an array
  ASSERT_TRUE(odd && odd->asDictionary());
  EXPECT_GT(odd->asDictionary()->nonStringKeyCount(), 0u);
  for (const char* relative :
       {"libplist/recursion.bplist", "rust-plist/binary_circular_array.plist",
        "rust-plist/binary_zero_offset_size.plist", "biplist/data/invalid_object_offset_size.plist",
        "biplist/data/invalid_object_ref_size.plist", "dd-plist/test-xml-utf-16le-bom.plist"}) {
    CVError error;
    EXPECT_FALSE(read(relative, &error)) << relative;
    EXPECT_EQ(error.code(), kPlatformPropertyListReadCorruptError) << relative;
    EXPECT_NE(error.localizedDescription().find(suite + relative), std::string::npos);
  }
}

}  // namespace
