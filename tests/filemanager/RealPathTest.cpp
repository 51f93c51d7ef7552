// CVFileManager::realPathForURL on real trees.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "shared/filemanager/CVFileManager.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

CVURL fileURL(const std::string& path) {
  return CVURL::fileURLWithPath(path, false);
}

TEST(RealPathTest, DepthWalkCountsComponentsAndRefusesToClimbBelowTheStart) {
  CVFileManager& manager = CVFileManager::defaultManager();
  std::int32_t depth = -1;
  const std::string down = "/a/../b/./c/", back = "/a/..", below = "/a/../../b/c", plain = "x";
  EXPECT_TRUE(manager._validateSymlink(&down, 2, &depth));
  EXPECT_EQ(depth, 4);
  EXPECT_TRUE(manager._validateSymlink(&back, 2, &depth));
  EXPECT_EQ(depth, 2);  // back at the start is allowed
  depth = -1;
  EXPECT_FALSE(manager._validateSymlink(&below, 2, &depth));
  EXPECT_EQ(depth, -1);  // untouched on failure
  EXPECT_FALSE(manager._validateSymlink(nullptr, 0, &depth));
  EXPECT_TRUE(manager._validateSymlink(&plain, 0, nullptr));
}

// In the table, "{T}" is the temporary directory as given, "{R}" its real
// path; a link is made as "target > link path below {T}". A result of "" is
// a refusal (a nil URL).
struct RealPathCase {
  const char* name;
  const char* link;  // "target > relative link path", or "" for none
  const char* path;
  const char* base;
  const char* result;
  const char* message;  // the level-3 line, or "" for none at all
};

TEST(RealPathTest, EveryCaseResolvesOrIsRefusedWithItsLine) {
  const std::vector<RealPathCase> cases = {
      {"inside", "", "{T}/c/file", "{T}/c", "{R}/c/file", ""},
      {"the base itself", "", "{T}/c", "{T}/c", "{R}/c", ""},
      {"missing trailing components", "", "{T}/c/a/new", "{T}/c", "{R}/c/a/new", ""},
      {"missing base", "", "{T}/absent/x", "{T}/absent", "",
       "Failed to retrieve realpath for base path {T}/absent "},
      {"link leaving the base", "{T}/elsewhere > c/out", "{T}/c/out/file", "{T}/c", "",
       "Rejecting {T}/c/out/file with base {T}/c (reals {R}/elsewhere/file ; {R}/c) because "
       "components diverge at c != elsewhere"},
      {"sibling with the base as string prefix", "", "{T}/cd/x", "{T}/c", "",
       "Rejecting {T}/cd/x with base {T}/c (reals {R}/cd/x ; {R}/c) because components diverge "
       "at c != cd"},
      {"resolving above the base", "../.. > c/a/b/up", "{T}/c/a/b/up/file", "{T}/c/a/b", "",
       "Rejecting {T}/c/a/b/up/file with base {T}/c/a/b because base component count is greater "
       "than child component count (reals {R}/c/file ; {R}/c/a/b)"},
      {"dot-dot", "", "{T}/c/../c/file", "{T}/c", "",
       "The suspicious path {T}/c/../c/file contains '..' paths, which are invalid"},
      {"outside the base string", "", "{T}/elsewhere", "{T}/c", "",
       "supiscious path {T}/elsewhere does not contain base path {T}/c as a prefix"},
      {"root as base", "", "{T}/c/file", "/", "",
       "Rejecting {T}/c/file with base / because real component counts don't make sense (reals "
       "{R}/c/file ; /)"},
      {"unreadable link", "", "{T}/c/file/x", "{T}/c", "", "Readlink failed: Not a directory"},
      {"relative link inside", "../b > c/a/l", "{T}/c/a/l", "{T}/c", "{R}/c/b", ""},
      {"relative link climbing out", "../../x > c/a/l", "{T}/c/a/l", "{T}/c", "",
       "Rejecting {T}/c/a/l -> /a/../../x, as it is points outside or to the base {T}/c"},
      {"absolute link", "/etc > c/a/l", "{T}/c/a/l", "{T}/c", "",
       "Rejecting {T}/c/a/l -> /etc, as absolute symlinks are not allowed"},
      {"link to the base one level down", ".. > c/a/l", "{T}/c/a/l", "{T}/c", "{R}/c", ""},
      {"link to the base at the top", ".. > c/l", "{T}/c/l", "{T}/c", "",
       "Rejecting {T}/c/l -> /.., as it is points outside or to the base {T}/c"},
      {"dangling relative link inside", "missing > c/a/dangling", "{T}/c/a/dangling", "{T}/c",
       "{R}/c/a/dangling",
       "Failed to realpath {T}/c/a/dangling : No such file or directory at {R}/c/a/missing"},
  };
  CVFileManager& manager = CVFileManager::defaultManager();
  for (const RealPathCase& each : cases) {
    SCOPED_TRACE(each.name);
    TemporaryDirectory temp;
    makeDirectories(temp / "c/a/b");
    makeDirectories(temp / "c/b");
    writeFile(temp / "c/file", "x");
    writeFile(temp / "elsewhere/file", "x");
    writeFile(temp / "cd/x", "x");
    const std::string real = std::filesystem::canonical(temp.path()).string();
    const auto expand = [&](std::string text) {
      for (const auto& [token, value] : {std::pair{"{T}", temp.path()}, std::pair{"{R}", real}}) {
        for (std::size_t at; (at = text.find(token)) != std::string::npos;)
          text.replace(at, 3, value);
      }
      return text;
    };
    if (const std::string link = each.link; !link.empty())
      makeSymlink(expand(link.substr(0, link.find(" > "))),
                  temp / link.substr(link.find(" > ") + 3));
    CapturedLog log(platform::installerLog());
    const CVURL resolved =
        manager.realPathForURL(fileURL(expand(each.path)), fileURL(expand(each.base)));
    if (*each.result) {
      EXPECT_EQ(resolved, fileURL(expand(each.result)));
    } else {
      EXPECT_TRUE(resolved.isNil()) << resolved.path();
    }
    if (*each.message) {
      EXPECT_TRUE(log.contains(3, expand(each.message))) << log.dump();
      if (std::string_view(each.message).starts_with("Rejecting")) {
        EXPECT_EQ(log.lines().at(0).function, "-[CVFileManager realPathForURL:ifChildOfURL:]");
      }
    } else {
      EXPECT_EQ(log.count(), 0u) << log.dump();
    }
  }
}

