// The file sink: what reaches the text and JSON files, the level filter, that
// files are appended to and not truncated, and that write failures surface.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host/FileLogSink.h"
#include "host/HostLogs.h"
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

TEST(FileLogSinkTest, WritesEachLineToTextAndJSONAndAppends) {
  TemporaryDirectory directory;
  writeFile(directory / "text.log", "earlier run\n");
  FileLogSink sink(LogFlavor::Migration, openOrFail(directory / "text.log"),
                   openOrFail(directory / "lines.json"), std::nullopt, fixedClock);
  sink.write(notice("first"));
  sink.write(platform::LogLine{3, "g", "second", "MavrelHost", "B.cpp", 9});
  std::string reason;
  EXPECT_TRUE(sink.finish(&reason)) << reason;

  const std::string stamp = formatLineTimestamp(fixedClock());
  EXPECT_EQ(readFile(directory / "text.log"), "earlier run\n" + stamp +
                                                  " <5> MavrelHost A.cpp:7 f: first\n" + stamp +
                                                  " <3> MavrelHost B.cpp:9 g: second\n");
  // JSON lines carry ISO 8601 times with the zone: "2026-11-21T08:32:00.000+01:00".
  const std::string iso = formatISOLineTimestamp(fixedClock());
  ASSERT_EQ(iso.size(), 29u) << iso;
  EXPECT_EQ(iso.substr(10, 1), "T");
  EXPECT_EQ(iso.substr(0, 10), stamp.substr(0, 10));
  EXPECT_EQ(iso.substr(11, 12), stamp.substr(11, 12));
  EXPECT_NE(std::string("+-").find(iso[23]), std::string::npos) << iso;
  EXPECT_EQ(iso[26], ':') << iso;
  const std::string json = readFile(directory / "lines.json");
  EXPECT_EQ(json,
            formatJSONLine(LogFlavor::Migration, notice("first"), iso) +
                formatJSONLine(LogFlavor::Migration,
                               platform::LogLine{3, "g", "second", "MavrelHost", "B.cpp", 9}, iso));
}

TEST(FileLogSinkTest, FileLevelKeepsStricterLinesOut) {
  TemporaryDirectory directory;
  FileLogSink sink(LogFlavor::Installer, openOrFail(directory / "text.log"), std::nullopt, 3,
                   fixedClock);
  sink.write(platform::LogLine{3, "f", "failure", {}, {}, 0});
  sink.write(platform::LogLine{5, "f", "notice", {}, {}, 0});
  sink.write(platform::LogLine{7, "f", "trace", {}, {}, 0});
  EXPECT_TRUE(sink.finish(nullptr));
  const std::string text = readFile(directory / "text.log");
  EXPECT_NE(text.find("<3> f: failure"), std::string::npos);
  EXPECT_EQ(text.find("notice"), std::string::npos);
  EXPECT_EQ(text.find("trace"), std::string::npos);
}

TEST(FileLogSinkTest, FailedWritesAreReportedByFinish) {
  TemporaryDirectory directory;
  // Every write to /dev/full fails with ENOSPC.
  FileLogSink sink(LogFlavor::Migration, openOrFail(directory / "text.log"),
                   openOrFail("/dev/full"), std::nullopt, fixedClock);
  sink.write(notice("lost"));
  std::string reason;
  EXPECT_FALSE(sink.finish(&reason));
  EXPECT_NE(reason.find("/dev/full"), std::string::npos) << reason;
  EXPECT_NE(reason.find("No space left on device"), std::string::npos) << reason;
  // The text file still got its line.
  EXPECT_NE(readFile(directory / "text.log").find("lost"), std::string::npos);
}

TEST(FileLogSinkTest, OpenFailuresNameTheFile) {
  TemporaryDirectory directory;
  std::string reason;
  EXPECT_FALSE(AppendOnlyFile::open(directory / "missing/dir/x.log", &reason));
  EXPECT_NE(reason.find(directory / "missing/dir/x.log"), std::string::npos) << reason;
  EXPECT_NE(reason.find("No such file or directory"), std::string::npos) << reason;
}

TEST(FileLogSinkTest, LogFilesAreNotInheritedByChildProcesses) {
  TemporaryDirectory directory;
  // The descriptor is not known here, so look for any open descriptor on the
  // file and check its flags.
  AppendOnlyFile file = openOrFail(directory / "x.log");
  bool found = false;
  for (int fd = 0; fd < 1024; ++fd) {
    struct stat byDescriptor {
    }, byPath{};
    if (::fstat(fd, &byDescriptor) != 0 || ::stat((directory / "x.log").c_str(), &byPath) != 0)
      continue;
    if (byDescriptor.st_ino != byPath.st_ino || byDescriptor.st_dev != byPath.st_dev) continue;
    found = true;
    EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(::fcntl(fd, F_GETFL) & O_APPEND);
  }
  EXPECT_TRUE(found);
}

TEST(HostLogsTest, PathRelativeToRoot) {
  EXPECT_EQ(pathRelativeToRoot("/images/a", "/images/a/private/var/mobile"), "private/var/mobile");
  EXPECT_EQ(pathRelativeToRoot("/", "/private/var/mobile"), "private/var/mobile");
  EXPECT_EQ(pathRelativeToRoot("/images/a", "/images/a"), "");
}

TEST(HostLogsTest, LogLevelKeepsNoticesForProgressButOutOfTheFile) {
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
  logs->migration->write(notice("CVAppMigrator: Introspecting /x"));
  ASSERT_TRUE(logs->migration->finish(&reason)) << reason;
  EXPECT_EQ(readFile(logs->migration->textPath()), "");

  MigrateOptions noLevel;
  noLevel.root = directory.path();
  auto defaults = openHostLogs(directory.path(), noLevel, 1795249920, {}, &reason);
  ASSERT_TRUE(defaults) << reason;
  EXPECT_FALSE(defaults->migrationHandleLevel);
  EXPECT_FALSE(defaults->installerHandleLevel);
  // A second run in the same second gets log files of its own.
  EXPECT_NE(defaults->migration->textPath(), logs->migration->textPath());
  EXPECT_TRUE(defaults->migration->textPath().ends_with("-2.log"))
      << defaults->migration->textPath();
  EXPECT_NE(defaults->installer->textPath(), logs->installer->textPath());
}

}  // namespace
}  // namespace mavrel_host
