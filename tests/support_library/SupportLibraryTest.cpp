// The support library's readers: loosely typed values, paths as bytes and ".."
// screening, file digests, and bundles' Info.plist files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/Bundle.h"
#include "platform/Log.h"
#include "platform/linux/FileDescriptor.h"
#include "shared/support/CVFileDigest.h"
#include "shared/support/CVFileDigestTesting.h"
#include "shared/support/CVInfoPlist.h"
#include "shared/support/CVValueHelpers.h"
#include "shared/support/CorvaneAdditions.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/DeviceImage.h"

namespace {

using Kind = CVValue::Kind;
using CorvaneAdditions::containsDotDotPathComponents;
using CorvaneAdditions::stringWithFileSystemRepresentation;
using platform::kLogLevelDebug;
using platform::kLogLevelError;
using namespace testing_support;

TEST(ValueHelpersTest, StringifyGivesStringsUnformattedAndOtherObjectsTheirDescription) {
  EXPECT_EQ(CVStringifyObject(nullptr), std::nullopt);
  EXPECT_EQ(CVStringifyObject(CVValue()), std::nullopt);
  // A string must not go through the formatter: its "%@" stays as written.
  EXPECT_EQ(CVStringifyObject(CVValue("100%@ sure")), "100%@ sure");
  EXPECT_EQ(CVStringifyObject(CVValue("")), "");
  const CVValue dictionary = CVDictionary{{"ContainerType", "App"}, {"List", CVArray{"a", 1}}};
  EXPECT_EQ(CVStringifyObject(dictionary), dictionary.description());
  EXPECT_EQ(CVStringifyObject(CVValue(42)), "42");
  EXPECT_EQ(CVStringifyObject(CVURL::fileURLWithPath("/var/mobile", true)), "file:///var/mobile/");
}

TEST(ValueHelpersTest, ArrayContainsOnlyClassCountsBooleansAsNumbers) {
  for (const auto& [array, kind, expected] :
       {std::tuple{CVArray{}, Kind::String, true}, std::tuple{CVArray{}, Kind::Dictionary, true},
        std::tuple{CVArray{1, true, 2.5, false}, Kind::Number, true},
        std::tuple{CVArray{true}, Kind::String, false},
        std::tuple{CVArray{"a", "b", "c"}, Kind::String, true},
        std::tuple{CVArray{1, "a"}, Kind::Number, false},
        std::tuple{CVArray{"a", "b", 3}, Kind::String, false},
        std::tuple{CVArray{CVValue(), "a"}, Kind::String, false}}) {
    EXPECT_EQ(CVArrayContainsOnlyClass(array, kind), expected) << CVValue(array).description();
  }
}

// Only numbers are read as booleans; strings never are, whatever they say.
TEST(ValueHelpersTest, BooleanValueReadsNumbersAndGivesTheDefaultOtherwise) {
  for (const bool fallback : {false, true}) {
    for (const CVValue& truthy : {CVValue(true), CVValue(7), CVValue(0.5)})
      EXPECT_TRUE(CVBooleanValue(truthy, fallback)) << truthy.description();
    for (const CVValue& falsy : {CVValue(false), CVValue(0)})
      EXPECT_FALSE(CVBooleanValue(falsy, fallback)) << falsy.description();
    EXPECT_EQ(CVBooleanValue(nullptr, fallback), fallback);
    for (const CVValue& other : {CVValue(), CVValue("true"), CVValue("NO"), CVValue(CVArray{true}),
                                 CVValue(CVDictionary{{"a", true}})})
      EXPECT_EQ(CVBooleanValue(other, fallback), fallback) << other.description();
  }
}

TEST(ValueHelpersTest, ArrayifyWrapsOneObjectKeepsUniformArraysAndSetsAndRefusesTheRest) {
  const CVDictionary info{{"a", 1}};
  const CVArray nested{CVArray{1}, CVArray{2}};
  const CVSet set{1, 2};
  const std::vector<std::tuple<CVValue, Kind, std::optional<CVArray>>> cases = {
      {CVValue(), Kind::Null, std::nullopt},
      {CVValue("com.example.app"), Kind::String, CVArray{"com.example.app"}},
      {CVValue(true), Kind::Number, CVArray{true}},
      {CVValue(info), Kind::Dictionary, CVArray{info}},
      {CVValue("1"), Kind::Number, std::nullopt},
      {CVValue(info), Kind::String, std::nullopt},
      {CVValue(CVArray{"b", "a"}), Kind::String, CVArray{"b", "a"}},
      {CVValue(CVArray{}), Kind::String, CVArray{}},
      {CVValue(CVArray{"a", 1}), Kind::String, std::nullopt},
      // An array is never wrapped, even when arrays are what is asked for.
      {CVValue(nested), Kind::Array, nested},
      {CVValue(CVArray{1, 2}), Kind::Array, std::nullopt},
      {CVValue(CVSet{"z", "a", "m"}), Kind::String, CVArray{"z", "a", "m"}},
      {CVValue(CVSet{"a", 1}), Kind::String, std::nullopt},
      // Asked for sets, a set is an object of the class itself and gets wrapped.
      {CVValue(set), Kind::Set, CVArray{set}},
  };
  EXPECT_EQ(CVArrayifyThing(nullptr, Kind::String), std::nullopt);
  for (const auto& [value, kind, expected] : cases)
    EXPECT_EQ(CVArrayifyThing(value, kind), expected) << value.description();
}

std::optional<std::string> decode(std::string_view bytes) {
  // An exactly sized copy without terminator: reading past it is an
  // AddressSanitizer report.
  const auto buffer = std::make_unique<char[]>(bytes.size() + 1);
  std::memcpy(buffer.get(), bytes.data(), bytes.size());
  return stringWithFileSystemRepresentation(buffer.get(), bytes.size());
}

TEST(CorvaneAdditionsTest, OnlyWholeParentComponentsCountAsDotDot) {
  for (const char* path : {"a/../b", "../x", "..", "/..", "/a/b/..", "a/b/../", "a//..//b"})
    EXPECT_TRUE(containsDotDotPathComponents(path)) << path;
  for (const char* path :
       {"a/..b", "a/.../b", "a/./b", "", "/", "..a", "b..", "a/b.. /c", ". ./a", "a/.", "./."})
    EXPECT_FALSE(containsDotDotPathComponents(path)) << path;
}

TEST(FileSystemRepresentationTest, WellFormedTextDecodesAndIllFormedBytesAreRejected) {
  for (const char* text : {"Documents/Inbox", "caf\xC3\xA9", "\xE6\x97\xA5\xE6\x9C\xAC",
                           "\xF0\x9F\x93\x81",  // U+1F4C1
                           "\xF4\x8F\xBF\xBF",  // U+10FFFF, the last one
                           "\xEF\xBF\xBD",      // U+FFFD
                           "\xED\x9F\xBF",      // U+D7FF, just below surrogates
                           ""})
    EXPECT_EQ(decode(text), text);
  const char* const illFormed[] = {
      "\xC0\xAF",          // overlong "/"
      "\xC1\xBF",          // overlong lead
      "\xE0\x80\xAF",      // overlong "/" in three bytes
      "\xE0\x9F\xBF",      // overlong U+07FF
      "\xF0\x8F\xBF\xBF",  // overlong U+FFFF
      "\xED\xA0\x80",      // high surrogate
      "\xED\xBF\xBF",      // low surrogate
      "\xF4\x90\x80\x80",  // U+110000
      "\xF5\x80\x80\x80",  // lead beyond the range
      "\xFF",
      "\x80",  // stray continuation
      "a\xBF",
      "\xE6\x97",      // truncated at the end
      "\xE6\x41\x97",  // continuation replaced by ASCII
      "\xC3",
  };
  for (const char* bytes : illFormed) {
    SCOPED_TRACE(testing::PrintToString(std::string(bytes)));
    EXPECT_EQ(decode(bytes), std::nullopt);
    EXPECT_EQ(stringWithFileSystemRepresentation(bytes), std::nullopt);
  }
}

// Exactly the given length is decoded; the terminated form stops at the NUL.
TEST(FileSystemRepresentationTest, LengthAndTerminatorBoundTheText) {
  EXPECT_EQ(stringWithFileSystemRepresentation("Library/Caches", 7), "Library");
  // The cut lands inside "é": what is left is a truncated sequence.
  EXPECT_EQ(stringWithFileSystemRepresentation("caf\xC3\xA9", 4), std::nullopt);
  // Bytes beyond the length do not matter, even ill-formed ones.
  EXPECT_EQ(stringWithFileSystemRepresentation("ok\xFF", 2), "ok");
  EXPECT_EQ(decode(std::string_view("a\0b", 3)), std::nullopt);
  EXPECT_EQ(decode(std::string_view("\0", 1)), std::nullopt);
  EXPECT_EQ(stringWithFileSystemRepresentation("tmp/a"), "tmp/a");
  EXPECT_EQ(stringWithFileSystemRepresentation(""), "");
  EXPECT_EQ(stringWithFileSystemRepresentation(nullptr), std::nullopt);
  EXPECT_EQ(stringWithFileSystemRepresentation(nullptr, 0), "");
  EXPECT_EQ(stringWithFileSystemRepresentation(nullptr, 3), std::nullopt);
}

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes)
    byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}

