// The log line formats: the two text layouts, the JSON encoding (escaping and
// invalid UTF-8), and the timestamps.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "host/LogFormat.h"

namespace mavrel_host {
namespace {

std::string jsonQuoted(std::string_view text) {
  std::string out;
  appendJSONString(out, text);
  return out;
}

const platform::LogLine kMigrationLine{5,
                                       "-[CVAppMigrator performMigration]",
                                       "CVAppMigrator: Introspecting /var/a",
                                       "MavrelHost",
                                       "AppMigrator.cpp",
                                       123};
const platform::LogLine kInstallerLine{
    3, "-[CVFileManager removeItemAtURL:error:]", "Failed to remove /x: Permission denied", {}, {},
    0};

TEST(LogFormatTest, MigrationTextLine) {
  EXPECT_EQ(formatTextLine(LogFlavor::Migration, kMigrationLine, "2026-11-21 08:32:00.123"),
            "2026-11-21 08:32:00.123 <5> MavrelHost AppMigrator.cpp:123 "
            "-[CVAppMigrator performMigration]: CVAppMigrator: Introspecting /var/a\n");
}

TEST(LogFormatTest, InstallerTextLineHasNoCategoryOrSourcePlace) {
  EXPECT_EQ(formatTextLine(LogFlavor::Installer, kInstallerLine, "2026-11-21 08:32:00.123"),
            "2026-11-21 08:32:00.123 <3> -[CVFileManager removeItemAtURL:error:]: "
            "Failed to remove /x: Permission denied\n");
}

TEST(LogFormatTest, MigrationJSONLineCarriesEveryField) {
  EXPECT_EQ(formatJSONLine(LogFlavor::Migration, kMigrationLine, "2026-11-21 08:32:00.123"),
            R"({"time":"2026-11-21 08:32:00.123","level":5,"category":"MavrelHost",)"
            R"("file":"AppMigrator.cpp","line":123,"function":"-[CVAppMigrator performMigration]",)"
            R"("message":"CVAppMigrator: Introspecting /var/a"})"
            "\n");
}

TEST(LogFormatTest, InstallerJSONLineLeavesOutMigrationFields) {
  const std::string line = formatJSONLine(LogFlavor::Installer, kInstallerLine, "t");
  EXPECT_EQ(line, R"({"time":"t","level":3,"function":"-[CVFileManager removeItemAtURL:error:]",)"
                  R"("message":"Failed to remove /x: Permission denied"})"
                  "\n");
}

TEST(LogFormatTest, JSONStringsEscapeQuotesBackslashesAndControlCharacters) {
  EXPECT_EQ(jsonQuoted(R"(say "hi" C:\dir)"), R"("say \"hi\" C:\\dir")");
  EXPECT_EQ(jsonQuoted("a\nb\tc\rd\be\ff"), R"("a\nb\tc\rd\be\ff")");
  EXPECT_EQ(jsonQuoted(std::string_view("\x01\x1f\x7f", 3)), R"("\u0001\u001f\u007f")");
  EXPECT_EQ(jsonQuoted(std::string_view("nul\0byte", 8)), R"("nul\u0000byte")");
  EXPECT_EQ(jsonQuoted("/ is fine"), R"("/ is fine")");
}

TEST(LogFormatTest, JSONStringsKeepValidUTF8) {
  // 2-, 3- and 4-byte sequences, and the extremes of the valid ranges.
  const std::string text =
      "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xED\x9F\xBF \xF4\x8F\xBF\xBF";
  EXPECT_EQ(jsonQuoted(text), "\"" + text + "\"");
}

TEST(LogFormatTest, JSONStringsReplaceInvalidUTF8WithReplacementCharacter) {
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

TEST(LogFormatTest, JSONMessageWithInvalidBytesStaysOneValidLine) {
  platform::LogLine line = kMigrationLine;
  line.message = "Failed to remove /var/\xFF\nname";
  const std::string json = formatJSONLine(LogFlavor::Migration, line, "t");
  EXPECT_EQ(json.find('\n'), json.size() - 1);
  EXPECT_NE(json.find(R"("message":"Failed to remove /var/)"
                      "\xEF\xBF\xBD"
                      R"(\nname"})"),
            std::string::npos);
}

// Sets the time zone for the lifetime of the object.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) previous_ = old;
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  ~ScopedTimeZone() {
    if (previous_)
      ::setenv("TZ", previous_->c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }

 private:
  std::optional<std::string> previous_;
};

TEST(LogFormatTest, TimestampsAreLocalTime) {
  const ScopedTimeZone zone("UTC0");
  // 2026-11-21 08:32:00 UTC, and 7 ms below the next second.
  const std::time_t when = 1795249920;
  EXPECT_EQ(formatLineTimestamp(timespec{when, 123456789}), "2026-11-21 08:32:00.123");
  EXPECT_EQ(formatLineTimestamp(timespec{when + 9, 999999999}), "2026-11-21 08:32:09.999");
  EXPECT_EQ(formatFileTimestamp(when), "2026-11-21-083200");

  const ScopedTimeZone later("XXX-2");  // two hours ahead of UTC
  EXPECT_EQ(formatLineTimestamp(timespec{when, 5000000}), "2026-11-21 10:32:00.005");
  EXPECT_EQ(formatFileTimestamp(when), "2026-11-21-103200");
}

}  // namespace
}  // namespace mavrel_host
