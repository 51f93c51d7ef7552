// The log threshold rules, the installer and migration log lines, and the
// scoped sink.
#include <gtest/gtest.h>

#include <array>

#include "platform/Log.h"
#include "tests/support/TestSupport.h"

namespace {

using platform::kLogLevelDebug;
using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;

TEST(LogThresholdTest, WithoutHandleFailuresAndNoticesOnly) {
  platform::Log log("Test");
  EXPECT_FALSE(log.handleLevel().has_value());
  EXPECT_TRUE(log.admits(kLogLevelError));
  EXPECT_TRUE(log.admits(kLogLevelNotice));
  EXPECT_FALSE(log.admits(kLogLevelDebug));
}

TEST(LogThresholdTest, HandleLevelIsAnUpperBound) {
  platform::Log log("Test");
  log.setHandleLevel(kLogLevelDebug);
  EXPECT_TRUE(log.admits(kLogLevelError));
  EXPECT_TRUE(log.admits(kLogLevelNotice));
  EXPECT_TRUE(log.admits(kLogLevelDebug));

  log.setHandleLevel(kLogLevelNotice);
  EXPECT_TRUE(log.admits(kLogLevelNotice));
  EXPECT_FALSE(log.admits(kLogLevelDebug));

  log.setHandleLevel(kLogLevelError);
  EXPECT_TRUE(log.admits(kLogLevelError));
  EXPECT_FALSE(log.admits(kLogLevelNotice));

  log.setHandleLevel(0);
  EXPECT_FALSE(log.admits(kLogLevelError));

  log.setHandleLevel(std::nullopt);
  EXPECT_TRUE(log.admits(kLogLevelNotice));
  EXPECT_FALSE(log.admits(kLogLevelDebug));
}

TEST(InstallerLogTest, WritesAdmittedLinesWithFunctionAndMessage) {
  CapturedLog captured(platform::installerLog());
  platform::logInstaller(kLogLevelNotice, "TestFunction", "value %d at %@", 3, std::string("x"));
  platform::logInstaller(kLogLevelDebug, "TestFunction", "trace only with a handle");
  const auto lines = captured.lines();
  ASSERT_EQ(lines.size(), 1u) << captured.dump();
  EXPECT_EQ(lines[0].level, kLogLevelNotice);
  EXPECT_EQ(lines[0].function, "TestFunction");
  EXPECT_EQ(lines[0].message, "value 3 at x");
  EXPECT_TRUE(lines[0].category.empty());
}

TEST(InstallerLogTest, HandleAtErrorSuppressesNotices) {
  CapturedLog captured(platform::installerLog(), kLogLevelError);
  platform::logInstaller(kLogLevelNotice, "F", "notice");
  platform::logInstaller(kLogLevelError, "F", "failure");
  EXPECT_EQ(captured.messages(), std::vector<std::string>{"failure"});
}

TEST(InstallerLogTest, HandleAtDebugAdmitsTraces) {
  CapturedLog captured(platform::installerLog(), kLogLevelDebug);
  platform::logInstaller(kLogLevelDebug, "F", "trace %s", "on");
  EXPECT_TRUE(captured.contains(kLogLevelDebug, "trace on")) << captured.dump();
}

TEST(InstallerLogTest, RuntimeFormatsMarkBadArguments) {
  CapturedLog captured(platform::installerLog());
  const std::array args{platform::makeFormatArg(4)};
  platform::logInstallerV(kLogLevelError, "F", "%@ and %d", args);
  EXPECT_TRUE(captured.contains(kLogLevelError, "<bad argument> and <missing>")) << captured.dump();
}

TEST(MigrationLogTest, LinesCarryCategoryFileAndLine) {
  CapturedLog captured(platform::migrationLog());
  const int line = __LINE__ + 1;
  platform::logMigration(kLogLevelError, "-[CVAppMigrator test]", "CVAppMigrator: %@", "x");
  const auto lines = captured.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].category, "MavrelHost");
  EXPECT_EQ(lines[0].file, "LogTest.cpp");
  EXPECT_EQ(lines[0].line, line);
  EXPECT_EQ(lines[0].function, "-[CVAppMigrator test]");
  EXPECT_EQ(lines[0].message, "CVAppMigrator: x");
}

TEST(ScopedLogSinkTest, RestoresThePreviousSinkAndLevel) {
  CapturedLog outer(platform::installerLog(), kLogLevelNotice);
  {
    CapturedLog inner(platform::installerLog(), kLogLevelDebug);
    platform::logInstaller(kLogLevelDebug, "F", "inner");
    EXPECT_EQ(inner.count(), 1u);
  }
  EXPECT_EQ(platform::installerLog().handleLevel(), kLogLevelNotice);
  platform::logInstaller(kLogLevelNotice, "F", "outer");
  platform::logInstaller(kLogLevelDebug, "F", "dropped");
  EXPECT_EQ(outer.messages(), std::vector<std::string>{"outer"});
}

}  // namespace
