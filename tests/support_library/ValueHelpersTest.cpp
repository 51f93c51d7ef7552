// Coercion of loosely typed values: what each helper accepts and what it turns away.
#include <gtest/gtest.h>

#include "shared/support/CVValueHelpers.h"

namespace {

using Kind = CVValue::Kind;

TEST(StringifyObjectTest, NullGivesNull) {
  EXPECT_EQ(CVStringifyObject(nullptr), std::nullopt);
  EXPECT_EQ(CVStringifyObject(CVValue()), std::nullopt);
}

TEST(StringifyObjectTest, StringIsReturnedUnformatted) {
  // A string must not go through the formatter: its "%@" stays as written.
  EXPECT_EQ(CVStringifyObject(CVValue("100%@ sure")), "100%@ sure");
  EXPECT_EQ(CVStringifyObject(CVValue("")), "");
}

TEST(StringifyObjectTest, OtherObjectsGiveTheirDescription) {
  const CVValue dictionary =
      CVDictionary{{"ContainerType", "App"}, {"Count", 3}, {"List", CVArray{"a", 1}}};
  const auto text = CVStringifyObject(dictionary);
  ASSERT_TRUE(text.has_value());
  EXPECT_EQ(*text, dictionary.description());
  EXPECT_NE(text->find("ContainerType = App;"), std::string::npos) << *text;

  EXPECT_EQ(CVStringifyObject(CVValue(42)), "42");
  const CVValue url = CVURL::fileURLWithPath("/var/mobile", true);
  EXPECT_EQ(CVStringifyObject(url), "file:///var/mobile/");
}

TEST(ArrayContainsOnlyClassTest, EmptyArrayContainsOnlyAnyClass) {
  EXPECT_TRUE(CVArrayContainsOnlyClass(CVArray{}, Kind::String));
  EXPECT_TRUE(CVArrayContainsOnlyClass(CVArray{}, Kind::Dictionary));
}

TEST(ArrayContainsOnlyClassTest, BooleansCountAsNumbers) {
  EXPECT_TRUE(CVArrayContainsOnlyClass(CVArray{1, true, 2.5, false}, Kind::Number));
  EXPECT_FALSE(CVArrayContainsOnlyClass(CVArray{true}, Kind::String));
}

TEST(ArrayContainsOnlyClassTest, OneStrangerAnywhereFails) {
  EXPECT_TRUE(CVArrayContainsOnlyClass(CVArray{"a", "b", "c"}, Kind::String));
  EXPECT_FALSE(CVArrayContainsOnlyClass(CVArray{1, "a"}, Kind::Number));
  EXPECT_FALSE(CVArrayContainsOnlyClass(CVArray{"a", "b", 3}, Kind::String));
  EXPECT_FALSE(CVArrayContainsOnlyClass(CVArray{CVValue(), "a"}, Kind::String));
}

TEST(BooleanValueTest, NumbersGiveTheirTruth) {
  EXPECT_TRUE(CVBooleanValue(CVValue(true), false));
  EXPECT_FALSE(CVBooleanValue(CVValue(false), true));
  EXPECT_TRUE(CVBooleanValue(CVValue(7), false));
  EXPECT_FALSE(CVBooleanValue(CVValue(0), true));
  EXPECT_TRUE(CVBooleanValue(CVValue(0.5), false));
}

TEST(BooleanValueTest, EverythingElseGivesTheDefault) {
  for (const bool fallback : {false, true}) {
    SCOPED_TRACE(fallback);
    EXPECT_EQ(CVBooleanValue(nullptr, fallback), fallback);
    EXPECT_EQ(CVBooleanValue(CVValue(), fallback), fallback);
    // Strings are never read as booleans, whatever they say.
    EXPECT_EQ(CVBooleanValue(CVValue("true"), fallback), fallback);
    EXPECT_EQ(CVBooleanValue(CVValue("NO"), fallback), fallback);
    EXPECT_EQ(CVBooleanValue(CVValue(CVArray{true}), fallback), fallback);
    EXPECT_EQ(CVBooleanValue(CVValue(CVDictionary{{"a", true}}), fallback), fallback);
  }
}

TEST(ArrayifyThingTest, NullGivesNull) {
  EXPECT_EQ(CVArrayifyThing(nullptr, Kind::String), std::nullopt);
  EXPECT_EQ(CVArrayifyThing(CVValue(), Kind::Null), std::nullopt);
}

TEST(ArrayifyThingTest, SingleObjectOfTheClassIsWrapped) {
  EXPECT_EQ(CVArrayifyThing(CVValue("com.example.app"), Kind::String),
            (CVArray{"com.example.app"}));
  EXPECT_EQ(CVArrayifyThing(CVValue(true), Kind::Number), (CVArray{true}));
  const CVDictionary info{{"a", 1}};
  EXPECT_EQ(CVArrayifyThing(CVValue(info), Kind::Dictionary), (CVArray{info}));
}

TEST(ArrayifyThingTest, ObjectOfAnotherClassGivesNull) {
  EXPECT_EQ(CVArrayifyThing(CVValue("1"), Kind::Number), std::nullopt);
  EXPECT_EQ(CVArrayifyThing(CVValue(CVDictionary{{"a", 1}}), Kind::String), std::nullopt);
}

TEST(ArrayifyThingTest, ArrayIsKeptWhenUniform) {
  EXPECT_EQ(CVArrayifyThing(CVValue(CVArray{"b", "a"}), Kind::String), (CVArray{"b", "a"}));
  EXPECT_EQ(CVArrayifyThing(CVValue(CVArray{}), Kind::String), CVArray{});
  EXPECT_EQ(CVArrayifyThing(CVValue(CVArray{"a", 1}), Kind::String), std::nullopt);
  // An array is never wrapped, even when arrays are what is asked for.
  const CVArray nested{CVArray{1}, CVArray{2}};
  EXPECT_EQ(CVArrayifyThing(CVValue(nested), Kind::Array), nested);
  EXPECT_EQ(CVArrayifyThing(CVValue(CVArray{1, 2}), Kind::Array), std::nullopt);
}

TEST(ArrayifyThingTest, SetGivesItsElementsInOrder) {
  EXPECT_EQ(CVArrayifyThing(CVValue(CVSet{"z", "a", "m"}), Kind::String), (CVArray{"z", "a", "m"}));
  EXPECT_EQ(CVArrayifyThing(CVValue(CVSet{"a", 1}), Kind::String), std::nullopt);
  // Asked for sets, a set is an object of the class itself and gets wrapped.
  const CVSet set{1, 2};
  EXPECT_EQ(CVArrayifyThing(CVValue(set), Kind::Set), (CVArray{set}));
}

}  // namespace
