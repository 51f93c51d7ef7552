// CVFileManager's smaller operations, one test each.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/PlaceholderAttribute.h"
#include "platform/linux/ProtectionClassTesting.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;
using namespace filemanager_test;
namespace sys = platform::sys;
using Line = std::tuple<int, std::string, std::string>;  // level, message, function

std::vector<Line> logged(const CapturedLog& log) {
  std::vector<Line> lines;
  for (const auto& line : log.lines())
    lines.emplace_back(line.level, line.message, line.function);
  return lines;
}

using FileManagerTest = FileManagerFixture;

// (item, exists, does not exist); a state that cannot be determined answers
// false twice, and says so.
TEST_F(FileManagerTest, EachKindOfItemAnswersBothExistenceQuestions) {
  writeFile(temp_ / "file", "");
  makeDirectories(temp_ / "dir");
  makeSymlink(temp_ / "nowhere", temp_ / "dangling");
  for (const auto& [name, exists, doesNotExist] :
       {std::tuple{"file", true, false}, std::tuple{"dir/", true, false},
        std::tuple{"dangling", true, false}, std::tuple{"absent", false, true},
        std::tuple{"file/below", false, false}}) {
    const CVURL item = url(name);
    CapturedLog log(platform::installerLog());
    EXPECT_EQ(manager_.itemExistsAtURL(item), exists) << name;
    EXPECT_EQ(manager_.itemDoesNotExistAtURL(item), doesNotExist) << name;
    std::vector<Line> expected;
    if (exists == doesNotExist) {
      const std::string message =
          "Failed to determine if " + item.description() + " exists: Not a directory";
      expected = {{3, message, "-[CVFileManager itemExistsAtURL:]"},
                  {3, message, "-[CVFileManager itemDoesNotExistAtURL:]"}};
    }
    EXPECT_EQ(logged(log), expected);
  }
}

TEST_F(FileManagerTest, ListingHasEveryItemOnceMarksDirectoriesAndSkipsIgnoredLinks) {
  makeDirectories(temp_ / "dir/sub");
  makeDirectories(temp_ / "empty");
  writeFile(temp_ / "dir/file", "");
  ASSERT_EQ(::mkfifo((temp_ / "dir/fifo").c_str(), 0600), 0);
  makeSymlink(temp_ / "dir/sub", temp_ / "dir/link-to-sub");
  makeSymlink(temp_ / "nowhere", temp_ / "dir/dangling");
  // More entries than one read of the directory returns.
  std::vector<std::string> many;
  for (int i = 0; i < 2000; ++i) {
    const std::string name = "many/entry-with-a-longer-name-" + std::to_string(i);
    writeFile(temp_ / name, "");
    many.push_back("file://" + (temp_ / name));
  }
  std::sort(many.begin(), many.end());
  // The listing's absolute strings in order; a failed one lists the nil URL.
  const auto listing = [&](const char* directory, bool ignoringLinks, CVError* listError) {
    std::vector<std::string> strings;
    for (const CVURL& each :
         manager_.urlsForItemsInDirectoryAtURL(url(directory), ignoringLinks, listError)
             .value_or(std::vector<CVURL>{CVURL()}))
      strings.push_back(each.absoluteString());
    std::ranges::sort(strings);
    return strings;
  };
  const std::string base = "file://" + (temp_ / "dir/");
  CVError error = sentinelError();
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(listing("dir/", false, &error),
            (std::vector<std::string>{base + "dangling", base + "fifo", base + "file",
                                      base + "link-to-sub", base + "sub/"}));
  EXPECT_EQ(log.count(), 0u) << log.dump();
  EXPECT_EQ(listing("dir/", true, &error),
            (std::vector<std::string>{base + "fifo", base + "file", base + "sub/"}));
  EXPECT_EQ(error, sentinelError());
  const std::string block =
      "__69-[CVFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]_block_invoke";
  const auto lines = logged(log);
  EXPECT_EQ(std::set<Line>(lines.begin(), lines.end()),
            (std::set<Line>{{5, "Ignoring symlink at " + (temp_ / "dir/link-to-sub"), block},
                            {5, "Ignoring symlink at " + (temp_ / "dir/dangling"), block}}));
  EXPECT_EQ(listing("many/", true, nullptr), many);
  EXPECT_TRUE(listing("empty/", false, nullptr).empty());

  // The open refuses a final link: on Linux a link opened as a directory
  // without following it fails with ENOTDIR, whatever the flag.
  writeFile(temp_ / "file", "");
  makeSymlink(temp_ / "dir", temp_ / "link");
  for (const auto& [name, ignoring, code, text] :
       {std::tuple{"absent", false, ENOENT, "No such file or directory"},
        std::tuple{"file", false, ENOTDIR, "Not a directory"},
        std::tuple{"link", false, ENOTDIR, "Not a directory"},
        std::tuple{"link", true, ENOTDIR, "Not a directory"}}) {
    CapturedLog failures(platform::installerLog());
    EXPECT_FALSE(manager_.urlsForItemsInDirectoryAtURL(temp_.directoryURL(name), ignoring, &error));
    expectPosixError(error, code, "_IterateDirectory for " + (temp_ / name) + " returned " + text,
                     "-[CVFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]");
    const Line opened{3, "open of " + (temp_ / name) + " failed: Not a directory",
                      "_IterateDirectory"};
    EXPECT_EQ(logged(failures), code == ENOENT ? std::vector<Line>{} : std::vector{opened}) << name;
  }
}

