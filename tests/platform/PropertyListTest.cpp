// Property lists: what our XML writer makes of every kind; input built to
// break a reader (deep nesting, shared subtrees, cycles, bad offsets,
// truncation, garbage), each refused with its reason; the files reading
// refuses and the error records it gives (code, exact text, underlying error);
// and the durable write. Beneath them, whole-file reads and atomic writes on a
// real disk: what is refused, what is left behind on failure, and that no
// descriptor leaks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/FileIO.h"
#include "platform/PropertyList.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

std::optional<CVValue> parse(std::span<const std::uint8_t> bytes, CVError* error = nullptr) {
  return platform::parsePropertyList(bytes, error);
}

std::optional<CVValue> roundTrip(const CVValue& value) {
  CVError error;
  auto result = parse(bytesOf(platform::encodeXMLPropertyList(value)), &error);
  EXPECT_TRUE(result.has_value()) << error.description();
  return result;
}

CVValue nestedArrays(std::size_t depth) {
  CVValue value = "bottom";
  for (std::size_t i = 0; i < depth; ++i)
    value = CVArray{value};
  return value;
}

std::string nestedXMLArrays(std::size_t depth) {
  std::string open, close;
  for (std::size_t i = 0; i < depth; ++i) {
    open += "<array>";
    close += "</array>";
  }
  return "<?xml version=\"1.0\"?>\n<plist>" + open + "<string>bottom</string>" + close + "</plist>";
}

// Binary arrays `depth` deep, each holding the next `width` times; the
// innermost holds a string.
Bytes nestedBinaryArrays(std::size_t depth, std::size_t width = 1) {
  BinaryPlistBuilder builder;
  std::vector<std::uint32_t> arrays;
  for (std::size_t i = 0; i < depth; ++i)
    arrays.push_back(builder.reserve());
  const std::uint32_t leaf = builder.addASCIIString("bottom");
  for (std::size_t i = 0; i < depth; ++i)
    builder.setArray(arrays[i],
                     std::vector<std::uint32_t>(width, i + 1 < depth ? arrays[i + 1] : leaf));
  return builder.build(arrays.front());
}

TEST(PropertyListRoundTripTest, EveryKindSurvivesOurXMLAndOtherValuesTakeTheirNearestForm) {
  const CVDictionary original{
      {"zeta string", "<markup> & \"quotes\" ]]>"},
      {"unicode", "M\xc3\xa4ssig, Ma\xc3\x9f \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x9a\x80"},
      {"zero", 0},
      {"int64 min", std::numeric_limits<std::int64_t>::min()},
      {"uint64 max", CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max())},
      {"whole real", 42.0},
      {"false", false},
      {"data", CVData{0, 0xff, '<', '&', ']'}},
      {"moon landing", CVDate{-14182940}},  // before the libplist reference date
      {"after 2069", CVDate{4102444800}},   // beyond 32 bits from 2001
      {"nested", CVArray{CVDictionary{{"k", CVArray{1, "two", CVArray{}}}}, true}},
      {"alpha", "keys keep their order"},
  };
  const auto result = roundTrip(CVValue(original));
  ASSERT_TRUE(result && result->asDictionary());
  const CVDictionary& read = *result->asDictionary();
  EXPECT_EQ(read, original) << read.description();
  EXPECT_EQ(read.keys(), original.keys());
  // Equality tells booleans from numbers, but not a real from an integer of its value.
  EXPECT_TRUE(read.findNumber("whole real")->isReal());
  EXPECT_EQ(read.findNumber("uint64 max")->type(), CVNumber::Type::UnsignedInteger);

  // Sets become arrays, URLs and errors their descriptions, and dates keep
  // whole seconds only.
  const CVError error("SomeDomain", 3);
  EXPECT_EQ(roundTrip(CVValue(CVArray{CVSet{1, "two"},
                                      CVURL::fileURLWithPath("/var/mobile/Applications", true),
                                      CVURL(), nullptr, error, CVDate{1000000000.75}})),
            CVValue(CVArray{CVArray{1, "two"}, "file:///var/mobile/Applications/", "(null)",
                            "(null)", error.description(), CVDate{1000000000}}));
  // A value nested deeper than a reader accepts is not written at all.
  EXPECT_TRUE(
      platform::encodeXMLPropertyList(nestedArrays(platform::kMaxPropertyListDepth + 1)).empty());
  EXPECT_FALSE(
      platform::encodeXMLPropertyList(nestedArrays(platform::kMaxPropertyListDepth - 1)).empty());
}

