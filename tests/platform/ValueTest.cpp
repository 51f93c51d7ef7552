// The value model (dictionary order and editing, number kinds that must not
// mix, the descriptions the logs print), the formatter (the conversions the
// system's messages use, and the markers that a format known only at run time
// prints for bad or missing arguments), the JSON writer (commas, nesting,
// numbers, and the quoting of strings with escapes and invalid UTF-8), file
// URLs (string forms, components, derived URLs, equality) and the logs
// (threshold rules, the installer's and the migration's lines, the scoped sink).
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Format.h"
#include "platform/JSONWriter.h"
#include "platform/Log.h"
#include "platform/URL.h"
#include "platform/Value.h"
#include "tests/support/TestSupport.h"

namespace {

using Keys = std::vector<std::string>;
using platform::kLogLevelDebug;
using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;
using platform::format;
using platform::JSONWriter;
using platform::makeFormatArg;
using platform::vformat;

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
  // A large dictionary answers from an index, down through the size searched in order.
  CVDictionary large;
  for (int i = 0; i < 40; ++i)
    large.set("key" + std::to_string(i), i);
  for (int gone = 0; gone < 40; ++gone) {
    ASSERT_TRUE(large.remove("key" + std::to_string(gone)));
    ASSERT_EQ(large.find("key" + std::to_string(gone)), nullptr);
    for (int i = gone + 1; i < 40; ++i)
      ASSERT_EQ(*large.find("key" + std::to_string(i)), CVValue(i));
  }
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
      {format("%d", 4294967297L), "1"},  // %d takes an int, as C would pass it
      {format("%u %lu %d", -1, std::size_t{42}, 4294967295u), "4294967295 42 -1"},
      // Flags, width and precision reach the conversion.
      {format("0x%08X %-3d| %.2f 100%%", 0xBEEFu, 4, 0.125), "0x0000BEEF 4  | 0.12 100%"},
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

TEST(JSONWriterTest, BothLayoutsAndNumbers) {
  JSONWriter compact;
  compact.beginObject().member("name", "a \"q\"").member("count", std::uint64_t{3});
  compact.key("none").null();
  compact.key("empty").stringOrNull("");
  compact.key("list").beginArray().value("x").beginObject().endObject().beginArray().endArray();
  compact.endArray().member("seconds", 1.5).member("flag", false).endObject();
  EXPECT_EQ(compact.text(),
            "{\"name\":\"a \\\"q\\\"\",\"count\":3,\"none\":null,\"empty\":null,"
            "\"list\":[\"x\",{},[]],\"seconds\":1.500,\"flag\":false}\n");

  // Indented: one member per line, two spaces per level, empty containers closed at once.
  JSONWriter indented(JSONWriter::Layout::Indented);
  indented.beginObject().key("empty").beginObject().endObject().key("groups").strings({"a"});
  indented.key("none").strings({}).endObject();
  EXPECT_EQ(indented.text(),
            "{\n  \"empty\": {},\n  \"groups\": [\n    \"a\"\n  ],\n  \"none\": []\n}\n");

  // A real is never cut short, and JSON has no infinity or NaN.
  JSONWriter numbers;
  numbers.beginArray()
      .value(std::numeric_limits<std::uint64_t>::max())
      .value(-2.0005)
      .value(1e20)
      .value(std::numeric_limits<double>::infinity())
      .value(std::numeric_limits<double>::quiet_NaN())
      .endArray();
  EXPECT_EQ(numbers.text(), "[18446744073709551615,-2.001,100000000000000000000.000,null,null]\n");
}

TEST(JSONStringTest, EscapesAndReplacesInvalidUTF8) {
  const std::string fffd = "\xEF\xBF\xBD";
  const std::string valid =
      "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xED\x9F\xBF \xF4\x8F\xBF\xBF";
  const std::vector<std::pair<std::string_view, std::string>> cases = {
      {R"(say "hi" C:\dir)", R"("say \"hi\" C:\\dir")"},
      {"a\nb\tc\rd\be\ff", R"("a\nb\tc\rd\be\ff")"},
      {std::string_view("\x01\x1f\x7f\0", 4), R"("\u0001\u001f\u007f\u0000")"},
      {valid, "\"" + valid + "\""},
      {"a\x80z\xFF", "\"a" + fffd + "z" + fffd + "\""},
      // Overlong forms and surrogates: each byte a sequence of its own.
      {"\xC0\xAF\xED\xA0\x80", "\"" + fffd + fffd + fffd + fffd + fffd + "\""},
      {"\xF4\x90\x80\x80", "\"" + fffd + fffd + fffd + fffd + "\""},
      // A sequence cut short counts once, and the byte after it survives.
      {"\xE2\x82z", "\"" + fffd + "z\""},
      {"\xF0\x9F\x98", "\"" + fffd + "\""},
      {"\xC3\"", "\"" + fffd + "\\\"\""},
  };
  for (const auto& [text, expected] : cases) {
    std::string out;
    platform::appendJSONString(out, text);
    EXPECT_EQ(out, expected);
  }
  JSONWriter json;
  json.beginObject().member("k\x01\xFF", "v").endObject();
  EXPECT_EQ(json.text(), "{\"k\\u0001\xEF\xBF\xBD\":\"v\"}\n");
}

CVURL file(const std::string& path) {
  return CVURL::fileURLWithPath(path, false);
}
CVURL directory(const std::string& path) {
  return CVURL::fileURLWithPath(path, true);
}

TEST(URLTest, StringFormsComponentsAndDerivedURLs) {
  const std::string cwd =
      std::filesystem::current_path() == "/" ? "" : std::filesystem::current_path().string();
  const std::vector<std::pair<std::string, std::string>> cases = {
      {directory("/private/var/mobile/").path(), "/private/var/mobile"},
      {directory("/private/var/mobile/").absoluteString(), "file:///private/var/mobile/"},
      {file("/private/var/mobile/x.plist").absoluteString(), "file:///private/var/mobile/x.plist"},
      {directory("/").lastPathComponent(), "/"},
      {directory("/a/Some.app").pathExtension(), "app"},
      {file("/a/.hidden").pathExtension() + file("/a/noextension").pathExtension() +
           file("/a/trailingdot.").pathExtension(),
       ""},
      {directory("/var/mobile").URLByAppendingPathComponent("Library/Caches/x.plist", false).path(),
       "/var/mobile/Library/Caches/x.plist"},
      // An added extension keeps the directory mark.
      {directory("/s/Payload/Name").URLByAppendingPathExtension("app").absoluteString(),
       "file:///s/Payload/Name.app/"},
      // Deleting the last component gives a directory.
      {file("/a/b/c.plist").URLByDeletingLastPathComponent().absoluteString(), "file:///a/b/"},
      // Relative paths are taken from the current directory.
      {file("some/file").path(), cwd + "/some/file"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got, expected);
  EXPECT_FALSE(file("/a/b/c.plist").URLByAppendingPathComponent("x", false).isDirectory());
  EXPECT_EQ(directory("/a/b/"), directory("/a/b"));
  EXPECT_NE(directory("/a/b"), file("/a/b"));
  EXPECT_TRUE(CVURL().isNil() && !static_cast<bool>(CVURL()));
  EXPECT_TRUE(CVURL().URLByAppendingPathComponent("x", false).isNil());
  EXPECT_TRUE(file("").isNil());
  EXPECT_EQ(CVURL::pathComponents("/a//b/"), (std::vector<std::string>{"/", "a", "b"}));
  EXPECT_TRUE(CVURL::pathComponents("").empty());
}

// The handle level is an upper bound, and without one failures and notices
// pass: the tests that capture lines at a level or without one check that.
// A level of 0 is a level of its own, which no line passes.
TEST(LogTest, AHandleLevelOfZeroAdmitsNothing) {
  platform::Log log("Test");
  log.setHandleLevel(0);
  EXPECT_EQ(log.handleLevel(), 0);
  EXPECT_FALSE(log.admits(kLogLevelError) || log.admits(kLogLevelNotice) ||
               log.admits(kLogLevelDebug));
}

TEST(LogTest, LinesCarryWhatTheirLogPromises) {
  {
    CapturedLog captured(platform::installerLog());
    platform::logInstaller(kLogLevelNotice, "TestFunction", "value %d at %@", 3, std::string("x"));
    platform::logInstaller(kLogLevelDebug, "TestFunction", "trace only with a handle");
    const std::array args{platform::makeFormatArg(4)};
    platform::logInstallerV(kLogLevelError, "F", "%@ and %d", args);
    const auto lines = captured.lines();
    ASSERT_EQ(lines.size(), 2u) << captured.dump();
    EXPECT_EQ(std::tuple(lines[0].level, lines[0].function, lines[0].message, lines[0].category),
              std::tuple(kLogLevelNotice, std::string("TestFunction"), std::string("value 3 at x"),
                         std::string()));
    EXPECT_EQ(lines[1].message, "<bad argument> and <missing>");
  }
  {
    CapturedLog captured(platform::migrationLog());
    const int line = __LINE__ + 1;
    platform::logMigration(kLogLevelError, "-[CVAppMigrator test]", "CVAppMigrator: %@", "x");
    const auto lines = captured.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(std::tuple(lines[0].category, lines[0].file, lines[0].line, lines[0].function,
                         lines[0].message),
              std::tuple(std::string("MavrelHost"), std::string("ValueTest.cpp"), line,
                         std::string("-[CVAppMigrator test]"), std::string("CVAppMigrator: x")));
  }
  // A scoped sink restores the previous sink and level.
  CapturedLog outer(platform::installerLog(), kLogLevelNotice);
  {
    CapturedLog inner(platform::installerLog(), kLogLevelDebug);
    platform::logInstaller(kLogLevelDebug, "F", "trace %s", "on");
    EXPECT_TRUE(inner.contains(kLogLevelDebug, "trace on")) << inner.dump();
  }
  EXPECT_EQ(platform::installerLog().handleLevel(), kLogLevelNotice);
  platform::logInstaller(kLogLevelNotice, "F", "outer");
  platform::logInstaller(kLogLevelDebug, "F", "dropped");
  EXPECT_EQ(outer.messages(), std::vector<std::string>{"outer"});
}

}  // namespace