mode_t permissionsOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  EXPECT_TRUE(S_ISDIR(status.st_mode)) << path;
  return status.st_mode & 07777;
}

TEST_F(FileManagerTest, TemporaryDirectoriesAreFreshPrivateAndNamedTemp) {
  CVError error = sentinelError();
  const CVURL first = manager_.createTemporaryDirectoryInDirectoryURL(temp_.url(), &error);
  EXPECT_TRUE(error.isNil()) << "the error place is cleared first";
  const CVURL second = manager_.createTemporaryDirectoryInDirectoryURL(temp_.url(), nullptr);
  EXPECT_NE(first.path(), second.path());
  for (const CVURL& url : {first, second}) {
    EXPECT_TRUE(url.isDirectory());
    EXPECT_EQ(url.URLByDeletingLastPathComponent().path(), temp_.path());
    const std::string name = url.lastPathComponent();
    EXPECT_TRUE(name.starts_with("temp.") && name.size() == 11u && name != "temp.XXXXXX") << name;
    EXPECT_EQ(permissionsOf(url.path()), 0700u);
  }

  // A missing parent: a record with the template, logged with or without a
  // place.
  const CVURL parent = url("missing/");
  const CVURL templateURL = parent.URLByAppendingPathComponent("temp.XXXXXX", true);
  const std::string function = "-[CVFileManager createTemporaryDirectoryInDirectoryURL:error:]";
  const std::string description = "Failed to create temp dir at path " + templateURL.path();
  CapturedLog log(platform::installerLog());
  EXPECT_TRUE(manager_.createTemporaryDirectoryInDirectoryURL(parent, &error).isNil());
  EXPECT_EQ(
      std::tuple(error.domain(), error.code(), error.localizedDescription(), functionOf(error)),
      std::tuple(std::string("CVInstallerErrorDomain"), 4, description, function));
  ASSERT_NE(error.userInfo().find("PathArgument"), nullptr);
  EXPECT_EQ(*error.userInfo().find("PathArgument"), CVValue(templateURL));
  EXPECT_TRUE(error.underlyingError().isPOSIX(ENOENT)) << error.description();
  EXPECT_TRUE(manager_.createTemporaryDirectoryInDirectoryURL(parent, nullptr).isNil());
  ASSERT_EQ(log.count(), 2u) << log.dump();
  for (const auto& line : log.lines()) {
    EXPECT_EQ(std::tuple(line.level, line.function), std::tuple(3, function));
    EXPECT_NE(line.message.find(description), std::string::npos) << line.message;
  }
}

