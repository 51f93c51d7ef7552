// The preferences store: typed values per key and domain, kept durably, and
// never replacing a file it could not read. The device's system version
// dictionary, read from its file on every call.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/Preferences.h"
#include "platform/PropertyList.h"
#include "platform/SystemVersion.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using platform::kPreferencesAnyHost;
using platform::kPreferencesAnyUser;
using platform::kPreferencesCurrentHost;
using platform::kPreferencesCurrentUser;
using platform::PreferencesStore;
using namespace testing_support;

constexpr std::string_view kDomain = "com.zentrel.corvane";

class PreferencesTest : public ::testing::Test {
 protected:
  std::optional<CVValue> copy(const PreferencesStore& store, std::string_view key,
                              std::string_view domain = kDomain) {
    return store.copyValue(key, domain, kPreferencesCurrentUser, kPreferencesCurrentHost);
  }
  bool set(std::string_view key, std::optional<CVValue> value, std::string_view domain = kDomain) {
    return store_.setValue(key, std::move(value), domain, kPreferencesCurrentUser,
                           kPreferencesCurrentHost);
  }
  std::string domainPath() const { return home_ / "Library/Preferences/com.zentrel.corvane.plist"; }

  TemporaryDirectory home_;
  PreferencesStore store_{home_.url()};
};

TEST_F(PreferencesTest, ValuesKeepTheirTypesInAPlainFileOfTheDomain) {
  EXPECT_EQ(store_.fileURLForDomain(kDomain), CVURL::fileURLWithPath(domainPath(), false));
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(copy(store_, "absent"));
  EXPECT_TRUE(set("absent", std::nullopt));
  EXPECT_FALSE(pathExists(home_ / "Library"));  // reading and removing create nothing
  EXPECT_EQ(log.count(), 0u) << log.dump();
  const CVDictionary values{{"false", false},
                            {"one", 1},
                            {"real", 2.5},
                            {"string", "YES"},
                            {"data", CVData{0, 1}},
                            {"date", CVDate{1500000000}},
                            {"array", CVArray{1, "two"}},
                            {"dictionary", CVDictionary{{"nested", false}}},
                            {"removed", 3}};
  for (std::size_t i = 0; i < values.count(); ++i)
    ASSERT_TRUE(set(values.keys()[i], values.valueAt(i))) << values.keys()[i];
  ASSERT_TRUE(set("one", CVValue(1)));
  ASSERT_TRUE(set("removed", std::nullopt));

  const mode_t mask = ::umask(0);
  ::umask(mask);
  struct stat status {};
  ASSERT_EQ(::stat((home_ / "Library/Preferences").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0755u & ~mask);
  CVDictionary expected = values;
  expected.remove("removed");
  EXPECT_EQ(
      platform::readPropertyListDictionary(CVURL::fileURLWithPath(domainPath(), false), nullptr),
      expected);
  const PreferencesStore fresh(home_.url());
  for (std::size_t i = 0; i < expected.count(); ++i)
    EXPECT_EQ(copy(fresh, expected.keys()[i]), expected.valueAt(i)) << expected.keys()[i];
}

// A file that cannot be read is never replaced; each refusal is one error line.
TEST_F(PreferencesTest, FilesItCannotReadAreNeverReplaced) {
  for (const std::string& contents : {std::string("<?xml version=\"1.0\"?><plist><dict><key>Lost"),
                                      platform::encodeXMLPropertyList(CVValue(CVArray{"kept"}))}) {
    writeFile(domainPath(), contents);
    CapturedLog log(platform::installerLog());
    EXPECT_FALSE(set("key", CVValue(true)));
    EXPECT_FALSE(copy(store_, "key"));
    EXPECT_EQ(readFile(domainPath()), contents);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u) << log.dump();
    EXPECT_EQ(std::tuple(lines[0].level, lines[0].function, lines[1].level, lines[1].function),
              std::tuple(platform::kLogLevelError, std::string("PreferencesStore::setValue"),
                         platform::kLogLevelError, std::string("PreferencesStore::copyValue")));
    EXPECT_NE(lines[0].message.find(domainPath()), std::string::npos) << lines[0].message;
  }
}

