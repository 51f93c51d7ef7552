// Property-list files: what reading refuses and the error records it gives
// (code, exact text, underlying error), and the durable write.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

const CVDictionary kSample{{"BundleIdentifier", "com.example.app"}, {"Count", 3}};

std::vector<std::string> entries(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

TEST(PropertyListReadTest, RefusedFilesAreNamedWithTheirReason) {
  TemporaryDirectory directory;
  const std::string xml = platform::encodeXMLPropertyList(CVValue(kSample));
  writeFile(directory / "sample.plist", xml);
  writeFile(directory / "array.plist", platform::encodeXMLPropertyList(CVValue(CVArray{1, 2})));
  writeFile(directory / "bool.plist", platform::encodeXMLPropertyList(CVValue(true)));
  writeFile(directory / "truncated.plist", xml.substr(0, xml.size() - 20));
  writeFile(directory / "empty.plist", "");
  writeFile(directory / "broken.plist", std::string("bplist00") + std::string(64, '\x01'));
  makeDirectories(directory / "folder.plist");
  makeSymlink(directory / "sample.plist", directory / "link.plist");
  ASSERT_EQ(::mkfifo((directory / "fifo.plist").c_str(), 0644), 0);
  writeFile(directory / "huge.plist", "<plist>");
  // Sparse: the size is over the cap without the disk space.
  ASSERT_EQ(::truncate((directory / "huge.plist").c_str(), platform::kMaxPropertyListFileSize + 1),
            0);
  struct Case {
    const char* name;
    bool dictionary;  // read with readPropertyListDictionary
    long code;
    int underlying;  // errno of the failed system call, or 0
    std::string reason;
  };
  const long corrupt = kPlatformPropertyListReadCorruptError;
  const long unknown = kPlatformFileReadUnknownError;
  const std::vector<Case> cases = {
      {"absent.plist", false, kPlatformFileReadNoSuchFileError, ENOENT, "no such file"},
      {"array.plist", true, corrupt, 0, "not a dictionary (the root is array)"},
      {"bool.plist", true, corrupt, 0, "not a dictionary (the root is boolean)"},
      {"truncated.plist", true, corrupt, 0, "not a valid XML property list (unterminated tag)"},
      {"empty.plist", true, corrupt, 0, "the data is empty"},
      {"broken.plist", false, corrupt, 0,
       "not a valid binary property list (invalid binary property list trailer)"},
      {"folder.plist", false, unknown, EINVAL, "not a regular file"},
      {"link.plist", false, unknown, ELOOP, "it is a symbolic link"},
      {"fifo.plist", false, unknown, EINVAL, "not a regular file"},
      {"huge.plist", false, unknown, EFBIG, "larger than 8388608 bytes"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    const CVURL url = directory.fileURL(each.name);
    CVError error;
    EXPECT_FALSE(each.dictionary ? platform::readPropertyListDictionary(url, &error).has_value()
                                 : platform::readPropertyList(url, &error).has_value());
    EXPECT_EQ(error.domain(), kPlatformErrorDomain);
    EXPECT_EQ(error.code(), each.code) << error.description();
    EXPECT_EQ(error.localizedDescription(), "The property list at " + (directory / each.name) +
                                                " could not be read: " + each.reason);
    if (each.underlying != 0) {
      EXPECT_TRUE(error.underlyingError().isPOSIX(each.underlying)) << error.description();
    } else {
      EXPECT_TRUE(error.underlyingError().isNil()) << error.description();
    }
  }
  // What is read: a dictionary file, and one behind a link earlier in the path.
  makeSymlink(directory.path(), directory / "alias");
  const auto read =
      platform::readPropertyListDictionary(directory.fileURL("alias/sample.plist"), nullptr);
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, kSample);
}

TEST(PropertyListReadTest, EachKindOfListHasItsOwnLimits) {
  TemporaryDirectory directory;
  const auto many = [](std::uint64_t count, const char* element) {
    std::string list = "<plist><array>";
    for (std::uint64_t i = 0; i < count; ++i)
      list += element;
    return list + "</array></plist>";
  };
  // (file, limits, reason or "" when read)
  const std::vector<std::tuple<std::string, platform::PropertyListLimits, std::string>> cases = {
      {many(platform::kMaxPropertyListObjects, "<dict/>"), platform::kAnyPropertyListLimits,
       "the property list holds more than 262144 objects"},
      {"<plist><string>" + std::string(1024 * 1024, 'x') + "</string></plist>",
       platform::kInfoPlistLimits, "larger than 1048576 bytes"},
      {many(1024, "<true/>"), platform::kMigrationMarkerLimits,
       "the property list holds more than 1024 objects"},
  };
  for (const auto& [contents, limits, reason] : cases) {
    writeFile(directory / "list.plist", contents);
    CVError error;
    const auto value = platform::readPropertyList(directory.fileURL("list.plist"), &error, limits);
    EXPECT_EQ(value.has_value(), reason.empty()) << reason << error.description();
    if (!reason.empty()) {
      EXPECT_EQ(error.localizedDescription(), "The property list at " + (directory / "list.plist") +
                                                  " could not be read: " + reason);
    }
  }
}

TEST(PropertyListWriteTest, WritesAtomicallyAndLeavesNothingWhenItFails) {
  TemporaryDirectory directory;
  const CVURL url = directory.fileURL("out.plist");
  writeFile(url.path(), "old contents");
  CVError error;
  ASSERT_TRUE(platform::writePropertyListAtomically(CVValue(kSample), url, &error))
      << error.description();
  EXPECT_EQ(platform::readPropertyListDictionary(url, nullptr), kSample);
  EXPECT_EQ(entries(directory.path()), std::vector<std::string>{"out.plist"});

  makeDirectories(directory / "dir.plist");
  writeFile(directory / "dir.plist/inside", "kept");
  CVValue deep = CVArray{};
  for (std::size_t i = 0; i < platform::kMaxPropertyListDepth; ++i)
    deep = CVArray{deep};
  // (value, target, underlying errno or 0)
  const std::vector<std::tuple<CVValue, std::string, int>> cases = {
      {CVValue(kSample), "no/out.plist", ENOENT},
      {CVValue(kSample), "dir.plist", 0},
      {deep, "deep.plist", 0},
  };
  for (const auto& [value, name, underlying] : cases) {
    EXPECT_FALSE(platform::writePropertyListAtomically(value, directory.fileURL(name), &error));
    EXPECT_EQ(error.domain(), kPlatformErrorDomain) << name;
    EXPECT_EQ(error.code(), kPlatformFileWriteUnknownError) << name;
    EXPECT_NE(error.localizedDescription().find(directory / name), std::string::npos) << name;
    EXPECT_TRUE(underlying == 0 || error.underlyingError().isPOSIX(underlying)) << name;
  }
  EXPECT_EQ(readFile(directory / "dir.plist/inside"), "kept");
  EXPECT_EQ(entries(directory.path()), (std::vector<std::string>{"dir.plist", "out.plist"}));
}

}  // namespace
