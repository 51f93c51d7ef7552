// Property lists written by other libraries: binary and XML twins must read
// alike, known values must come out right, and nothing in the suites
// (including fuzzer finds) may crash the reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "platform/PropertyList.h"

namespace {

const std::string kSuite = std::string(MAVREL_TESTDATA_DIR) + "/plist/suite";

std::optional<CVValue> readSuiteFile(const std::string& relative, CVError* error = nullptr) {
  return platform::readPropertyList(CVURL::fileURLWithPath(kSuite + "/" + relative, false), error);
}

CVValue readValid(const std::string& relative) {
  CVError error;
  auto value = readSuiteFile(relative, &error);
  EXPECT_TRUE(value) << relative << ": " << error.description();
  return value ? *value : CVValue();
}

std::vector<std::string> filesUnder(const std::string& relative) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(kSuite + "/" + relative)) {
    if (entry.is_regular_file()) files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

TEST(PropertyListSuiteTest, BinaryAndXMLTwinsReadAlike) {
  const std::vector<std::pair<std::string, std::string>> twins = {
      {"cpython/TESTDATA_FMT_BINARY.plist", "cpython/TESTDATA_FMT_XML.plist"},
      {"dd-plist/test1-binary.plist", "dd-plist/test1.plist"},
      {"dd-plist/testNegative-bin.plist", "dd-plist/testNegative-xml.plist"},
      {"dd-plist/infinity-binary.plist", "dd-plist/infinity-xml.plist"},
      {"dd-plist/issue22-emoji.plist", "dd-plist/issue22-emoji-xml.plist"},
      {"libplist/signed.bplist", "libplist/signed.plist"},
      {"libplist/unsigned.bplist", "libplist/unsigned.plist"},
      {"libplist/signedunsigned.bplist", "libplist/signedunsigned.plist"},
      {"libplist/order.bplist", "libplist/order.plist"},
      {"node-bplist-parser/int64.bplist", "node-bplist-parser/int64.xml"},
  };
  // Dictionary equality ignores order: different writers order keys
  // differently.
  for (const auto& [binary, xml] : twins) {
    const CVValue fromBinary = readValid(binary);
    const CVValue fromXML = readValid(xml);
    EXPECT_FALSE(fromBinary.isNull()) << binary;
    EXPECT_EQ(fromBinary, fromXML) << binary << " vs " << xml << "\n"
                                   << fromBinary.description() << "\n"
                                   << fromXML.description();
  }
}

TEST(PropertyListSuiteTest, ValidBinaryListsOfOtherWritersAreRead) {
  for (const char* relative :
       {"cpython/TESTDATA_FMT_BINARY.plist", "dd-plist/test1-binary.plist",
        "dd-plist/testNegative-bin.plist", "dd-plist/infinity-binary.plist",
        "dd-plist/issue16.plist", "dd-plist/issue22-emoji.plist",
        "dd-plist/test-gzipinputstream-issue.plist", "biplist/data/simple_binary.plist",
        "biplist/data/large_int_limits.plist", "biplist/data/unicode_root.plist",
        "node-bplist-parser/airplay.bplist", "rust-plist/binary.plist",
        "rust-plist/utf16_bplist.plist", "libplist/off8bytes.bplist",
        "libplist/dictref8bytes.bplist"}) {
    EXPECT_FALSE(readValid(relative).isNull()) << relative;
  }
}

TEST(PropertyListSuiteTest, CPythonValuesComeOutRight) {
  const CVValue value = readValid("cpython/TESTDATA_FMT_BINARY.plist");
  const CVDictionary* root = value.asDictionary();
  ASSERT_NE(root, nullptr);
  ASSERT_NE(root->findNumber("aBigInt2"), nullptr);
  EXPECT_EQ(root->findNumber("aBigInt2")->uint64Value(), 9223372036854775852ull);
  EXPECT_EQ(root->findNumber("aNegativeBigInt")->int64Value(), -80000000000);
  ASSERT_NE(root->find("aDate"), nullptr);
  EXPECT_EQ(*root->find("aDate"), CVValue(CVDate{1098786813}));  // 2004-10-26T10:33:33Z
  const CVDictionary* inner = root->findDictionary("aDict");
  ASSERT_NE(inner, nullptr);
  EXPECT_TRUE(inner->find("aFalseValue")->isBooleanFalse());
  EXPECT_TRUE(inner->find("aTrueValue")->isBooleanTrue());
  EXPECT_EQ(*inner->findString("aUnicodeValue"), "M\xc3\xa4ssig, Ma\xc3\x9f");
  EXPECT_EQ(*inner->findString("anotherString"), "<hello & 'hi' there!>");
  ASSERT_NE(root->find("someData"), nullptr);
  const std::string someData = "<binary gunk>";
  EXPECT_EQ(*root->find("someData"), CVValue(CVData(someData.begin(), someData.end())));
  EXPECT_EQ(root->findNumber("aFloat")->doubleValue(), 0.5);
  EXPECT_TRUE(root->findNumber("aFloat")->isReal());
}

TEST(PropertyListSuiteTest, NegativeAndLargeUnsignedIntegersStayApart) {
  const CVValue value = readValid("libplist/signedunsigned.bplist");
  EXPECT_EQ(value, CVValue(CVArray{
                       -1,
                       CVNumber::unsignedInteger(std::numeric_limits<std::uint64_t>::max()),
                       std::numeric_limits<std::int64_t>::max(),
                       std::numeric_limits<std::int64_t>::min(),
                       CVNumber::unsignedInteger(std::uint64_t{1} << 63),
                   }))
      << value.description();
}

TEST(PropertyListSuiteTest, DictionaryKeysKeepTheirFileOrder) {
  // Both files list "test" before "foo", against alphabetical order.
  for (const char* relative : {"libplist/order.plist", "libplist/order.bplist"}) {
    const CVValue order = readValid(relative);
    ASSERT_TRUE(order.asDictionary()) << relative;
    EXPECT_EQ(order.asDictionary()->keys(), (std::vector<std::string>{"test", "foo"})) << relative;
  }

  const CVValue value = readValid("rust-plist/xml.plist");
  ASSERT_TRUE(value.asDictionary());
  const auto& keys = value.asDictionary()->keys();
  ASSERT_GE(keys.size(), 3u);
  EXPECT_EQ(keys[0], "Author");
  EXPECT_EQ(keys[1], "Lines");
  EXPECT_EQ(keys[2], "Death");
}

TEST(PropertyListSuiteTest, UIDsReadAsKeyedArchiveReferences) {
  EXPECT_EQ(readValid("libplist/uid.bplist"),
            CVValue(CVDictionary{{"CF$UID", CVValue(CVNumber::integer(7))}}));
}

TEST(PropertyListSuiteTest, KnownBrokenFilesAreRefused) {
  for (const char* relative :
       {"libplist/recursion.bplist", "libplist/invalid_tag.plist",
        "rust-plist/binary_circular_array.plist", "rust-plist/binary_zero_offset_size.plist",
        "rust-plist/xml_error.plist", "biplist/data/invalid_object_offset_size.plist",
        "biplist/data/invalid_object_ref_size.plist", "biplist/data/empty_file.plist",
        "biplist/data/bogus_file.plist", "dd-plist/test-xml-utf-16le-bom.plist"}) {
    CVError error;
    EXPECT_FALSE(readSuiteFile(relative, &error)) << relative;
    EXPECT_EQ(error.code(), kPlatformPropertyListReadCorruptError) << relative;
  }
}

TEST(PropertyListSuiteTest, DictionaryKeysThatAreNotStringsAreCarried) {
  // libplist refuses this file; its dictionary keys include an array.
  const CVValue value = readValid("libplist/malformed_dict.bplist");
  ASSERT_TRUE(value.asDictionary());
  EXPECT_GT(value.asDictionary()->nonStringKeyCount(), 0u) << value.description();
}

// Every file of the suites, fuzzer finds included: a value or a failure that
// names the file, and never a crash (the suites run under the sanitizers).
void expectEveryFileReadsSafely(const std::string& relative) {
  const std::vector<std::string> files = filesUnder(relative);
  ASSERT_FALSE(files.empty()) << relative;
  for (const std::string& path : files) {
    SCOPED_TRACE(path);
    CVError error;
    const auto value = platform::readPropertyList(CVURL::fileURLWithPath(path, false), &error);
    if (!value) {
      EXPECT_EQ(error.domain(), kPlatformErrorDomain);
      EXPECT_NE(error.localizedDescription().find(path), std::string::npos);
    }
  }
}

TEST(PropertyListSuiteTest, LibplistSuiteReadsWithoutCrashing) {
  expectEveryFileReadsSafely("libplist");
}

TEST(PropertyListSuiteTest, BiplistSuiteReadsWithoutCrashing) {
  expectEveryFileReadsSafely("biplist");
  for (const std::string& path : filesUnder("biplist/fuzz_data")) {
    EXPECT_FALSE(platform::readPropertyList(CVURL::fileURLWithPath(path, false), nullptr)) << path;
  }
}

TEST(PropertyListSuiteTest, OtherSuitesReadWithoutCrashing) {
  expectEveryFileReadsSafely("dd-plist");
  expectEveryFileReadsSafely("rust-plist");
  expectEveryFileReadsSafely("node-bplist-parser");
  expectEveryFileReadsSafely("cpython");
}

}  // namespace