TEST_F(PreferencesTest, OtherUsersHostsAndDomainsThatNameOtherFilesAreRefused) {
  ASSERT_TRUE(set("key", CVValue(1)));
  CapturedLog log(platform::installerLog());
  for (const auto& [user, host] : {std::pair{kPreferencesAnyUser, kPreferencesCurrentHost},
                                   std::pair{kPreferencesCurrentUser, kPreferencesAnyHost}}) {
    EXPECT_FALSE(store_.copyValue("key", kDomain, user, host));
    EXPECT_FALSE(store_.setValue("key", CVValue(2), kDomain, user, host));
  }
  EXPECT_EQ(log.count(), 2u) << log.dump();
  EXPECT_EQ(copy(store_, "key"), CVValue(1));
  for (const char* domain : {"../escape", "a/b", "", ".."}) {
    EXPECT_FALSE(set("key", CVValue(1), domain)) << domain;
    EXPECT_FALSE(copy(store_, "key", domain)) << domain;
  }
  EXPECT_FALSE(pathExists(home_ / "Library/escape.plist"));
  EXPECT_FALSE(pathExists(home_ / "escape.plist"));
}

TEST_F(PreferencesTest, ADirectoryThatCannotBeMadeFailsWithALogLine) {
  writeFile(home_ / "Library", "a file where a directory belongs");
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(set("key", CVValue(1)));
  ASSERT_EQ(log.count(), 1u) << log.dump();
  EXPECT_EQ(log.lines()[0].function, "PreferencesStore::setValue");
  EXPECT_EQ(readFile(home_ / "Library"), "a file where a directory belongs");

  std::filesystem::remove(home_ / "Library");
  makeDirectories(home_ / "Library");
  if (runProgram("chattr", {"+i", home_ / "Library"}).exitCode != 0)
    GTEST_SKIP() << "chattr +i unsupported here";
  log.clear();
  EXPECT_FALSE(set("key", CVValue(1)));
  ASSERT_EQ(log.count(), 1u) << log.dump();
  EXPECT_EQ(log.lines()[0].level, platform::kLogLevelError);
  EXPECT_TRUE(log.containsFragment("Failed to create preferences directory " +
                                   (home_ / "Library/Preferences")))
      << log.dump();
}

TEST_F(PreferencesTest, ConcurrentSettersLoseNoUpdate) {
  const auto key = [](int thread, int i) {
    return "thread" + std::to_string(thread) + "-" + std::to_string(i);
  };
  std::vector<std::jthread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i)
        set(key(t, i), CVValue(i));
    });
  }
  threads.clear();  // joins both
  const PreferencesStore fresh(home_.url());
  for (int t = 0; t < 2; ++t) {
    for (int i = 0; i < 25; ++i)
      EXPECT_EQ(copy(fresh, key(t, i)), CVValue(i));
  }
}

class SystemVersionTest : public ::testing::Test {
 protected:
  std::string versionPath() const {
    return root_ / "System/Library/CoreServices/SystemBuild.plist";
  }
  TemporaryDirectory root_;
  platform::DeviceSystemVersion version_{root_.url()};
};

TEST_F(SystemVersionTest, ThePresentFileIsReadWholeOnEveryCall) {
  EXPECT_EQ(version_.fileURL(), CVURL::fileURLWithPath(versionPath(), false));
  const CVDictionary contents{{"ProductBuildVersion", "x"},
                              {std::string(platform::kSystemBuildVersionKey), "21A329"}};
  writeFile(versionPath(), platform::encodeXMLPropertyList(CVValue(contents)));
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(version_.copySystemVersionDictionary().keys(), contents.keys());
  const CVDictionary next{{"SystemBuildVersion", "2B2"}};
  writeFile(versionPath(), platform::encodeXMLPropertyList(CVValue(next)));
  EXPECT_EQ(version_.copySystemVersionDictionary(), next);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

// What cannot be read gives an empty dictionary and one line: (file contents,
// or none; level; message start).
TEST_F(SystemVersionTest, UnreadableFilesGiveAnEmptyDictionaryAndOneLine) {
  const std::string failed = "Failed to read system version from " + versionPath() + " : ";
  const std::vector<std::tuple<std::optional<std::string>, int, std::string>> cases = {
      {std::nullopt, platform::kLogLevelNotice, "No system version file at " + versionPath()},
      {"<plist><dict><key>SystemBuildVersion</key>", platform::kLogLevelError, failed},
      {platform::encodeXMLPropertyList(CVValue(CVArray{"21A329"})), platform::kLogLevelError,
       failed}};
  for (const auto& [contents, level, message] : cases) {
    if (contents) writeFile(versionPath(), *contents);
    CapturedLog log(platform::installerLog());
    EXPECT_TRUE(version_.copySystemVersionDictionary().empty());
    ASSERT_EQ(log.count(), 1u) << log.dump();
    EXPECT_EQ(log.lines()[0].level, level);
    EXPECT_EQ(log.lines()[0].message.rfind(message, 0), 0u) << log.dump();
  }
}

}  // namespace