// Missing components are traced only with a handle; a nil base is refused.
TEST(RealPathTest, MissingComponentsAreTracedAndANilBaseIsRefused) {
  TemporaryDirectory temp;
  makeDirectories(temp / "c/a");
  const std::string real = std::filesystem::canonical(temp.path()).string();
  CVFileManager& manager = CVFileManager::defaultManager();
  {
    CapturedLog log(platform::installerLog(), 7);
    EXPECT_EQ(manager.realPathForURL(fileURL(temp / "c/a/new/deeper"), fileURL(temp / "c")),
              fileURL(real + "/c/a/new/deeper"));
    EXPECT_TRUE(log.contains(
        7, "Realpathed " + real + "/c/a ; appending non-existing components new/deeper"))
        << log.dump();
    EXPECT_EQ(log.lines().at(0).function, "-[CVFileManager _realPathWhatExistsInPath:]");
  }
  CapturedLog log(platform::installerLog());
  EXPECT_TRUE(manager.realPathForURL(fileURL(temp.path()), CVURL()).isNil());
  EXPECT_TRUE(log.contains(
      3, "The base path (null) and/or suspicious path file://" + temp.path() + " were nil"))
      << log.dump();
}

// The device's top-level directories are links into "/private". A child
// changes its root to a tree laid out that way, so that the rule can be seen
// at work on real paths; it reports each check as one bit of its exit status.
TEST(RealPathTest, PrivatePrefixIsTheSamePlaceAsThePathWithoutIt) {
  TemporaryDirectory temp;
  writeFile(temp / "private/var/c/x", "x");
  makeSymlink("private/var", temp / "var");
  // A real "/data" beside "/private/data": the comparison skips "private",
  // so both count as the same place.
  makeDirectories(temp / "private/data/c");
  writeFile(temp / "data/c/z", "z");
  makeSymlink("/data/c", temp / "private/data/c/l");
  makeSymlink("/private/data/c", temp / "b");
  const int failures = testing_support::runInChild([&temp] {
    if (::chroot(temp.path().c_str()) != 0 || ::chdir("/") != 0) return 0x80;
    CVFileManager& manager = CVFileManager::defaultManager();
    const std::vector<std::tuple<const char*, const char*, const char*>> checks = {
        {"/var/c/x", "/private/var/c", "/private/var/c/x"},
        {"/private/var/c/x", "/var/c", "/private/var/c/x"},
        {"/b/l/z", "/b", "/data/c/z"},
        {"/var/c/x", "/private/var/d", nullptr}};
    int bits = 0;
    for (std::size_t i = 0; i < checks.size(); ++i) {
      const auto& [path, base, result] = checks[i];
      const CVURL resolved = manager.realPathForURL(fileURL(path), fileURL(base));
      if (result ? !(resolved == fileURL(result)) : !resolved.isNil()) bits |= 1 << i;
    }
    return bits;
  });
  EXPECT_EQ(failures, 0) << "failed checks (bits): " << failures;
}

}  // namespace