std::string sha256sum(const std::string& path, const std::string& scratch) {
  return runProgram("sha256sum", {path}, scratch).out.substr(0, 64);
}

// Records what the reader does and lets a test act right after the size is
// taken; installed for its lifetime.
class RecordingObserver : public CVReadFileObserver {
 public:
  RecordingObserver() : previous_(CVSetReadFileObserverForTesting(this)) {}
  ~RecordingObserver() override { CVSetReadFileObserverForTesting(previous_); }
  void afterStat(const char* path) override {
    if (onStat) onStat(path);
  }
  void afterRead(std::size_t wanted, ssize_t got) override {
    requested.push_back(wanted);
    received.push_back(got);
  }
  std::function<void(const char*)> onStat;
  std::vector<std::size_t> requested;
  std::vector<ssize_t> received;

 private:
  CVReadFileObserver* previous_;
};

// Every chunk is hashed (checked against the system's sha256sum), none is
// read of an empty file. A file already open keeps its descriptor: closing it
// would make the caller's own close hit whatever file took the number next.
TEST(FileDigestTest, ReadsInChunksOfAtMost64KiBAndLeavesAnOpenFileToTheCaller) {
  TemporaryDirectory directory;
  const std::string path = directory / "chunks";
  const std::vector<std::pair<std::size_t, std::vector<std::size_t>>> cases = {
      {0, {}},
      {1, {1}},
      {65'535, {65'535}},
      {65'536, {65'536}},
      {65'537, {65'536, 1}},
      {3 * 65'536 + 5, {65'536, 65'536, 65'536, 5}}};
  for (const auto& [size, reads] : cases) {
    writeFile(path, randomBytes(size, 1));
    RecordingObserver observer;
    CapturedLog log(platform::installerLog());
    EXPECT_EQ(CVCreateSHA256Digest(path), sha256sum(path, directory.path())) << size;
    EXPECT_EQ(observer.requested, reads) << size;
    EXPECT_EQ(log.count(), 0U) << log.dump();
  }
  const platform::sys::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(fd);
  EXPECT_EQ(CVCreateSHA256DigestOfOpenFile(fd.get(), path), sha256sum(path, directory.path()));
  EXPECT_NE(::fcntl(fd.get(), F_GETFD), -1) << "the caller's descriptor was closed";
}