TEST(PropertyListHostileInputTest, WhatIsWithinTheLimitsIsRead) {
  const std::size_t limit = platform::kMaxPropertyListDepth;
  // A key that is not a string is carried, in the file's order, and never written.
  BinaryPlistBuilder oddKeys;
  const std::uint32_t root = oddKeys.reserve();
  const std::uint32_t one = oddKeys.addInteger(1);
  const std::uint32_t nameKey = oddKeys.addASCIIString("name");
  const std::uint32_t kept = oddKeys.addASCIIString("kept");
  oddKeys.setDictionary(root, {one, nameKey}, {kept, kept});
  const CVArray pair{"bottom", "bottom"};
  const std::vector<std::tuple<const char*, Bytes, CVValue>> cases = {
      {"XML at the depth limit", bytesOf(nestedXMLArrays(limit)), nestedArrays(limit)},
      {"binary at the depth limit", nestedBinaryArrays(limit), nestedArrays(limit)},
      {"shared subtrees within bounds", nestedBinaryArrays(2, 2), CVArray{pair, pair}},
      {"comments and CDATA",
       bytesOf("<plist><!-- a <comment> --><dict><key>k</key>"
               "<string><![CDATA[x<y]]></string></dict></plist>"),
       CVDictionary{{"k", "x<y"}}},
  };
  for (const auto& [name, bytes, expected] : cases) {
    CVError error;
    const auto value = parse(bytes, &error);
    ASSERT_TRUE(value) << name << ": " << error.description();
    EXPECT_EQ(*value, expected) << name;
  }
  const auto odd = parse(oddKeys.build(root));
  ASSERT_TRUE(odd && odd->asDictionary());
  EXPECT_EQ(*odd->asDictionary()->findString("name"), "kept");
  ASSERT_EQ(odd->asDictionary()->nonStringKeyCount(), 1u);
  EXPECT_EQ(odd->asDictionary()->nonStringKeyAt(0), CVValue(1));
  EXPECT_EQ(roundTrip(*odd), CVValue(CVDictionary{{"name", "kept"}}));

  // Success leaves the caller's error alone; no place for an error is no crash.
  CVError untouched("Marker", 1);
  ASSERT_TRUE(parse(bytesOf(platform::encodeXMLPropertyList(CVValue(1))), &untouched));
  EXPECT_EQ(untouched.domain(), "Marker");
  EXPECT_FALSE(parse(bytesOf("junk"), nullptr));
}

TEST(PropertyListHostileInputTest, HostileInputIsRefusedWithItsReason) {
  const std::size_t limit = platform::kMaxPropertyListDepth;
  BinaryPlistBuilder cycle;
  const std::uint32_t first = cycle.reserve(), second = cycle.reserve();
  cycle.setArray(first, {second});
  cycle.setArray(second, {first});
  BinaryPlistBuilder outside;
  const std::uint32_t root = outside.reserve();
  outside.setArray(root, {7});
  const std::string xml = platform::encodeXMLPropertyList(CVValue(CVDictionary{{"k", "v"}}));
  const Bytes binary = nestedBinaryArrays(1);
  Bytes noise;
  for (int i = 0; i < 4096; ++i)
    noise.push_back(static_cast<std::uint8_t>(i * 7919 % 251));
  Bytes binaryNoise = bytesOf("bplist00");
  binaryNoise.insert(binaryNoise.end(), noise.begin(), noise.end());
  const std::vector<std::tuple<const char*, Bytes, std::string>> cases = {
      {"XML too deep", bytesOf(nestedXMLArrays(limit + 1)),
       "not a valid XML property list (nested too deeply)"},
      {"XML far too deep", bytesOf(nestedXMLArrays(200000)),
       "not a valid XML property list (nested too deeply)"},
      {"binary too deep", nestedBinaryArrays(limit + 1),
       "not a valid binary property list (nested too deeply)"},
      {"2^64 nodes once expanded", nestedBinaryArrays(64, 2),
       "the property list holds more than 262144 objects"},
      {"cycle", cycle.build(first),
       "not a valid binary property list (contains a reference cycle)"},
      {"reference outside the table", outside.build(root),
       "not a valid binary property list (object reference outside the object table)"},
      {"XML cut in half", bytesOf(xml.substr(0, xml.size() / 2)),
       "not a valid XML property list (unterminated tag)"},
      {"unterminated comment", bytesOf("<plist><!-- no end <string/></plist>"),
       "not a valid XML property list (unterminated comment)"},
      {"mismatched end tag", bytesOf("<plist><dict><key>a</key></array></plist>"),
       "not a valid XML property list (mismatched end tag)"},
      {"binary without its last byte", Bytes(binary.begin(), binary.end() - 1),
       "not a valid binary property list (invalid binary property list trailer)"},
      {"binary cut to its header", Bytes(binary.begin(), binary.begin() + 8),
       "not a valid binary property list (truncated binary property list)"},
      {"empty", Bytes{}, "the data is empty"},
      {"text", bytesOf("this is not a property list"), "not a valid XML property list"},
      {"noise", noise, "not a valid XML property list (contains NUL bytes (not UTF-8 XML))"},
      {"binary noise", binaryNoise,
       "not a valid binary property list (invalid binary property list trailer)"},
  };
  for (const auto& [name, bytes, reason] : cases) {
    CVError error;
    EXPECT_FALSE(parse(bytes, &error)) << name;
    EXPECT_EQ(error.domain(), kPlatformErrorDomain) << name;
    EXPECT_EQ(error.code(), kPlatformPropertyListReadCorruptError) << name;
    EXPECT_EQ(error.localizedDescription(),
              "The data could not be read as a property list: " + reason)
        << name;
  }
}