TEST_F(FileManagerTest, LinksAreMadeAsGivenAndReadBackAsFileURLs) {
  CVError error = sentinelError();
  const CVURL destination = url("not/there/yet/");
  EXPECT_TRUE(manager_.createSymbolicLinkAtURL(url("link"), destination, &error));
  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(linkContent(temp_ / "link"), destination.path());
  writeFile(temp_ / "occupied", "kept");
  EXPECT_FALSE(manager_.createSymbolicLinkAtURL(url("occupied"), destination, &error));
  expectPosixError(error, EEXIST,
                   "Could not create symlink containing " + destination.path() + " at " +
                       (temp_ / "occupied") + ": File exists",
                   "-[CVFileManager createSymbolicLinkAtURL:withDestinationURL:error:]");
  EXPECT_EQ(readFile(temp_ / "occupied"), "kept");

  makeSymlink("/some/absolute/place", temp_ / "absolute");
  makeSymlink("relative/place", temp_ / "relative");
  const std::string longContent = "/" + std::string(1500, 'a') + "/tail";
  makeSymlink(longContent, temp_ / "long");
  error = sentinelError();
  const CVURL absolute = manager_.destinationOfSymbolicLinkAtURL(url("absolute"), &error);
  EXPECT_EQ(absolute, CVURL::fileURLWithPath("/some/absolute/place", false));
  EXPECT_FALSE(absolute.isDirectory());
  // Relative content is taken relative to the current directory, not the
  // link's.
  EXPECT_EQ(manager_.destinationOfSymbolicLinkAtURL(url("relative"), &error).path(),
            std::filesystem::current_path().string() + "/relative/place");
  EXPECT_EQ(error, sentinelError());
  // Content is cut at 1024 bytes.
  EXPECT_EQ(manager_.destinationOfSymbolicLinkAtURL(url("long"), nullptr).path(),
            longContent.substr(0, 1024));
  for (const auto& [name, code, text] :
       {std::tuple{"occupied", EINVAL, "Invalid argument"},
        std::tuple{"absent", ENOENT, "No such file or directory"}}) {
    EXPECT_TRUE(manager_.destinationOfSymbolicLinkAtURL(url(name), &error).isNil());
    expectPosixError(error, code, "Could not readlink " + (temp_ / name) + " : " + text,
                     "-[CVFileManager destinationOfSymbolicLinkAtURL:error:]");
  }
}

TEST_F(FileManagerTest, CreateDirectoryMakesTheLastWithModeAndClassOrNamesTheFailedStep) {
  CVError error = sentinelError();
  EXPECT_TRUE(manager_.createDirectoryAtURL(url("new/"), false, 0700, &error));
  EXPECT_EQ(permissionsOf(temp_ / "new"), 0700u);
  EXPECT_TRUE(manager_.createDirectoryAtURL(url("a/b/c/"), true, 0750, 4, &error));
  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(permissionsOf(temp_ / "a/b/c"), 0750u);
  EXPECT_EQ(permissionsOf(temp_ / "a/b") & 0700, 0700u);
  EXPECT_EQ(protectionClassOf(temp_ / "a/b/c"), 4);
  EXPECT_EQ(protectionClassOf(temp_ / "a/b"), std::nullopt);

  // An existing directory is success, keeps its mode and gets the class.
  makeDirectories(temp_ / "exists");
  ASSERT_EQ(::chmod((temp_ / "exists").c_str(), 0711), 0);
  for (const bool intermediates : {false, true})
    EXPECT_TRUE(manager_.createDirectoryAtURL(url("exists/"), intermediates, 0700, &error));
  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(protectionClassOf(temp_ / "exists"), std::nullopt);
  EXPECT_TRUE(manager_.createDirectoryAtURL(url("exists/"), true, 0700, 2, nullptr));
  EXPECT_EQ(protectionClassOf(temp_ / "exists"), 2);
  EXPECT_TRUE(manager_.createDirectoryAtURL(url("exists/"), false, 0700, 1, nullptr));
  EXPECT_EQ(protectionClassOf(temp_ / "exists"), 1);
  EXPECT_EQ(permissionsOf(temp_ / "exists"), 0711u);
  // An existing file counts as success too, as long as no class is asked for.
  writeFile(temp_ / "file", "");
  EXPECT_TRUE(manager_.createDirectoryAtURL(url("file"), false, 0755, nullptr));
  EXPECT_TRUE(manager_.createDirectoryAtURL(url("file"), true, 0755, nullptr));

  // (path, intermediates, class or 0, code, description); nothing is logged.
  for (const auto& [path, intermediates, protectionClass, code, description] :
       {std::tuple{"missing/new", false, 0, ENOENT,
                   "mkdir of " + (temp_ / "missing/new") + " failed: No such file or directory"},
        std::tuple{"file/sub/leaf", true, 0, ENOTDIR,
                   "spandirs of " + (temp_ / "file/sub/leaf") + " failed: Not a directory"},
        std::tuple{"file", true, 4, ENOTDIR,
                   "opendir of " + (temp_ / "file") + " failed: Not a directory"}}) {
    CapturedLog log(platform::installerLog());
    const CVURL url = temp_.directoryURL(path);
    EXPECT_FALSE(protectionClass ? manager_.createDirectoryAtURL(url, intermediates, 0755,
                                                                 protectionClass, &error)
                                 : manager_.createDirectoryAtURL(url, intermediates, 0755, &error));
    expectPosixError(
        error, code, description,
        "-[CVFileManager createDirectoryAtURL:withIntermediateDirectories:mode:class:error:]");
    EXPECT_EQ(log.count(), 0u) << log.dump();
  }
}

