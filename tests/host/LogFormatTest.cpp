// The log line formats: the two text layouts, the JSON lines (their strings
// are quoted as tests/platform/JSONWriterTest.cpp checks), and the timestamps.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "host/LogFormat.h"

namespace mavrel_host {
namespace {

const platform::LogLine kMigrationLine{5,
                                       "-[CVAppMigrator performMigration]",
                                       "CVAppMigrator: Introspecting /var/a",
                                       "MavrelHost",
                                       "AppMigrator.cpp",
                                       123};
const platform::LogLine kInstallerLine{
    3, "-[CVFileManager removeItemAtURL:error:]", "Failed to remove /x: Permission denied", {}, {},
    0};

TEST(LogFormatTest, EachLayoutOfALine) {
  const platform::LogLine quoted{4, "f\"n\"", "tab\there C:\\x", "Cat\\", "a\"b.cpp", 7};
  const std::vector<std::pair<std::string, std::string>> cases = {
      {formatTextLine(LogFlavor::Migration, kMigrationLine, "2026-11-21 08:32:00.123"),
       "2026-11-21 08:32:00.123 <5> MavrelHost AppMigrator.cpp:123 "
       "-[CVAppMigrator performMigration]: CVAppMigrator: Introspecting /var/a\n"},
      // The installer's lines have no category or source place.
      {formatTextLine(LogFlavor::Installer, kInstallerLine, "2026-11-21 08:32:00.123"),
       "2026-11-21 08:32:00.123 <3> -[CVFileManager removeItemAtURL:error:]: "
       "Failed to remove /x: Permission denied\n"},
      {formatJSONLine(LogFlavor::Migration, kMigrationLine, "2026-11-21 08:32:00.123"),
       R"({"time":"2026-11-21 08:32:00.123","level":5,"category":"MavrelHost",)"
       R"("file":"AppMigrator.cpp","line":123,"function":"-[CVAppMigrator performMigration]",)"
       R"("message":"CVAppMigrator: Introspecting /var/a"})"
       "\n"},
      {formatJSONLine(LogFlavor::Installer, kInstallerLine, "t"),
       R"({"time":"t","level":3,"function":"-[CVFileManager removeItemAtURL:error:]",)"
       R"("message":"Failed to remove /x: Permission denied"})"
       "\n"},
      // Every string field is quoted.
      {formatJSONLine(LogFlavor::Migration, quoted, "t\x01"),
       R"({"time":"t\u0001","level":4,"category":"Cat\\","file":"a\"b.cpp","line":7,)"
       R"("function":"f\"n\"","message":"tab\there C:\\x"})"
       "\n"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got, expected);
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
