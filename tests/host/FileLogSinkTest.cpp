// The host's logs: each layout of a line, local-time stamps, the file sink
// (its level filter is EndToEndTest's) and the log files of a run.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "host/FileLogSink.h"
#include "host/HostLogs.h"
#include "host/LogFormat.h"
#include "tests/host/GeneratedImage.h"
#include "tests/support/TestSupport.h"

namespace mavrel_host {
namespace {

using namespace testing_support;

timespec fixedClock() {
  return timespec{1795249920, 0};
}

AppendOnlyFile openOrFail(const std::string& path) {
  std::string reason;
  std::optional<AppendOnlyFile> file = AppendOnlyFile::open(path, &reason);
  EXPECT_TRUE(file) << reason;
  return std::move(*file);
}

platform::LogLine notice(std::string_view message) {
  return platform::LogLine{5, "f", message, "MavrelHost", "A.cpp", 7};
}

TEST(LogFormatTest, EachLayoutOfALine) {
  const platform::LogLine migration(5, "-[CVAppMigrator performMigration]",
                                    "CVAppMigrator: Introspecting /var/a", "MavrelHost",
                                    "AppMigrator.cpp", 123);
  const platform::LogLine installer(3, "-[CVFileManager removeItemAtURL:error:]",
                                    "Failed to remove /x: Permission denied", "", "", 0);
  const platform::LogLine quoted{4, "f\"n\"", "tab\there C:\\x", "Cat\\", "a\"b.cpp", 7};
  const platform::LogLine invalid{5, "f", "Failed to remove /var/\xFF\nname", {}, {}, 0};
  const std::vector<std::pair<std::string, std::string>> cases = {
      {formatTextLine(LogFlavor::Migration, migration, "2026-11-21 08:32:00.123"),
       "2026-11-21 08:32:00.123 <5> MavrelHost AppMigrator.cpp:123 "
       "-[CVAppMigrator performMigration]: CVAppMigrator: Introspecting /var/a\n"},
      // The installer's lines have no category or source place.
      {formatTextLine(LogFlavor::Installer, installer, "2026-11-21 08:32:00.123"),
       "2026-11-21 08:32:00.123 <3> -[CVFileManager removeItemAtURL:error:]: "
       "Failed to remove /x: Permission denied\n"},
      {formatJSONLine(LogFlavor::Migration, migration, "2026-11-21 08:32:00.123"),
       R"({"time":"2026-11-21 08:32:00.123","level":5,"category":"MavrelHost",)"
       R"("file":"AppMigrator.cpp","line":123,"function":"-[CVAppMigrator performMigration]",)"
       R"("message":"CVAppMigrator: Introspecting /var/a"})"
       "\n"},
      {formatJSONLine(LogFlavor::Installer, installer, "t"),
       R"({"time":"t","level":3,"function":"-[CVFileManager removeItemAtURL:error:]",)"
       R"("message":"Failed to remove /x: Permission denied"})"
       "\n"},
      // Every string field is quoted.
      {formatJSONLine(LogFlavor::Migration, quoted, "t\x01"),
       R"({"time":"t\u0001","level":4,"category":"Cat\\","file":"a\"b.cpp","line":7,)"
       R"("function":"f\"n\"","message":"tab\there C:\\x"})"
       "\n"},
      // Invalid bytes and a newline in a message keep the JSON one valid line.
      {formatJSONLine(LogFlavor::Installer, invalid, "t"),
       R"({"time":"t","level":5,"function":"f","message":"Failed to remove /var/)"
       "\xEF\xBF\xBD"
       R"(\nname"})"
       "\n"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got, expected);
}

TEST(LogFormatTest, TimestampsAreLocalTime) {
  const char* old = std::getenv("TZ");
  const std::optional<std::string> previous = old ? std::optional<std::string>(old) : std::nullopt;
  const std::time_t when = 1795249920;  // 2026-11-21 08:32:00 UTC
  for (const auto& [zone, nanoseconds, line, lastMillisecond, file, iso] : std::vector<
           std::tuple<const char*, long, std::string, std::string, std::string, std::string>>{
           {"UTC0", 123456789, "2026-11-21 08:32:00.123", "2026-11-21 08:32:09.999",
            "2026-11-21-083200", "2026-11-21T08:32:00.123+00:00"},
           {"XXX-2", 5000000, "2026-11-21 10:32:00.005", "2026-11-21 10:32:09.999",
            "2026-11-21-103200", "2026-11-21T10:32:00.005+02:00"}}) {
    ::setenv("TZ", zone, 1);
    ::tzset();
    EXPECT_EQ(formatLineTimestamp(timespec{when, nanoseconds}), line) << zone;
    EXPECT_EQ(formatISOLineTimestamp(timespec{when, nanoseconds}), iso) << zone;
    EXPECT_EQ(formatLineTimestamp(timespec{when + 9, 999999999}), lastMillisecond) << zone;
    EXPECT_EQ(formatFileTimestamp(when), file) << zone;
  }
  if (previous)
    ::setenv("TZ", previous->c_str(), 1);
  else
    ::unsetenv("TZ");
  ::tzset();
}

