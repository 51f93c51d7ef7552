// The value model: dictionary order and editing, number kinds, descriptions.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/Value.h"

namespace {

using Keys = std::vector<std::string>;

TEST(ValueDictionaryTest, KeepsInsertionOrder) {
  CVDictionary dictionary;
  dictionary.set("zulu", 1);
  dictionary.set("alpha", 2);
  dictionary.set("mike", 3);
  EXPECT_EQ(dictionary.keys(), (Keys{"zulu", "alpha", "mike"}));
  EXPECT_EQ(dictionary.valueAt(1), CVValue(2));
}

TEST(ValueDictionaryTest, SetReplacesInPlace) {
  CVDictionary dictionary{{"a", 1}, {"b", 2}, {"c", 3}};
  dictionary.set("b", "two");
  EXPECT_EQ(dictionary.count(), 3u);
  EXPECT_EQ(dictionary.keys(), (Keys{"a", "b", "c"}));
  ASSERT_NE(dictionary.findString("b"), nullptr);
  EXPECT_EQ(*dictionary.findString("b"), "two");
}

TEST(ValueDictionaryTest, RemoveKeepsTheOthersFindable) {
  CVDictionary dictionary{{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}};
  EXPECT_TRUE(dictionary.remove("b"));
  EXPECT_FALSE(dictionary.remove("b"));
  EXPECT_EQ(dictionary.keys(), (Keys{"a", "c", "d"}));
  // Lookups after the removed position must still land on the right values.
  ASSERT_NE(dictionary.find("c"), nullptr);
  EXPECT_EQ(*dictionary.find("c"), CVValue(3));
  ASSERT_NE(dictionary.find("d"), nullptr);
  EXPECT_EQ(*dictionary.find("d"), CVValue(4));
  EXPECT_EQ(dictionary.find("b"), nullptr);

  dictionary.set("b", 5);  // comes back at the end
  EXPECT_EQ(dictionary.keys(), (Keys{"a", "c", "d", "b"}));
}

TEST(ValueDictionaryTest, TypedLookupsAnswerNullForOtherKinds) {
  const CVDictionary dictionary{{"text", "x"}, {"list", CVArray{1}}, {"number", 3}};
  EXPECT_EQ(dictionary.findString("number"), nullptr);
  EXPECT_EQ(dictionary.findArray("text"), nullptr);
  EXPECT_EQ(dictionary.findDictionary("list"), nullptr);
  EXPECT_EQ(dictionary.findNumber("missing"), nullptr);
  ASSERT_NE(dictionary.findNumber("number"), nullptr);
  EXPECT_EQ(dictionary.findNumber("number")->int64Value(), 3);
}

TEST(ValueDictionaryTest, EqualityIgnoresOrderButNotContents) {
  const CVDictionary first{{"a", 1}, {"b", 2}};
  const CVDictionary second{{"b", 2}, {"a", 1}};
  EXPECT_EQ(first, second);
  EXPECT_NE(first, (CVDictionary{{"a", 1}, {"b", 3}}));
  EXPECT_NE(first, (CVDictionary{{"a", 1}}));
}

TEST(ValueDictionaryTest, CopiesAreIndependent) {
  CVDictionary original{{"inner", CVDictionary{{"k", "v"}}}};
  CVValue copy = CVValue(original);
  copy.asDictionary()->set("inner", "replaced");
  ASSERT_NE(original.findDictionary("inner"), nullptr);
  EXPECT_EQ(*original.findDictionary("inner")->findString("k"), "v");
}

TEST(ValueNumberTest, BooleanFalseIsNotZero) {
  EXPECT_NE(CVValue(false), CVValue(0));
  EXPECT_NE(CVValue(true), CVValue(1));
  EXPECT_EQ(CVValue(false), CVValue(CVNumber::boolean(false)));
  EXPECT_TRUE(CVValue(false).isBooleanFalse());
  EXPECT_FALSE(CVValue(0).isBooleanFalse());
  EXPECT_FALSE(CVValue(1).isBooleanTrue());
  EXPECT_TRUE(CVValue(true).isBooleanTrue());
  EXPECT_FALSE(CVValue("false").isBooleanFalse());
}

TEST(ValueNumberTest, UnsignedValuesAboveInt64StayUnsigned) {
  const CVNumber biggest = CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(biggest.type(), CVNumber::Type::UnsignedInteger);
  EXPECT_EQ(biggest.description(), "18446744073709551615");
  EXPECT_NE(CVValue(biggest), CVValue(-1));
  // Values that fit a signed integer are ordinary integers.
  EXPECT_EQ(CVNumber::unsignedInteger(5).type(), CVNumber::Type::Integer);
  EXPECT_EQ(CVValue(5ul), CVValue(5));
}

TEST(ValueNumberTest, RealsConvertWithSaturation) {
  EXPECT_EQ(CVNumber::real(2.9).int64Value(), 2);
  EXPECT_EQ(CVNumber::real(1e300).int64Value(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(CVNumber::real(-1e300).int64Value(), std::numeric_limits<std::int64_t>::min());
  EXPECT_TRUE(CVNumber::real(42).isReal());
}

TEST(ValueSetTest, AddsEachValueOnce) {
  CVSet set{"a", "b"};
  set.add("a");
  set.add(CVValue(1));
  EXPECT_EQ(set.count(), 3u);
  EXPECT_TRUE(set.contains("b"));
  EXPECT_EQ(set, (CVSet{1, "b", "a"}));
}

TEST(ValueDescriptionTest, Scalars) {
  EXPECT_EQ(CVValue().description(), "(null)");
  EXPECT_EQ(CVValue(nullptr).description(), "(null)");
  EXPECT_EQ(CVValue("plain text").description(), "plain text");
  EXPECT_EQ(CVValue(-42).description(), "-42");
  EXPECT_EQ(CVValue(CVDate{0}).description(), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(CVValue(CVData{0x01, 0xab, 0xff}).description(), "{length = 3, bytes = 0x01abff}");
  EXPECT_EQ(CVValue(CVError()).description(), "(null)");
}

TEST(ValueDescriptionTest, URLsPrintTheirStringForm) {
  EXPECT_EQ(CVValue(CVURL::fileURLWithPath("/var/mobile/Applications", true)).description(),
            "file:///var/mobile/Applications/");
  EXPECT_EQ(CVValue(CVURL::fileURLWithPath("/var/mobile/a.plist", false)).description(),
            "file:///var/mobile/a.plist");
  EXPECT_EQ(CVValue(CVURL()).description(), "(null)");
}

TEST(ValueDescriptionTest, NestedCollections) {
  const CVDictionary dictionary{
      {"name", "App"},
      {"list", CVArray{1, "two words", CVDictionary{}}},
      {"odd key", CVArray{}},
  };
  EXPECT_EQ(dictionary.description(),
            "{\n"
            "    name = App;\n"
            "    list = (\n"
            "        1,\n"
            "        \"two words\",\n"
            "        {\n"
            "        }\n"
            "    );\n"
            "    \"odd key\" = (\n"
            "    );\n"
            "}");
}

TEST(ValueDescriptionTest, ErrorRecords) {
  CVDictionary userInfo{{std::string(kLocalizedDescriptionKey), "it broke"}};
  const CVError error("SomeDomain", 7, userInfo);
  EXPECT_EQ(error.localizedDescription(), "it broke");
  EXPECT_EQ(error.description().rfind("Error Domain=SomeDomain Code=7 \"it broke\" UserInfo={", 0),
            0u)
      << error.description();
  EXPECT_EQ(CVError::posix(2, "gone").code(), 2);
  EXPECT_TRUE(CVError::posix(2, "gone").isPOSIX(2));
  EXPECT_FALSE(error.isPOSIX(7));
}

TEST(ValueDescriptionTest, KindNames) {
  EXPECT_EQ(CVValue::kindName(CVValue("x").kind()), "string");
  EXPECT_EQ(CVValue::kindName(CVValue(CVArray{}).kind()), "array");
  EXPECT_EQ(CVValue::kindName(CVValue(CVDictionary{}).kind()), "dictionary");
  EXPECT_EQ(CVValue::kindName(CVValue(true).kind()), "number");
}

}  // namespace