long numberAt(const CVError& error, std::string_view key) {
  const CVNumber* number = error.userInfo().findNumber(key);
  return number ? static_cast<long>(number->int64Value()) : -1;
}

TEST(ErrorBuildersTest, RecordsHoldDescriptionFunctionAndLineAndOnlyTheLoggingOneLogs) {
  CapturedLog log(platform::installerLog());
  const long plainLine = __LINE__ + 1;
  const CVError plain = CreateError("-[X y]", CVInstallerErrorDomain, 4, "made %d of %s", 7, "it");
  EXPECT_EQ(std::tuple(plain.domain(), plain.code(), plain.userInfo().count(),
                       plain.localizedDescription(), functionOf(plain)),
            std::tuple(std::string("CVInstallerErrorDomain"), 4, std::size_t{3},
                       std::string("made 7 of it"), std::string("-[X y]")));
  EXPECT_EQ(numberAt(plain, "SourceFileLine"), plainLine);
  EXPECT_EQ(log.count(), 0u) << log.dump();

  // The caller's function, line and description win over the given ones.
  const CVURL url = CVURL::fileURLWithPath("/var/x", false);
  const CVDictionary given{{"FunctionName", "-[Other method]"},
                           {"SourceFileLine", 1},
                           {std::string(kLocalizedDescriptionKey), "old text"},
                           {"PathArgument", url}};
  const long loggedLine = __LINE__ + 1;
  const CVError logged = CreateAndLogError("-[CVFileManager f]", kPOSIXErrorDomain, EIO, CVError(),
                                           &given, "new text for %@", url);
  expectPosixError(logged, EIO, "new text for file:///var/x", "-[CVFileManager f]");
  EXPECT_EQ(numberAt(logged, "SourceFileLine"), loggedLine);
  ASSERT_NE(logged.userInfo().find("PathArgument"), nullptr);
  EXPECT_EQ(*logged.userInfo().find("PathArgument"), CVValue(url));
  EXPECT_TRUE(logged.underlyingError().isNil());

  // An underlying record is kept and named in the line.
  const long outerLine = __LINE__ + 1;
  const CVError outer = CreateAndLogError("outer", "D", 24, plain, nullptr, "outer failed");
  EXPECT_EQ(outer.underlyingError(), plain);
  EXPECT_EQ(outer.userInfo().count(), 4u);  // description, underlying, function, line
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{
                std::to_string(loggedLine) + ": new text for file:///var/x",
                std::to_string(outerLine) + ": outer failed (" + plain.description() + ")"}));
  EXPECT_EQ(std::tuple(log.lines()[0].level, log.lines()[0].function),
            std::tuple(3, std::string("-[CVFileManager f]")));
}

