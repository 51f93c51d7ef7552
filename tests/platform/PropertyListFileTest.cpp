// Property-list files: what reading refuses and how the error records read,
// and the durable write.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

std::vector<std::string> entries(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

const CVDictionary kSample{{"BundleIdentifier", "com.example.app"}, {"Count", 3}};

void writeSample(const std::string& path) {
  writeFile(path, platform::encodeXMLPropertyList(CVValue(kSample)));
}

// The record's description names the file; a failed system call is the
// underlying error.
void expectReadFailure(const CVError& error, long code, const std::string& path,
                       int underlyingErrno) {
  EXPECT_EQ(error.domain(), kPlatformErrorDomain);
  EXPECT_EQ(error.code(), code) << error.description();
  EXPECT_NE(error.localizedDescription().find(path), std::string::npos) << error.description();
  if (underlyingErrno != 0) {
    EXPECT_TRUE(error.underlyingError().isPOSIX(underlyingErrno)) << error.description();
  } else {
    EXPECT_TRUE(error.underlyingError().isNil()) << error.description();
  }
}

TEST(PropertyListReadTest, ReadsADictionaryFile) {
  TemporaryDirectory directory;
  writeSample(directory / "sample.plist");
  CVError error;
  const auto dictionary =
      platform::readPropertyListDictionary(directory.fileURL("sample.plist"), &error);
  ASSERT_TRUE(dictionary) << error.description();
  EXPECT_EQ(*dictionary, kSample);
}

TEST(PropertyListReadTest, MissingFile) {
  TemporaryDirectory directory;
  CVError error;
  EXPECT_FALSE(platform::readPropertyList(directory.fileURL("absent.plist"), &error));
  expectReadFailure(error, kPlatformFileReadNoSuchFileError, directory / "absent.plist", ENOENT);
  EXPECT_EQ(error.localizedDescription(), "The property list at " + (directory / "absent.plist") +
                                              " could not be read: no such file");
}

TEST(PropertyListReadTest, WrongRootTypeIsAFailureToRead) {
  TemporaryDirectory directory;
  writeFile(directory / "array.plist", platform::encodeXMLPropertyList(CVValue(CVArray{1, 2})));
  writeFile(directory / "bool.plist", platform::encodeXMLPropertyList(CVValue(true)));
  CVError error;
  EXPECT_TRUE(platform::readPropertyList(directory.fileURL("array.plist"), &error));
  EXPECT_FALSE(platform::readPropertyListDictionary(directory.fileURL("array.plist"), &error));
  expectReadFailure(error, kPlatformPropertyListReadCorruptError, directory / "array.plist", 0);
  EXPECT_EQ(error.localizedDescription(),
            "The property list at " + (directory / "array.plist") +
                " could not be read: not a dictionary (the root is array)");
  EXPECT_FALSE(platform::readPropertyListDictionary(directory.fileURL("bool.plist"), &error));
  EXPECT_NE(error.localizedDescription().find("the root is boolean"), std::string::npos);
}

TEST(PropertyListReadTest, CorruptContents) {
  TemporaryDirectory directory;
  const std::string xml = platform::encodeXMLPropertyList(CVValue(kSample));
  writeFile(directory / "truncated.plist", xml.substr(0, xml.size() - 20));
  writeFile(directory / "garbage.plist", "\x89PNG\r\n\x1a\n not a property list at all");
  writeFile(directory / "empty.plist", "");
  writeFile(directory / "binary-header-only.plist", "bplist00");
  for (const char* name :
       {"truncated.plist", "garbage.plist", "empty.plist", "binary-header-only.plist"}) {
    CVError error;
    EXPECT_FALSE(platform::readPropertyListDictionary(directory.fileURL(name), &error)) << name;
    expectReadFailure(error, kPlatformPropertyListReadCorruptError, directory / name, 0);
  }
}

TEST(PropertyListReadTest, DirectoryIsRefused) {
  TemporaryDirectory directory;
  makeDirectories(directory / "folder.plist");
  CVError error;
  EXPECT_FALSE(platform::readPropertyList(directory.directoryURL("folder.plist"), &error));
  expectReadFailure(error, kPlatformFileReadUnknownError, directory / "folder.plist", EINVAL);
}

TEST(PropertyListReadTest, FinalSymlinkIsNotFollowed) {
  TemporaryDirectory directory;
  writeSample(directory / "real.plist");
  makeSymlink(directory / "real.plist", directory / "link.plist");
  CVError error;
  EXPECT_FALSE(platform::readPropertyList(directory.fileURL("link.plist"), &error));
  expectReadFailure(error, kPlatformFileReadUnknownError, directory / "link.plist", ELOOP);
  // Links earlier in the path are followed as usual.
  makeSymlink(directory.path(), directory / "alias");
  EXPECT_TRUE(platform::readPropertyList(directory.fileURL("alias/real.plist"), &error));
}

TEST(PropertyListReadTest, FIFOIsRefusedWithoutWaiting) {
  TemporaryDirectory directory;
  ASSERT_EQ(::mkfifo((directory / "fifo.plist").c_str(), 0644), 0);
  CVError error;
  EXPECT_FALSE(platform::readPropertyList(directory.fileURL("fifo.plist"), &error));
  expectReadFailure(error, kPlatformFileReadUnknownError, directory / "fifo.plist", EINVAL);
}

TEST(PropertyListReadTest, OversizeFileIsRefusedUnread) {
  TemporaryDirectory directory;
  const std::string path = directory / "huge.plist";
  writeFile(path, "<plist>");
  // Sparse: the size is over the cap without the disk space.
  ASSERT_EQ(::truncate(path.c_str(), platform::kMaxPropertyListFileSize + 1), 0);
  CVError error;
  EXPECT_FALSE(platform::readPropertyList(directory.fileURL("huge.plist"), &error));
  expectReadFailure(error, kPlatformFileReadUnknownError, path, EFBIG);
}

TEST(PropertyListReadTest, ListsBeyondTheLimitsOfTheirKindAreRefusedByName) {
  TemporaryDirectory directory;
  std::string manyObjects = "<plist><array>";
  for (std::uint64_t i = 0; i < platform::kMaxPropertyListObjects; ++i)
    manyObjects += "<dict/>";  // with the array, one object too many
  manyObjects += "</array></plist>";
  struct Case {
    std::string name;
    std::string contents;
    platform::PropertyListLimits limits;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {"objects.plist", manyObjects, platform::kAnyPropertyListLimits,
       "holds more than 262144 objects"},
      {"marker.plist", "<plist><array>" + std::string(2000, ' ') + "</array></plist>",
       platform::kMigrationMarkerLimits, ""},
      {"Info.plist", "<plist><string>" + std::string(1024 * 1024, 'x') + "</string></plist>",
       platform::kInfoPlistLimits, "larger than 1048576 bytes"},
      {"marker-objects.plist",
       [] {
         std::string list = "<plist><array>";
         for (int i = 0; i < 1024; ++i)
           list += "<true/>";
         return list + "</array></plist>";
       }(),
       platform::kMigrationMarkerLimits, "holds more than 1024 objects"},
  };
  for (const Case& each : cases) {
    writeFile(directory / each.name, each.contents);
    CVError error;
    const auto value =
        platform::readPropertyList(directory.fileURL(each.name), &error, each.limits);
    if (each.reason.empty()) {
      EXPECT_TRUE(value) << each.name << ": " << error.description();
      continue;
    }
    EXPECT_FALSE(value) << each.name;
    EXPECT_NE(error.localizedDescription().find(directory / each.name), std::string::npos)
        << error.description();
    EXPECT_NE(error.localizedDescription().find(each.reason), std::string::npos)
        << error.description();
  }
}

TEST(PropertyListReadTest, BinaryFilesAreRecognisedByTheirMagic) {
  TemporaryDirectory directory;
  // "bplist00" followed by garbage is a broken binary list, not XML.
  writeFile(directory / "broken.plist", std::string("bplist00") + std::string(64, '\x01'));
  CVError error;
  EXPECT_FALSE(platform::readPropertyList(directory.fileURL("broken.plist"), &error));
  EXPECT_NE(error.localizedDescription().find("binary"), std::string::npos) << error.description();
}

TEST(PropertyListWriteTest, WritesAtomicallyAndReadsBack) {
  TemporaryDirectory directory;
  const CVURL url = directory.fileURL("out.plist");
  writeFile(url.path(), "old contents");
  CVError error;
  ASSERT_TRUE(platform::writePropertyListAtomically(CVValue(kSample), url, &error))
      << error.description();
  const auto read = platform::readPropertyListDictionary(url, &error);
  ASSERT_TRUE(read) << error.description();
  EXPECT_EQ(*read, kSample);
  EXPECT_EQ(entries(directory.path()), std::vector<std::string>{"out.plist"});
}

TEST(PropertyListWriteTest, MissingDirectoryFailsWithUnderlyingError) {
  TemporaryDirectory directory;
  CVError error;
  EXPECT_FALSE(platform::writePropertyListAtomically(CVValue(kSample),
                                                     directory.fileURL("no/out.plist"), &error));
  EXPECT_EQ(error.domain(), kPlatformErrorDomain);
  EXPECT_EQ(error.code(), kPlatformFileWriteUnknownError);
  EXPECT_TRUE(error.underlyingError().isPOSIX(ENOENT)) << error.description();
  EXPECT_NE(error.localizedDescription().find(directory / "no/out.plist"), std::string::npos);
  EXPECT_FALSE(pathExists(directory / "no"));
}

TEST(PropertyListWriteTest, DirectoryAtTheTargetIsLeftIntact) {
  TemporaryDirectory directory;
  makeDirectories(directory / "out.plist");
  writeFile(directory / "out.plist/inside", "kept");
  CVError error;
  EXPECT_FALSE(platform::writePropertyListAtomically(CVValue(kSample),
                                                     directory.fileURL("out.plist"), &error));
  EXPECT_EQ(error.code(), kPlatformFileWriteUnknownError);
  EXPECT_EQ(readFile(directory / "out.plist/inside"), "kept");
  EXPECT_EQ(entries(directory.path()), std::vector<std::string>{"out.plist"});
}

TEST(PropertyListWriteTest, OverlyDeepValueIsRefusedAndNothingWritten) {
  TemporaryDirectory directory;
  CVValue deep = CVArray{};
  for (std::size_t i = 0; i < platform::kMaxPropertyListDepth; ++i)
    deep = CVArray{deep};
  CVError error;
  EXPECT_FALSE(
      platform::writePropertyListAtomically(deep, directory.fileURL("deep.plist"), &error));
  EXPECT_EQ(error.code(), kPlatformFileWriteUnknownError);
  EXPECT_TRUE(entries(directory.path()).empty());
}

}  // namespace
