// The value model: dictionary order and editing, number kinds that must not
// mix, and the descriptions the logs print.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/Value.h"

namespace {

using Keys = std::vector<std::string>;

TEST(ValueDictionaryTest, KeepsOrderThroughEditsAndFindsAfterRemoval) {
  CVDictionary dictionary{{"zulu", 1}, {"b", 2}, {"c", 3}, {"d", 4}};
  dictionary.set("b", "two");  // in place
  EXPECT_EQ(dictionary.keys(), (Keys{"zulu", "b", "c", "d"}));
  EXPECT_EQ(*dictionary.findString("b"), "two");
  EXPECT_TRUE(dictionary.remove("b"));
  EXPECT_FALSE(dictionary.remove("b"));
  // Lookups after the removed position still land on the right values.
  EXPECT_EQ(*dictionary.find("c"), CVValue(3));
  EXPECT_EQ(*dictionary.find("d"), CVValue(4));
  EXPECT_EQ(dictionary.find("b"), nullptr);
  dictionary.set("b", 5);  // comes back at the end
  EXPECT_EQ(dictionary.keys(), (Keys{"zulu", "c", "d", "b"}));
  EXPECT_EQ(dictionary.valueAt(3), CVValue(5));
  // Equality ignores order, not contents; copies are independent.
  EXPECT_EQ((CVDictionary{{"a", 1}, {"b", 2}}), (CVDictionary{{"b", 2}, {"a", 1}}));
  EXPECT_NE((CVDictionary{{"a", 1}, {"b", 2}}), (CVDictionary{{"a", 1}, {"b", 3}}));
  EXPECT_NE((CVDictionary{{"a", 1}, {"b", 2}}), (CVDictionary{{"a", 1}}));
  CVDictionary original{{"inner", CVDictionary{{"k", "v"}}}};
  CVValue copy = CVValue(original);
  copy.asDictionary()->set("inner", "replaced");
  EXPECT_EQ(*original.findDictionary("inner")->findString("k"), "v");
}

TEST(ValueNumberTest, KindsStayApart) {
  EXPECT_NE(CVValue(false), CVValue(0));
  EXPECT_NE(CVValue(true), CVValue(1));
  EXPECT_TRUE(CVValue(false).isBooleanFalse() && !CVValue(0).isBooleanFalse());
  EXPECT_TRUE(CVValue(true).isBooleanTrue() && !CVValue(1).isBooleanTrue());
  const CVNumber biggest = CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(biggest.type(), CVNumber::Type::UnsignedInteger);
  EXPECT_NE(CVValue(biggest), CVValue(-1));
  EXPECT_EQ(CVNumber::unsignedInteger(5).type(), CVNumber::Type::Integer);
  EXPECT_EQ(CVNumber::real(2.9).int64Value(), 2);
  EXPECT_EQ(CVNumber::real(1e300).int64Value(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(CVNumber::real(-1e300).int64Value(), std::numeric_limits<std::int64_t>::min());
}

TEST(ValueDescriptionTest, DescriptionsAsTheLogsPrintThem) {
  const CVError error("SomeDomain", 7, {{std::string(kLocalizedDescriptionKey), "it broke"}});
  const std::vector<std::pair<std::string, std::string>> cases = {
      {CVValue().description(), "(null)"},
      {CVValue(-42).description(), "-42"},
      {CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max()).description(),
       "18446744073709551615"},
      {CVValue(CVDate{0}).description(), "1970-01-01 00:00:00 +0000"},
      {CVValue(CVData{0x01, 0xab, 0xff}).description(), "{length = 3, bytes = 0x01abff}"},
      {CVValue(CVURL::fileURLWithPath("/var/a", true)).description(), "file:///var/a/"},
      {CVValue(CVError()).description(), "(null)"},
      {CVDictionary{{"name", "App"}, {"list", CVArray{1, "two words", CVDictionary{}}}}
           .description(),
       "{\n    name = App;\n    list = (\n        1,\n        \"two words\",\n        {\n        "
       "}\n"
       "    );\n}"},
      {error.localizedDescription(), "it broke"},
      {error.description().substr(0, 47), "Error Domain=SomeDomain Code=7 \"it broke\" UserI"},
      {std::string(CVValue::kindName(CVValue(true).kind())), "number"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got, expected);
  EXPECT_TRUE(CVError::posix(2, "gone").isPOSIX(2));
  EXPECT_FALSE(error.isPOSIX(7));
}

}  // namespace