TEST(FileLogSinkTest, WritesEachLineToTextAndJSONAndAppends) {
  TemporaryDirectory directory;
  writeFile(directory / "text.log", "earlier run\n");
  FileLogSink sink(LogFlavor::Migration, openOrFail(directory / "text.log"),
                   openOrFail(directory / "lines.json"), std::nullopt, fixedClock);
  const platform::LogLine second{3, "g", "second", "MavrelHost", "B.cpp", 9};
  sink.write(notice("first"));
  sink.write(second);
  std::string reason;
  EXPECT_TRUE(sink.finish(&reason)) << reason;

  const std::string stamp = formatLineTimestamp(fixedClock());
  EXPECT_EQ(readFile(directory / "text.log"), "earlier run\n" + stamp +
                                                  " <5> MavrelHost A.cpp:7 f: first\n" + stamp +
                                                  " <3> MavrelHost B.cpp:9 g: second\n");
  const std::string iso = formatISOLineTimestamp(fixedClock());
  EXPECT_EQ(readFile(directory / "lines.json"),
            formatJSONLine(LogFlavor::Migration, notice("first"), iso) +
                formatJSONLine(LogFlavor::Migration, second, iso));
}

TEST(FileLogSinkTest, FailuresToOpenOrWriteNameTheFile) {
  TemporaryDirectory directory;
  std::string reason;
  EXPECT_FALSE(AppendOnlyFile::open(directory / "missing/dir/x.log", &reason));
  host_test::expectContains(reason, {directory / "missing/dir/x.log", "No such file or directory"});

  // Every write to /dev/full fails with ENOSPC; the text file still gets its line.
  FileLogSink sink(LogFlavor::Migration, openOrFail(directory / "text.log"),
                   openOrFail("/dev/full"), std::nullopt, fixedClock);
  sink.write(notice("lost"));
  EXPECT_FALSE(sink.finish(&reason));
  host_test::expectContains(reason, {"/dev/full", "No space left on device"});
  host_test::expectContains(readFile(directory / "text.log"), {"lost"});

  // The descriptor is not known here: every open descriptor on the file (one)
  // must be for appending and not inherited by a child process.
  AppendOnlyFile file = openOrFail(directory / "x.log");
  std::vector<std::pair<bool, bool>> closeOnExecAndAppend;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const int fd = std::stoi(entry.path().filename());
    if (std::filesystem::equivalent(entry.path(), directory / "x.log", error))
      closeOnExecAndAppend.emplace_back(::fcntl(fd, F_GETFD) & FD_CLOEXEC,
                                        ::fcntl(fd, F_GETFL) & O_APPEND);
  }
  EXPECT_EQ(closeOnExecAndAppend, (std::vector<std::pair<bool, bool>>{{true, true}}));
}

TEST(HostLogsTest, LogLevelKeepsNoticesForProgressButOutOfTheFile) {
  EXPECT_EQ(pathRelativeToRoot("/images/a", "/images/a/private/var/mobile"), "private/var/mobile");
  EXPECT_EQ(pathRelativeToRoot("/", "/private/var/mobile"), "private/var/mobile");
  EXPECT_EQ(pathRelativeToRoot("/images/a", "/images/a"), "");

  TemporaryDirectory directory;
  MigrateOptions options;
  options.root = directory.path();
  options.logLevel = 3;
  std::string reason;
  auto logs = openHostLogs(directory.path(), options, 1795249920, {}, &reason);
  ASSERT_TRUE(logs) << reason;
  // The migration log must still pass notices on (the progress display reads
  // them); the installer log follows the asked level exactly.
  EXPECT_EQ(logs->migrationHandleLevel, 5);
  EXPECT_EQ(logs->installerHandleLevel, 3);

  options.logLevel.reset();
  auto defaults = openHostLogs(directory.path(), options, 1795249920, {}, &reason);
  ASSERT_TRUE(defaults) << reason;
  EXPECT_FALSE(defaults->migrationHandleLevel);
  EXPECT_FALSE(defaults->installerHandleLevel);
  // A second run in the same second gets log files of its own.
  EXPECT_TRUE(defaults->migration->textPath().ends_with("-2.log"))
      << defaults->migration->textPath();
  EXPECT_NE(defaults->installer->textPath(), logs->installer->textPath());
}

}  // namespace
}  // namespace mavrel_host