// Integers another writer stored in binary keep their sign and width.
TEST(PropertyListHostileInputTest, OtherWritersIntegersKeepTheirSignAndWidth) {
  const std::string path = MAVREL_TESTDATA_DIR "/plist/suite/libplist/signedunsigned.bplist";
  EXPECT_EQ(platform::readPropertyList(CVURL::fileURLWithPath(path, false), nullptr),
            CVValue(CVArray{
                -1, CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max()),
                std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min(),
                CVNumber::unsignedInteger(std::uint64_t{1} << 63)}));
}

const CVDictionary kSample{{"BundleIdentifier", "com.example.app"}, {"Count", 3}};

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
  const long corrupt = kPlatformPropertyListReadCorruptError;
  const long unknown = kPlatformFileReadUnknownError;
  // (file, read with readPropertyListDictionary, code, errno of the failed
  // system call or 0, reason)
  const std::vector<std::tuple<const char*, bool, long, int, std::string>> cases = {
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
  for (const auto& [name, dictionary, code, underlying, reason] : cases) {
    SCOPED_TRACE(name);
    const CVURL url = directory.fileURL(name);
    CVError error;
    EXPECT_FALSE(dictionary ? platform::readPropertyListDictionary(url, &error).has_value()
                            : platform::readPropertyList(url, &error).has_value());
    EXPECT_EQ(std::pair(error.domain(), error.code()),
              std::pair(std::string(kPlatformErrorDomain), code));
    EXPECT_EQ(error.localizedDescription(),
              "The property list at " + (directory / name) + " could not be read: " + reason);
    EXPECT_TRUE(underlying ? error.underlyingError().isPOSIX(underlying)
                           : error.underlyingError().isNil())
        << error.description();
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
  // (file, limits, reason it is refused)
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
    EXPECT_FALSE(platform::readPropertyList(directory.fileURL("list.plist"), &error, limits))
        << reason;
    EXPECT_EQ(error.localizedDescription(), "The property list at " + (directory / "list.plist") +
                                                " could not be read: " + reason);
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
  EXPECT_EQ(entriesOf(directory.path()), std::vector<std::string>{"out.plist"});

  makeDirectories(directory / "dir.plist");
  writeFile(directory / "dir.plist/inside", "kept");
  const CVValue deep = nestedArrays(platform::kMaxPropertyListDepth + 1);
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
  EXPECT_EQ(entriesOf(directory.path()), (std::vector<std::string>{"dir.plist", "out.plist"}));
}

bool makeImmutable(const std::string& path) {
  return runProgram("chattr", {"+i", path}).exitCode == 0;
}

TEST(FileIOReadTest, ReadsExactBytesUpToAnInclusiveCap) {
  TemporaryDirectory directory;
  const std::string contents("with\0nul\nand more", 17);
  std::string large;
  for (int i = 0; large.size() < 3 * 1024 * 1024; ++i)
    large += std::to_string(i) + ",";
  for (const auto& [name, text, cap] :
       {std::tuple{"file", contents, 1024}, std::tuple{"large", large, 8 << 20},
        std::tuple{"ten", std::string("0123456789"), 10}}) {
    writeFile(directory / name, text);
    CVError error;
    const auto bytes = platform::readFileContents(directory.fileURL(name), cap, &error);
    ASSERT_TRUE(bytes) << name << ": " << error.description();
    EXPECT_TRUE(std::string(bytes->begin(), bytes->end()) == text) << name;
  }
  // The refusals by kind are checked through the property-list reader, which
  // names them; here the cap: inclusive, and one byte over is EFBIG.
  CVError error;
  EXPECT_FALSE(platform::readFileContents(directory.fileURL("ten"), 9, &error));
  EXPECT_TRUE(error.isPOSIX(EFBIG)) << error.description();
  platform::readFileContents(directory.fileURL("absent"), 10, &error);
  EXPECT_EQ(error.localizedDescription(),
            "open of " + (directory / "absent") + " failed: No such file or directory");
}

TEST(FileIOAtomicWriteTest, CreatesAndReplacesReadableByAllWithoutLeftovers) {
  TemporaryDirectory directory;
  const CVURL target = directory.fileURL("file.plist");
  // What a process killed between writing and renaming leaves, older than this
  // process; and look-alikes that are not aside files of this target.
  for (const char* name : {".file.plist.0123456789abcdef.tmp", ".other.plist.0123456789abcdef.tmp",
                           ".file.plist.tmp"}) {
    writeFile(directory / name, "left behind");
    const struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (directory / name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  const mode_t previous = ::umask(022);
  for (const std::string text : {"first", "second, longer", ""}) {
    ASSERT_TRUE(platform::writeFileAtomically(target, bytesOf(text), nullptr));
    EXPECT_EQ(readFile(target.path()), text);
  }
  ::umask(previous);
  struct stat status {};
  ASSERT_EQ(::stat(target.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(entriesOf(directory.path()),
            (std::vector<std::string>{".file.plist.tmp", ".other.plist.0123456789abcdef.tmp",
                                      "file.plist"}));
  // A link is replaced, not followed.
  writeFile(directory / "elsewhere", "keep me");
  makeSymlink(directory / "elsewhere", directory / "link");
  ASSERT_TRUE(platform::writeFileAtomically(directory.fileURL("link"), bytesOf("new"), nullptr));
  EXPECT_EQ(readFile(directory / "elsewhere"), "keep me");
  ASSERT_EQ(::lstat((directory / "link").c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(readFile(directory / "link"), "new");
}

TEST(FileIOAtomicWriteTest, FailedWritesLeaveTheTargetAndNoAsideFile) {
  TemporaryDirectory directory;
  writeFile(directory / "target", "old");
  writeFile(directory / "locked/target", "old");
  // A missing directory and a directory in the way: PropertyListWriteTest.
  // A child with a tiny file-size limit: the write stops short, then fails
  // with EFBIG.
  const CVURL target = directory.fileURL("target");
  EXPECT_EQ(runInChild([&target] {
              ::signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{16, 16};
              ::setrlimit(RLIMIT_FSIZE, &limit);
              CVError childError;
              const bool written = platform::writeFileAtomically(
                  target, bytesOf(std::string(4096, 'x')), &childError);
              return written ? 1 : childError.isPOSIX(EFBIG) ? 0 : 2;
            }),
            0)
      << "1: the write succeeded; 2: another error";
  if (makeImmutable(directory / "target") && makeImmutable(directory / "locked")) {
    CVError error;
    EXPECT_FALSE(platform::writeFileAtomically(target, bytesOf("new"), &error));
    EXPECT_TRUE(error.isPOSIX(EPERM)) << error.description();
    EXPECT_FALSE(
        platform::writeFileAtomically(directory.fileURL("locked/target"), bytesOf("new"), nullptr));
  }
  EXPECT_EQ(readFile(directory / "target"), "old");
  EXPECT_EQ(readFile(directory / "locked/target"), "old");
  EXPECT_EQ(entriesOf(directory / "locked"), std::vector<std::string>{"target"});
  EXPECT_EQ(entriesOf(directory.path()), (std::vector<std::string>{"locked", "target"}));
}

TEST(FileIODescriptorTest, NoDescriptorLeaksOnAnyPath) {
  TemporaryDirectory directory;
  writeFile(directory / "file", "0123456789");
  makeDirectories(directory / "subdirectory");
  makeDirectories(directory / "target-directory");
  ASSERT_EQ(::mkfifo((directory / "fifo").c_str(), 0644), 0);
  const std::size_t before = entriesOf("/proc/self/fd").size();
  for (int i = 0; i < 5; ++i) {
    platform::readFileContents(directory.fileURL("file"), 100, nullptr);
    platform::readFileContents(directory.fileURL("file"), 5, nullptr);
    platform::readFileContents(directory.directoryURL("subdirectory"), 100, nullptr);
    platform::readFileContents(directory.fileURL("fifo"), 100, nullptr);
    platform::writeFileAtomically(directory.fileURL("written"), bytesOf("x"), nullptr);
    platform::writeFileAtomically(directory.fileURL("target-directory"), bytesOf("x"), nullptr);
  }
  EXPECT_EQ(entriesOf("/proc/self/fd").size(), before);
}

}  // namespace