std::uint64_t allocatedBytes(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

TEST_F(FileManagerTest, DiskUsageMatchesAnIndependentCountAndTracesWhatItSkips) {
  const std::string root = temp_ / "root";
  writeFile(root + "/small", std::string(10, 'x'));
  writeFile(root + "/a/medium", std::string(9000, 'x'));
  writeFile(root + "/a/b/c/large", std::string(200000, 'x'));
  writeFile(root + "/a/b/empty-file", "");
  makeSymlink(std::string(300, 'x'), root + "/a/long-link");  // a link with blocks of its own
  makeSymlink(temp_ / "elsewhere", root + "/a/b/link-to-outside");
  writeFile(temp_ / "elsewhere/big", std::string(500000, 'x'));  // reached only through a link
  ASSERT_EQ(::link((root + "/a/medium").c_str(), (root + "/a/b/c/medium-2").c_str()), 0);
  // A name inside for a file whose other name is outside counts in full.
  writeFile(temp_ / "outside", std::string(30000, 'x'));
  ASSERT_EQ(::link((temp_ / "outside").c_str(), (root + "/shared").c_str()), 0);
  makeDirectories(root + "/nested/empty");
  // A directory larger than one batch of entries is counted whole.
  std::uint64_t expected = 0;
  for (int i = 0; i < 1500; ++i) {
    const std::string path =
        root + "/batch/a-file-name-long-enough-to-fill-several-batches-" + std::to_string(i);
    writeFile(path, std::string(100, 'x'));
    expected += allocatedBytes(path);
  }
  for (const char* item :
       {"small", "a/medium", "a/b/c/large", "a/long-link", "a/b/link-to-outside", "shared"}) {
    expected += allocatedBytes(root + "/" + item);
  }
  CapturedLog log(platform::installerLog(), 7);

  EXPECT_EQ(manager_.diskUsageForURL(url("root/")), expected);
  // Breadth-first, "a" and "c" are read in either order; the second name met is
  // skipped.
  const bool skippedSecond =
      log.contains(7, "Skipping hardlinked file at " + root + "/a/b/c/medium-2");
  const bool skippedFirst = log.contains(7, "Skipping hardlinked file at " + root + "/a/medium");
  EXPECT_NE(skippedFirst, skippedSecond) << log.dump();
  EXPECT_TRUE(log.contains(7, "skipping empty directory at " + root + "/nested/empty"))
      << log.dump();
  EXPECT_EQ(log.count(), 2u) << log.dump();
  for (const auto& line : log.lines())
    EXPECT_EQ(line.function, "-[CVFileManager diskUsageForURL:]");
  // An empty root counts zero and is not traced itself.
  log.clear();
  EXPECT_EQ(manager_.diskUsageForURL(url("root/nested/empty/")), 0u);
  EXPECT_EQ(log.count(), 0u) << log.dump();

  // What is not a directory counts zero with a line; a link is not followed.
  log.clear();
  makeSymlink(root, temp_ / "link");
  for (const char* name : {"outside", "link", "absent"})
    EXPECT_EQ(manager_.diskUsageForURL(url(name)), 0u);
  EXPECT_EQ(manager_.diskUsageForURL(CVURL()), 0u);
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{
                "Failed to open directory " + (temp_ / "outside") + " : Not a directory",
                "Failed to open directory " + (temp_ / "link") + " : Not a directory",
                "Failed to open directory " + (temp_ / "absent") + " : No such file or directory",
                "Failed to get path to url (null)"}));
}

