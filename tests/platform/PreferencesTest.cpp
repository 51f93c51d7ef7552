// The preferences store: typed values per key and domain, kept durably, and
// never replacing a file it could not read.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/Preferences.h"
#include "platform/PropertyList.h"
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
  std::optional<CVValue> copy(const PreferencesStore& store, std::string_view key) {
    return store.copyValue(key, kDomain, kPreferencesCurrentUser, kPreferencesCurrentHost);
  }
  bool set(PreferencesStore& store, std::string_view key, std::optional<CVValue> value) {
    return store.setValue(key, std::move(value), kDomain, kPreferencesCurrentUser,
                          kPreferencesCurrentHost);
  }
  std::string domainPath() const { return home_ / "Library/Preferences/com.zentrel.corvane.plist"; }

  TemporaryDirectory home_;
  PreferencesStore store_{home_.url()};
};

TEST_F(PreferencesTest, DomainFileLocation) {
  EXPECT_EQ(store_.fileURLForDomain(kDomain), CVURL::fileURLWithPath(domainPath(), false));
}

TEST_F(PreferencesTest, AbsentValuesAreNothing) {
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(copy(store_, "LowerInstallPriority"));
  EXPECT_FALSE(pathExists(home_ / "Library"));  // reading creates nothing
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(PreferencesTest, SetCreatesTheDirectoryAndPersists) {
  ASSERT_TRUE(set(store_, "SimultaneousInstallsNumber", CVValue(8)));
  struct stat status {};
  ASSERT_EQ(::stat((home_ / "Library/Preferences").c_str(), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  const mode_t mask = ::umask(0);
  ::umask(mask);
  EXPECT_EQ(status.st_mode & 0777, 0755u & ~mask);

  const PreferencesStore fresh(home_.url());
  EXPECT_EQ(copy(fresh, "SimultaneousInstallsNumber"), CVValue(8));
  // The file is an ordinary property list of the domain's values.
  const auto onDisk =
      platform::readPropertyListDictionary(CVURL::fileURLWithPath(domainPath(), false), nullptr);
  ASSERT_TRUE(onDisk);
  EXPECT_EQ(*onDisk, (CVDictionary{{"SimultaneousInstallsNumber", 8}}));
}

TEST_F(PreferencesTest, TypesArePreserved) {
  const CVDictionary values{
      {"false", false},
      {"true", true},
      {"zero", 0},
      {"one", 1},
      {"negative", -3},
      {"real", 2.5},
      {"string", "YES"},
      {"data", CVData{0, 1, 2}},
      {"date", CVDate{1500000000}},
      {"array", CVArray{1, "two"}},
      {"dictionary", CVDictionary{{"nested", false}}},
  };
  for (std::size_t i = 0; i < values.count(); ++i)
    ASSERT_TRUE(set(store_, values.keys()[i], values.valueAt(i))) << values.keys()[i];

  const PreferencesStore fresh(home_.url());
  for (std::size_t i = 0; i < values.count(); ++i) {
    const auto read = copy(fresh, values.keys()[i]);
    ASSERT_TRUE(read) << values.keys()[i];
    EXPECT_EQ(*read, values.valueAt(i)) << values.keys()[i];
  }
  EXPECT_TRUE(copy(fresh, "false")->isBooleanFalse());
  EXPECT_FALSE(copy(fresh, "zero")->isBooleanFalse());
  EXPECT_FALSE(copy(fresh, "one")->isBooleanTrue());
}

TEST_F(PreferencesTest, ReplacingAndRemovingKeepOtherKeys) {
  ASSERT_TRUE(set(store_, "a", CVValue(1)));
  ASSERT_TRUE(set(store_, "b", CVValue(2)));
  ASSERT_TRUE(set(store_, "a", CVValue("changed")));
  ASSERT_TRUE(set(store_, "b", std::nullopt));
  EXPECT_EQ(copy(store_, "a"), CVValue("changed"));
  EXPECT_FALSE(copy(store_, "b"));
  ASSERT_TRUE(set(store_, "never set", std::nullopt));
}

TEST_F(PreferencesTest, RemovingFromAnAbsentDomainWritesNothing) {
  EXPECT_TRUE(set(store_, "key", std::nullopt));
  EXPECT_FALSE(pathExists(domainPath()));
}

TEST_F(PreferencesTest, CorruptFileIsNeverReplaced) {
  makeDirectories(home_ / "Library/Preferences");
  const std::string corrupt = "<?xml version=\"1.0\"?><plist><dict><key>Lost";
  writeFile(domainPath(), corrupt);
  CapturedLog log(platform::installerLog());

  EXPECT_FALSE(set(store_, "UpdatedPluginContainersWithParentID", CVValue(true)));
  EXPECT_EQ(readFile(domainPath()), corrupt);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u) << log.dump();
  EXPECT_EQ(lines[0].level, platform::kLogLevelError);
  EXPECT_EQ(lines[0].function, "PreferencesStore::setValue");
  EXPECT_NE(lines[0].message.find(domainPath()), std::string::npos) << lines[0].message;

  log.clear();
  EXPECT_FALSE(copy(store_, "UpdatedPluginContainersWithParentID"));
  ASSERT_EQ(log.count(), 1u) << log.dump();
  EXPECT_EQ(log.lines()[0].level, platform::kLogLevelError);
  EXPECT_EQ(log.lines()[0].function, "PreferencesStore::copyValue");
  EXPECT_TRUE(log.containsFragment(domainPath())) << log.dump();
}

TEST_F(PreferencesTest, NonDictionaryFileIsNeverReplaced) {
  makeDirectories(home_ / "Library/Preferences");
  const std::string array = platform::encodeXMLPropertyList(CVValue(CVArray{"kept"}));
  writeFile(domainPath(), array);
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(set(store_, "key", CVValue(1)));
  EXPECT_EQ(readFile(domainPath()), array);
  EXPECT_TRUE(log.containsFragment(domainPath())) << log.dump();
}

TEST_F(PreferencesTest, OtherUsersAndHostsAreNotKept) {
  ASSERT_TRUE(set(store_, "key", CVValue(1)));
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(store_.copyValue("key", kDomain, kPreferencesAnyUser, kPreferencesCurrentHost));
  EXPECT_FALSE(store_.copyValue("key", kDomain, kPreferencesCurrentUser, kPreferencesAnyHost));
  EXPECT_FALSE(
      store_.setValue("key", CVValue(2), kDomain, kPreferencesCurrentUser, kPreferencesAnyHost));
  EXPECT_FALSE(
      store_.setValue("key", CVValue(2), kDomain, kPreferencesAnyUser, kPreferencesCurrentHost));
  EXPECT_EQ(log.count(), 2u) << log.dump();
  EXPECT_EQ(copy(store_, "key"), CVValue(1));
}

TEST_F(PreferencesTest, DomainsCannotNameOtherFiles) {
  CapturedLog log(platform::installerLog());
  for (const char* domain : {"../escape", "a/b", "", ".."}) {
    EXPECT_FALSE(store_.setValue("key", CVValue(1), domain, kPreferencesCurrentUser,
                                 kPreferencesCurrentHost))
        << domain;
    EXPECT_FALSE(store_.copyValue("key", domain, kPreferencesCurrentUser, kPreferencesCurrentHost));
  }
  EXPECT_FALSE(pathExists(home_ / "Library/escape.plist"));
  EXPECT_FALSE(pathExists(home_ / "Library"));
}

TEST_F(PreferencesTest, FileInThePathFailsWithALogLine) {
  writeFile(home_ / "Library", "a file where a directory belongs");
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(set(store_, "key", CVValue(1)));
  ASSERT_EQ(log.count(), 1u) << log.dump();
  EXPECT_EQ(log.lines()[0].function, "PreferencesStore::setValue");
  EXPECT_EQ(readFile(home_ / "Library"), "a file where a directory belongs");
}

TEST_F(PreferencesTest, UncreatableDirectoryFailsWithALogLine) {
  makeDirectories(home_ / "Library");
  if (runProgram("chattr", {"+i", home_ / "Library"}).exitCode != 0)
    GTEST_SKIP() << "chattr +i unsupported here";
  CapturedLog log(platform::installerLog());
  const bool written = set(store_, "key", CVValue(1));
  runProgram("chattr", {"-i", home_ / "Library"});
  EXPECT_FALSE(written);
  ASSERT_EQ(log.count(), 1u) << log.dump();
  EXPECT_EQ(log.lines()[0].level, platform::kLogLevelError);
  EXPECT_TRUE(log.containsFragment("Failed to create preferences directory " +
                                   (home_ / "Library/Preferences")))
      << log.dump();
}

TEST_F(PreferencesTest, ConcurrentSettersLoseNoUpdate) {
  constexpr int kPerThread = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kPerThread; ++i)
        set(store_, "thread" + std::to_string(t) + "-" + std::to_string(i), CVValue(i));
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  const PreferencesStore fresh(home_.url());
  for (int t = 0; t < 2; ++t) {
    for (int i = 0; i < kPerThread; ++i) {
      EXPECT_EQ(copy(fresh, "thread" + std::to_string(t) + "-" + std::to_string(i)), CVValue(i));
    }
  }
}

}  // namespace
