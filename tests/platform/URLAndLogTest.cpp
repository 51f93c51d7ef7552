// File URLs (string forms, components, derived URLs, equality) and the logs
// (threshold rules, the installer's and the migration's lines, the scoped
// sink), each as a table of input and expected result.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "platform/URL.h"
#include "tests/support/TestSupport.h"

namespace {

using platform::kLogLevelDebug;
using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;

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
  EXPECT_EQ((std::array{log.admits(kLogLevelError), log.admits(kLogLevelNotice),
                        log.admits(kLogLevelDebug)}),
            (std::array{false, false, false}));
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
              std::tuple(std::string("MavrelHost"), std::string("URLAndLogTest.cpp"), line,
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
