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

using platform::JSONWriter;

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

}  // namespace