// captureStoreDataFromDirectory carries the four store data items only. A
// failure ("SorvikArtwork" blocked by a file) is logged and skipped unless
// fatal; fatal, it is code 24 with the item's legacy name, and the later
// items stay behind.
TEST_F(FileManagerTest, StoreDataIsCarriedAndFailuresLoggedAndSkippedUnlessFatal) {
  const auto capture = [&](bool doCopy, bool fatal, bool blocked, CVError* error,
                           bool storeData = true) {
    std::filesystem::remove_all(temp_ / "src");
    std::filesystem::remove_all(temp_ / "dst");
    makeDirectories(temp_ / "dst");
    writeFile(temp_ / "src/Other.plist", "not store data");
    if (storeData) {
      writeFile(temp_ / "src/Manifest.plist", "manifest");
      writeFile(temp_ / "src/SorvikArtwork/art.png", "art");
      writeFile(temp_ / "src/SorvikMetadata.plist", "metadata");
      writeFile(temp_ / "src/GeoJSON", "geo");
    }
    if (blocked) writeFile(temp_ / "dst/SorvikArtwork", "in the way");
    return manager_.captureStoreDataFromDirectory(url("src/"), url("dst/"), doCopy, fatal, error);
  };
  const std::vector<std::string> items{"GeoJSON", "Manifest.plist", "SorvikArtwork",
                                       "SorvikMetadata.plist"};
  for (const bool doCopy : {true, false}) {
    SCOPED_TRACE(doCopy ? "copy" : "move");
    CVError error = sentinelError();
    EXPECT_TRUE(capture(doCopy, true, false, &error));
    EXPECT_EQ(error, sentinelError());
    EXPECT_EQ(entriesOf(temp_ / "dst"), items);
    for (const auto& [item, content] :
         {std::pair{"Manifest.plist", "manifest"}, std::pair{"SorvikArtwork/art.png", "art"},
          std::pair{"SorvikMetadata.plist", "metadata"}, std::pair{"GeoJSON", "geo"}})
      EXPECT_EQ(readFile(temp_ / (std::string("dst/") + item)), content);
    EXPECT_EQ(entriesOf(temp_ / "src").size(), doCopy ? 5u : 1u);

    const std::string failure = std::string(doCopy ? "Failed to copy " : "Failed to move ") +
                                "file://" + (temp_ / "src/SorvikArtwork") + " to file://" +
                                (temp_ / "dst/SorvikArtwork");
    CapturedLog log(platform::installerLog());
    EXPECT_TRUE(capture(doCopy, false, true, &error));
    EXPECT_EQ(error, sentinelError());
    EXPECT_EQ(entriesOf(temp_ / "dst"), items);
    EXPECT_EQ(readFile(temp_ / "dst/SorvikArtwork"), "in the way");
    ASSERT_EQ(log.count(), 1u) << log.dump();
    EXPECT_TRUE(log.containsFragment(failure + " (Error Domain=")) << log.dump();
    EXPECT_EQ(log.lines()[0].function,
              "-[CVFileManager "
              "captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:withError:]");

    EXPECT_FALSE(capture(doCopy, true, true, &error));
    EXPECT_EQ(std::tuple(error.domain(), error.code(), error.localizedDescription()),
              std::tuple(std::string("CVInstallerErrorDomain"), 24, failure));
    ASSERT_NE(error.userInfo().findString("LegacyErrorString"), nullptr);
    EXPECT_EQ(*error.userInfo().findString("LegacyErrorString"), "SorvikArtworkCaptureFailed");
    EXPECT_TRUE(error.underlyingError().isPOSIX(doCopy ? EEXIST : ENOTDIR)) << error.description();
    EXPECT_EQ(entriesOf(temp_ / "dst"),
              (std::vector<std::string>{"Manifest.plist", "SorvikArtwork"}));
  }
  // A source without any of them: success, nothing made, nothing logged.
  CapturedLog log(platform::installerLog());
  for (const bool doCopy : {true, false}) {
    EXPECT_TRUE(capture(doCopy, true, false, nullptr, false));
    EXPECT_TRUE(entriesOf(temp_ / "dst").empty());
  }
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(FileManagerTest, ProtectionClassesAreSetWhenThePredicateAgrees) {
  writeFile(temp_ / "file", "x");
  makeDirectories(temp_ / "dir");
  const auto classOf = [&](const std::string& relative) {
    std::int32_t protectionClass = -100;
    CVError error;
    EXPECT_TRUE(manager_.dataProtectionClassOfItemAtURL(url(relative), &protectionClass, &error))
        << error.description();
    return protectionClass;
  };
  const auto setClass = [&](const char* name, std::int32_t value,
                            const std::function<bool(std::int32_t)>* predicate, CVError* error) {
    return manager_.setDataProtectionClassOfItemAtURL(url(name), value, predicate, error);
  };
  EXPECT_EQ(classOf("file"), 3);  // the default class of an item never set
  CVError error = sentinelError();
  EXPECT_TRUE(setClass("dir", 1, nullptr, &error));
  EXPECT_EQ(classOf("dir"), 1);
  EXPECT_TRUE(setClass("file", 2, nullptr, &error));
  std::int32_t seen = -1;
  using Predicate = std::function<bool(std::int32_t)>;
  const Predicate refuse = [&](std::int32_t current) { return seen = current, false; };
  const Predicate accept = [](std::int32_t current) { return current == 2; };
  EXPECT_TRUE(setClass("file", 4, &refuse, &error));
  EXPECT_EQ(seen, 2);
  EXPECT_EQ(classOf("file"), 2);
  EXPECT_TRUE(setClass("file", 4, &accept, &error));
  EXPECT_EQ(classOf("file"), 4);
  EXPECT_EQ(error, sentinelError());

  // Links are not followed, missing items not made; neither is logged.
  makeSymlink(temp_ / "dir", temp_ / "link");
  CapturedLog log(platform::installerLog());
  std::int32_t protectionClass = -100;
  EXPECT_FALSE(manager_.dataProtectionClassOfItemAtURL(url("link"), &protectionClass, &error));
  expectPosixError(error, ELOOP,
                   "Failed to open " + (temp_ / "link") + " : " + std::strerror(ELOOP),
                   "-[CVFileManager dataProtectionClassOfItemAtURL:class:error:]");
  EXPECT_EQ(protectionClass, -100);
  EXPECT_FALSE(setClass("absent", 2, nullptr, &error));
  expectPosixError(error, ENOENT,
                   "Failed to open " + (temp_ / "absent") + " : No such file or directory",
                   "-[CVFileManager setDataProtectionClassOfItemAtURL:toClass:ifPredicate:error:]");
  EXPECT_EQ(classOf("dir"), 1);
  makeImmutable(temp_ / "file");
  EXPECT_FALSE(setClass("file", 2, nullptr, &error));
  expectPosixError(
      error, EPERM,
      "Failed to setclass(2) on file " + (temp_ / "file") + ": Operation not permitted");

  // Without user attributes a class is accepted and kept nowhere.
  writeFile(temp_ / "plain", "x");
  const platform::sys::ScopedProtectionClassFault unsupported(EOPNOTSUPP);
  const Predicate atDefault = [](std::int32_t current) { return current == 3; };
  EXPECT_TRUE(setClass("plain", 1, &atDefault, &error)) << error.description();
  EXPECT_TRUE(manager_.createDirectoryAtURL(url("dir/sub"), true, 0755, 4, &error))
      << error.description();
  EXPECT_EQ(classOf("plain"), 3);
  EXPECT_EQ(classOf("dir/sub"), 3);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(FileManagerTest, PlaceholderMarkIsAFourByteAttribute) {
  const auto isPlaceholder = [&](const char* name) {
    return manager_.bundleAtURLIsPlaceholder(temp_.directoryURL(name));
  };
  makeDirectories(temp_ / "App.app");
  EXPECT_FALSE(isPlaceholder("App.app"));
  CVError error = sentinelError();
  EXPECT_TRUE(manager_.markBundleAsPlaceholder(url("App.app/"), &error));
  EXPECT_TRUE(manager_.markBundleAsPlaceholder(url("App.app/"), &error));
  EXPECT_EQ(error, sentinelError());
  EXPECT_TRUE(isPlaceholder("App.app"));
  std::array<std::byte, 4> value{};
  ASSERT_EQ(sys::readPlaceholderAttribute((temp_ / "App.app").c_str(), value), 4);
  EXPECT_EQ(std::bit_cast<std::uint32_t>(value), 1u);

  // Only the size counts, not what the attribute holds.
  makeDirectories(temp_ / "Long.app");
  makeDirectories(temp_ / "Zero.app");
  ASSERT_EQ(sys::writePlaceholderAttribute((temp_ / "Long.app").c_str(),
                                           std::array<std::byte, 8>{std::byte{1}}),
            0);
  ASSERT_EQ(
      sys::writePlaceholderAttribute((temp_ / "Zero.app").c_str(), std::array<std::byte, 4>{}), 0);
  EXPECT_FALSE(isPlaceholder("Long.app"));
  EXPECT_TRUE(isPlaceholder("Zero.app"));
  EXPECT_FALSE(isPlaceholder("Missing.app"));

  // A link is not followed (Linux refuses the attribute on it): code 4, logged.
  makeDirectories(temp_ / "Target.app");
  makeSymlink(temp_ / "Target.app", temp_ / "Link.app");
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(manager_.markBundleAsPlaceholder(url("Link.app/"), &error));
  const std::string description =
      "Could't set placeholder EA on \"" + (temp_ / "Link.app") + "\": " + std::strerror(EPERM);
  EXPECT_EQ(
      std::tuple(error.domain(), error.code(), error.localizedDescription(), functionOf(error)),
      std::tuple(std::string("CVInstallerErrorDomain"), 4, description,
                 std::string("-[CVFileManager markBundleAsPlaceholder:withError:]")));
  EXPECT_TRUE(error.underlyingError().isPOSIX(EPERM)) << error.description();
  ASSERT_EQ(log.count(), 1u) << log.dump();
  EXPECT_TRUE(log.containsFragment(": " + description)) << log.dump();
  EXPECT_FALSE(isPlaceholder("Target.app"));
  EXPECT_FALSE(manager_.markBundleAsPlaceholder(url("Missing.app/"), nullptr));
}

}  // namespace
