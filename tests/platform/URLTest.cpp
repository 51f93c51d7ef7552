// File URLs: string forms, components, derived URLs and equality.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/URL.h"

namespace {

TEST(URLTest, StringFormMarksDirectories) {
  const CVURL directory = CVURL::fileURLWithPath("/private/var/mobile/", true);
  EXPECT_EQ(directory.path(), "/private/var/mobile");
  EXPECT_EQ(directory.absoluteString(), "file:///private/var/mobile/");
  EXPECT_TRUE(directory.isDirectory());
  const CVURL file = CVURL::fileURLWithPath("/private/var/mobile/x.plist", false);
  EXPECT_EQ(file.absoluteString(), "file:///private/var/mobile/x.plist");
  EXPECT_EQ(CVURL::fileURLWithPath("/", true).absoluteString(), "file:///");
}

TEST(URLTest, LastComponentAndExtension) {
  EXPECT_EQ(CVURL::fileURLWithPath("/a/Some.app", true).lastPathComponent(), "Some.app");
  EXPECT_EQ(CVURL::fileURLWithPath("/a/Some.app", true).pathExtension(), "app");
  EXPECT_EQ(CVURL::fileURLWithPath("/a/archive.tar.gz", false).pathExtension(), "gz");
  EXPECT_EQ(CVURL::fileURLWithPath("/a/.hidden", false).pathExtension(), "");
  EXPECT_EQ(CVURL::fileURLWithPath("/a/noextension", false).pathExtension(), "");
  EXPECT_EQ(CVURL::fileURLWithPath("/a/trailingdot.", false).pathExtension(), "");
  EXPECT_EQ(CVURL::fileURLWithPath("/", true).lastPathComponent(), "/");
}

TEST(URLTest, AppendingComponents) {
  const CVURL base = CVURL::fileURLWithPath("/var/mobile", true);
  const CVURL file = base.URLByAppendingPathComponent("Library/Caches/x.plist", false);
  EXPECT_EQ(file.path(), "/var/mobile/Library/Caches/x.plist");
  EXPECT_FALSE(file.isDirectory());
  const CVURL directory = base.URLByAppendingPathComponent("Applications", true);
  EXPECT_EQ(directory.absoluteString(), "file:///var/mobile/Applications/");
  EXPECT_EQ(CVURL::fileURLWithPath("/", true).URLByAppendingPathComponent("tmp", true).path(),
            "/tmp");
  EXPECT_EQ(base.URLByAppendingPathComponent("Staging/", true).path(), "/var/mobile/Staging");
}

TEST(URLTest, AppendingExtensionKeepsTheDirectoryMark) {
  const CVURL payload = CVURL::fileURLWithPath("/s/Payload/Name", true);
  const CVURL bundle = payload.URLByAppendingPathExtension("app");
  EXPECT_EQ(bundle.path(), "/s/Payload/Name.app");
  EXPECT_TRUE(bundle.isDirectory());
  EXPECT_EQ(bundle.absoluteString(), "file:///s/Payload/Name.app/");
}

TEST(URLTest, DeletingLastComponentGivesADirectory) {
  const CVURL parent =
      CVURL::fileURLWithPath("/a/b/c.plist", false).URLByDeletingLastPathComponent();
  EXPECT_EQ(parent.path(), "/a/b");
  EXPECT_TRUE(parent.isDirectory());
  EXPECT_EQ(CVURL::fileURLWithPath("/a", false).URLByDeletingLastPathComponent().path(), "/");
}

TEST(URLTest, Equality) {
  EXPECT_EQ(CVURL::fileURLWithPath("/a/b/", true), CVURL::fileURLWithPath("/a/b", true));
  EXPECT_NE(CVURL::fileURLWithPath("/a/b", true), CVURL::fileURLWithPath("/a/b", false));
  EXPECT_NE(CVURL::fileURLWithPath("/a/b", false), CVURL::fileURLWithPath("/a/c", false));
  EXPECT_EQ(CVURL(), CVURL());
}

TEST(URLTest, RelativePathsAreTakenFromTheCurrentDirectory) {
  char buffer[4096];
  ASSERT_NE(::getcwd(buffer, sizeof buffer), nullptr);
  const std::string cwd = buffer;
  const CVURL url = CVURL::fileURLWithPath("some/file", false);
  EXPECT_EQ(url.path(), (cwd == "/" ? "" : cwd) + "/some/file");
}

TEST(URLTest, NilURL) {
  const CVURL nil;
  EXPECT_TRUE(nil.isNil());
  EXPECT_FALSE(static_cast<bool>(nil));
  EXPECT_EQ(nil.description(), "(null)");
  EXPECT_TRUE(nil.URLByAppendingPathComponent("x", false).isNil());
  EXPECT_TRUE(CVURL::fileURLWithPath("", false).isNil());
}

TEST(URLTest, PathComponents) {
  EXPECT_EQ(CVURL::pathComponents("/a//b/"), (std::vector<std::string>{"/", "a", "b"}));
  EXPECT_EQ(CVURL::pathComponents("a/b"), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(CVURL::pathComponents("").empty());
}

}  // namespace