TEST(FileDigestTest, BytesAppendedDuringTheReadAreNotHashed) {
  TemporaryDirectory directory;
  const std::string path = directory / "growing";
  writeFile(path, randomBytes(100'000, 3));
  const std::string expected = sha256sum(path, directory.path());
  RecordingObserver observer;
  observer.onStat = [](const char* statPath) {
    std::ofstream(statPath, std::ios::app | std::ios::binary) << std::string(70'000, 'x');
  };
  EXPECT_EQ(CVCreateSHA256Digest(path), expected);
  EXPECT_EQ(observer.requested, (std::vector<std::size_t>{65'536, 34'464}));
}

TEST(FileDigestTest, EveryFailedReadIsNoDigestAndTwoLines) {
  TemporaryDirectory directory;
  const std::string absent = directory / "absent", folder = directory / "folder",
                    shrinking = directory / "shrinking", prefix = directory / "prefix";
  writeFile(folder + "/entry", "x");  // a directory with an entry reports a nonzero size
  writeFile(shrinking, randomBytes(200'000, 1));
  writeFile(prefix, "ten bytes.");
  struct Case {
    std::string path;
    std::vector<std::pair<std::string, std::string>> lines;  // (function, message start)
  };
  const std::vector<Case> cases = {
      {absent,
       {{"_ReadFile", "failed to open " + absent + " : No such file or directory"},
        {"CVCreateSHA256Digest", "Failed to read " + absent + " : No such file or directory"}}},
      {folder,
       {{"_ReadFile", "read failed for " + folder + " : Is a directory"},
        {"CVCreateSHA256Digest", "Failed to read " + folder + " : Is a directory"}}},
      // Cut to 70,000 bytes after its size was taken: two chunks hold what is
      // left, the third read finds nothing.
      {shrinking,
       {{"_ReadFile", "read failed for " + shrinking + ", got 0 bytes"},
        {"CVCreateSHA256Digest", "Failed to read " + shrinking + " : "}}},
      // Without the check, the path would be cut at the NUL and name "prefix".
      {prefix + std::string(1, '\0') + "rest", {{"CVCreateSHA256Digest", ""}}},
  };
  for (const Case& each : cases) {
    RecordingObserver observer;
    if (each.path == shrinking)
      observer.onStat = [](const char* path) { ASSERT_EQ(::truncate(path, 70'000), 0); };
    CapturedLog log(platform::installerLog());
    EXPECT_EQ(CVCreateSHA256Digest(each.path), std::nullopt) << each.path;
    const std::vector<CapturedLine> lines = log.lines();
    ASSERT_EQ(lines.size(), each.lines.size()) << log.dump();
    for (std::size_t i = 0; i < lines.size(); ++i) {
      EXPECT_EQ(lines[i].level, kLogLevelError);
      EXPECT_EQ(lines[i].function, each.lines[i].first);
      EXPECT_EQ(lines[i].message.rfind(each.lines[i].second, 0), 0U) << log.dump();
    }
    if (each.path == shrinking) {
      EXPECT_EQ(observer.received, (std::vector<ssize_t>{65'536, 4'464, 0}));
    }
    if (each.path.find('\0') != std::string::npos) {
      EXPECT_NE(lines.at(0).message.find(" : Invalid argument"), std::string::npos);
    }
  }
}

class InfoPlistTest : public ::testing::Test {
 protected:
  CVURL bundleURL(std::string_view name) const {
    return CVURL::fileURLWithPath(image_.rootPath() + "/" + std::string(name), true);
  }
  DeviceImage image_;
};

// The whole read has no bookkeeping entry (the platform's own read does carry
// one); a filtered read keeps only the keys that exist; a bundle replaced on
// disk is read anew.
TEST_F(InfoPlistTest, WholeAndFilteredReads) {
  const CVDictionary info{{"QXBundleIdentifier", "com.example.foo"},
                          {"QXBundleExecutable", "Foo"},
                          {"QXBundleIconFiles", CVArray{"Icon", "Icon@2x"}}};
  image_.writeBundle(bundleURL("Foo.app").path(), info);
  EXPECT_EQ(CVLoadInfoPlist(bundleURL("Foo.app"), nullptr), info);
  const auto bundle = platform::Bundle::create(bundleURL("Foo.app"));
  ASSERT_NE(bundle, nullptr);
  EXPECT_TRUE(bundle->infoDictionary()->contains("QXBundleInfoPlistURL"));

  const CVSet keys{"QXBundleIdentifier", "QXBundleVersion"}, absent{"Nothing"};
  EXPECT_EQ(CVLoadInfoPlist(bundleURL("Foo.app"), &keys),
            (CVDictionary{{"QXBundleIdentifier", "com.example.foo"}}));
  EXPECT_EQ(CVLoadInfoPlist(bundleURL("Foo.app"), &absent), CVDictionary{});

  image_.writeBundle(bundleURL("Foo.app").path(), "com.example.new");
  EXPECT_EQ(*CVLoadInfoPlist(bundleURL("Foo.app"), nullptr)->findString("QXBundleIdentifier"),
            "com.example.new");
}

TEST_F(InfoPlistTest, MissingInfoPlistIsOnlyATrace) {
  makeDirectories(bundleURL("Bare.app").path());
  {
    CapturedLog log(platform::installerLog());
    EXPECT_FALSE(CVLoadInfoPlist(bundleURL("Bare.app"), nullptr).has_value());
    EXPECT_EQ(log.count(), 0u) << log.dump();
  }
  CapturedLog verbose(platform::installerLog(), kLogLevelDebug);
  EXPECT_FALSE(CVLoadInfoPlist(bundleURL("Bare.app"), nullptr).has_value());
  ASSERT_EQ(verbose.count(), 1u);
  EXPECT_TRUE(verbose.contains(kLogLevelDebug, "Missing Info.plist at file://" +
                                                   bundleURL("Bare.app").path() + "/Info.plist"));
  EXPECT_EQ(verbose.lines()[0].function, "CVLoadInfoPlist");
}

TEST_F(InfoPlistTest, HostileInfoPlistsYieldNothingWithAReason) {
  const std::string base = image_.rootPath();
  // In place of the file: a directory, and a link out of the bundle.
  makeDirectories(base + "/Directory.app/Info.plist");
  writeFile(base + "/outside.plist",
            "<?xml version=\"1.0\"?><plist><dict><key>QXBundleIdentifier</key>"
            "<string>com.example.linked</string></dict></plist>");
  makeDirectories(base + "/Link.app");
  makeSymlink(base + "/outside.plist", base + "/Link.app/Info.plist");
  const std::pair<const char*, std::string> cases[] = {
      {"Garbage.app", "\x01\x02 not a plist"},
      {"Truncated.app", "<?xml version=\"1.0\"?><plist><dict><key>"},
      {"BadOffsets.app", "bplist00\x51\x61" + std::string(26, '\xff')},
      {"ArrayRoot.app", "<?xml version=\"1.0\"?><plist><array><string>x</string></array></plist>"},
      {"Directory.app", ""},
      {"Link.app", ""},
  };
  for (const auto& [name, contents] : cases) {
    if (!contents.empty()) writeFile(base + "/" + name + "/Info.plist", contents);
    CapturedLog log(platform::installerLog());
    EXPECT_FALSE(CVLoadInfoPlist(bundleURL(name), nullptr).has_value()) << name;
    ASSERT_EQ(log.count(), 1u) << name << log.dump();
    EXPECT_TRUE(log.containsFragment("QXBundleGetInfoDictionary failed for bundle"))
        << name << log.dump();
    const CVSet keys{"QXBundleIdentifier"};
    EXPECT_FALSE(CVLoadInfoPlist(bundleURL(name), &keys).has_value()) << name;
  }
  // A bundle that is itself a link is refused before its Info.plist is read.
  image_.writeBundle(base + "/Real.app", "com.example.real");
  makeSymlink(base + "/Real.app", base + "/Linked.app");
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(CVLoadInfoPlist(bundleURL("Linked.app"), nullptr).has_value());
  EXPECT_TRUE(log.contains(kLogLevelError,
                           "Failed to create QXBundle from URL file://" + base + "/Linked.app/"))
      << log.dump();
}

}  // namespace
