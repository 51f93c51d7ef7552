// Coercion of loosely typed values: what each helper accepts and what it turns away.
#include <gtest/gtest.h>

#include "shared/support/CVValueHelpers.h"

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
    EXPECT_TRUE(CVBooleanValue(CVValue(true), fallback));
    EXPECT_FALSE(CVBooleanValue(CVValue(false), fallback));
    EXPECT_TRUE(CVBooleanValue(CVValue(7), fallback));
    EXPECT_FALSE(CVBooleanValue(CVValue(0), fallback));
    EXPECT_TRUE(CVBooleanValue(CVValue(0.5), fallback));
    EXPECT_EQ(CVBooleanValue(nullptr, fallback), fallback);
    for (const CVValue& other : {CVValue(), CVValue("true"), CVValue("NO"), CVValue(CVArray{true}),
                                 CVValue(CVDictionary{{"a", true}})}) {
      EXPECT_EQ(CVBooleanValue(other, fallback), fallback) << other.description();
    }
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

}  // namespace
