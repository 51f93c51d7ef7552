// The JSON writer: commas, nesting and empty containers in both layouts, the
// number formats, and the quoting of strings (escapes and invalid UTF-8) that
// the documents and the logs' JSON lines share.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "platform/JSONWriter.h"

namespace {

using platform::appendJSONString;
using platform::JSONWriter;

std::string jsonQuoted(std::string_view text) {
  std::string out;
  appendJSONString(out, text);
  return out;
}

TEST(JSONWriterTest, CompactNestingCommasAndEscapes) {
  JSONWriter json;
  json.beginObject()
      .member("name", "a \"quoted\"\nline")
      .member("count", std::uint64_t{3})
      .member("flag", false);
  json.key("none").null();
  json.key("empty").stringOrNull("");
  json.key("list").beginArray().value("x").beginObject().endObject().beginArray().endArray();
  json.endArray().member("seconds", 1.5);
  json.key("say \"k\"").strings({"p", "q"}).endObject();
  EXPECT_EQ(json.text(),
            "{\"name\":\"a \\\"quoted\\\"\\nline\",\"count\":3,\"flag\":false,\"none\":null,"
            "\"empty\":null,\"list\":[\"x\",{},[]],\"seconds\":1.500,"
            "\"say \\\"k\\\"\":[\"p\",\"q\"]}\n");
}

TEST(JSONWriterTest, IndentedOneMemberPerLineTwoSpacesPerLevel) {
  JSONWriter json(JSONWriter::Layout::Indented);
  json.beginObject().member("name", "tab\there \"q\"").member("count", std::uint64_t{2});
  json.key("empty object").beginObject().endObject();
  json.key("empty array").beginArray().endArray();
  json.key("groups").strings({"a", "b\\c"});
  json.key("none").strings({});
  json.key("nested")
      .beginArray()
      .beginObject()
      .member("ok", true)
      .key("inner")
      .beginObject()
      .endObject()
      .endObject()
      .beginArray()
      .endArray()
      .null()
      .endArray();
  json.member("seconds", 0.25).endObject();
  EXPECT_EQ(json.text(),
            "{\n"
            "  \"name\": \"tab\\there \\\"q\\\"\",\n"
            "  \"count\": 2,\n"
            "  \"empty object\": {},\n"
            "  \"empty array\": [],\n"
            "  \"groups\": [\n"
            "    \"a\",\n"
            "    \"b\\\\c\"\n"
            "  ],\n"
            "  \"none\": [],\n"
            "  \"nested\": [\n"
            "    {\n"
            "      \"ok\": true,\n"
            "      \"inner\": {}\n"
            "    },\n"
            "    [],\n"
            "    null\n"
            "  ],\n"
            "  \"seconds\": 0.250\n"
            "}\n");
}

TEST(JSONWriterTest, IndentedTopLevelValues) {
  EXPECT_EQ(JSONWriter(JSONWriter::Layout::Indented).beginObject().endObject().text(), "{}\n");
  EXPECT_EQ(JSONWriter(JSONWriter::Layout::Indented).strings({"x", "y"}).text(),
            "[\n  \"x\",\n  \"y\"\n]\n");
  EXPECT_EQ(JSONWriter(JSONWriter::Layout::Indented).value("solo").text(), "\"solo\"\n");
}

TEST(JSONWriterTest, NumbersAndNonFiniteReals) {
  JSONWriter json;
  json.beginArray()
      .value(std::numeric_limits<std::uint64_t>::max())
      .value(0.0)
      .value(-2.0005)
      .value(1e20)
      .value(std::numeric_limits<double>::infinity())
      .value(std::numeric_limits<double>::quiet_NaN())
      .endArray();
  // A real is never cut short, and JSON has no infinity or NaN.
  EXPECT_EQ(json.text(),
            "[18446744073709551615,0.000,-2.001,100000000000000000000.000,null,null]\n");
}

TEST(JSONStringTest, EscapesQuotesBackslashesAndControlCharacters) {
  EXPECT_EQ(jsonQuoted(R"(say "hi" C:\dir)"), R"("say \"hi\" C:\\dir")");
  EXPECT_EQ(jsonQuoted("a\nb\tc\rd\be\ff"), R"("a\nb\tc\rd\be\ff")");
  EXPECT_EQ(jsonQuoted(std::string_view("\x01\x1f\x7f", 3)), R"("\u0001\u001f\u007f")");
  EXPECT_EQ(jsonQuoted(std::string_view("nul\0byte", 8)), R"("nul\u0000byte")");
  EXPECT_EQ(jsonQuoted("/ is fine"), R"("/ is fine")");
}

TEST(JSONStringTest, KeepsValidUTF8) {
  // 2-, 3- and 4-byte sequences, and the extremes of the valid ranges.
  const std::string text =
      "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xED\x9F\xBF \xF4\x8F\xBF\xBF";
  EXPECT_EQ(jsonQuoted(text), "\"" + text + "\"");
}

TEST(JSONStringTest, ReplacesInvalidUTF8WithReplacementCharacter) {
  const std::string fffd = "\xEF\xBF\xBD";
  // A lone continuation byte and a byte that never occurs.
  EXPECT_EQ(jsonQuoted("a\x80z"), "\"a" + fffd + "z\"");
  EXPECT_EQ(jsonQuoted("a\xFFz"), "\"a" + fffd + "z\"");
  // Overlong encodings ("/" as C0 AF, E0 80 AF) and a surrogate (ED A0 80):
  // each byte is a sequence of its own.
  EXPECT_EQ(jsonQuoted("\xC0\xAF"), "\"" + fffd + fffd + "\"");
  EXPECT_EQ(jsonQuoted("\xE0\x80\xAF"), "\"" + fffd + fffd + fffd + "\"");
  EXPECT_EQ(jsonQuoted("\xED\xA0\x80"), "\"" + fffd + fffd + fffd + "\"");
  // Above U+10FFFF.
  EXPECT_EQ(jsonQuoted("\xF4\x90\x80\x80"), "\"" + fffd + fffd + fffd + fffd + "\"");
  // A sequence cut short counts once, and the byte after it survives.
  EXPECT_EQ(jsonQuoted("\xE2\x82z"), "\"" + fffd + "z\"");
  EXPECT_EQ(jsonQuoted("\xF0\x9F\x98"), "\"" + fffd + "\"");
  // A quote right after a broken lead byte is still escaped.
  EXPECT_EQ(jsonQuoted("\xC3\""), "\"" + fffd + "\\\"\"");
}

TEST(JSONStringTest, WriterQuotesKeysAndValuesAlike) {
  JSONWriter json(JSONWriter::Layout::Indented);
  json.beginObject().member("k\x01\xFF", "v\x01\xFF").endObject();
  EXPECT_EQ(json.text(), "{\n  \"k\\u0001\xEF\xBF\xBD\": \"v\\u0001\xEF\xBF\xBD\"\n}\n");
}

}  // namespace
