// `mavrel apps` run as a user runs it: what it lists after a migration and on
// an image without a registry, how it fails on a damaged registry or one with
// a write cut off before its commit; and that `mavrel migrate` stops when the
// registry cannot be opened, and rolls a cut write back.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "host/CommandLine.h"
#include "tests/support/LegacyImage.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

std::string plist(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body +
         "\n</plist>\n";
}

// The registry's SQLite companions, which a reader may create (and so the
// time of the directory that holds them), are left out.
const TreeDescription kWithoutRegistryCompanions{.skipped = [](const std::string& path) {
  return path.ends_with(".sqlite-wal") || path.ends_with(".sqlite-shm") ||
         path.ends_with("/Library/Corvane");
}};

// The value after "<label>: " on the line that has it.
std::string valueAfter(const std::string& text, const std::string& label) {
  const std::size_t start = text.find(label + ": ");
  if (start == std::string::npos) return std::string();
  const std::size_t begin = start + label.size() + 2;
  return text.substr(begin, text.find('\n', begin) - begin);
}

class AppsCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = std::filesystem::canonical(directory_.path()).string() + "/image";
    makeDirectories(root_ + "/System/Library/CoreServices");
    writeFile(root_ + "/System/Library/CoreServices/SystemBuild.plist",
              plist("<dict><key>SystemBuildVersion</key><string>23A344</string></dict>"));
    makeDirectories(home() + "/Library");
    makeDirectories(directory_ / "scratch");
  }
  std::string home() const { return root_ + "/private/var/mobile"; }
  std::string registry() const { return home() + "/Library/Corvane/ApplicationRegistry.sqlite"; }
  ProgramRun mavrel(std::vector<std::string> arguments) {
    return runMavrel(arguments, directory_ / "scratch");
  }
  // A legacy container with an application that can be installed, its user
  // data and a group; and a safe harbor waiting to be registered.
  void writeLegacyImage() {
    const std::string container = home() + "/Applications/0A1B2C3D";
    writeFile(container + "/Example.app/Info.plist",
              plist("<dict><key>QXBundleIdentifier</key><string>com.example.app</string>"
                    "<key>QXBundleExecutable</key><string>Example</string>"
                    "<key>QXBundleVersion</key><string>42</string>"
                    "<key>QXBundleShortVersionString</key><string>4.2</string></dict>"));
    writeFile(container + "/Example.app/Example", "binary", 0755);
    writeFile(container + "/Example.app/Entitlements.plist",
              plist("<dict><key>application-groups</key><array><string>group.example</string>"
                    "</array></dict>"));
    writeFile(container + "/Documents/note.txt", "from the old layout");
    makeDirectories(home() + "/Harbors/Gone");
    writeFile(home() + "/Library/Corvane/SafeHarbor.plist",
              plist("<dict><key>com.example.gone</key><dict><key>HarborPathKey</key><string>" +
                    home() + "/Harbors/Gone</string></dict></dict>"));
  }

  TemporaryDirectory directory_;
  std::string root_;
};

TEST_F(AppsCommandTest, ListsWhatAMigrationInstalledWithoutChangingTheImage) {
  writeLegacyImage();
  const ProgramRun migration = mavrel({"migrate", "--root", root_});
  ASSERT_EQ(migration.exitCode, 0) << migration.out << migration.err;

  const auto before = describeTree(root_, kWithoutRegistryCompanions);
  const ProgramRun text = mavrel({"apps", "--root", root_});
  ASSERT_EQ(text.exitCode, 0) << text.err;
  EXPECT_NE(text.out.find("Application registry: " + registry()), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("\ncom.example.app  application  4.2 (42)\n"), std::string::npos)
      << text.out;
  const std::string bundleContainer = valueAfter(text.out, "  bundle container");
  EXPECT_EQ(bundleContainer.rfind(root_ + "/private/var/containers/Bundle/", 0), 0u) << text.out;
  EXPECT_EQ(valueAfter(text.out, "  bundle"), bundleContainer + "/Example.app");
  EXPECT_TRUE(pathExists(bundleContainer + "/Example.app/Example"));
  const std::string data = valueAfter(text.out, "  data container");
  EXPECT_EQ(data.rfind(home() + "/Containers/Data/", 0), 0u) << text.out;
  EXPECT_EQ(readFile(data + "/Documents/note.txt"), "from the old layout");
  const std::string group = valueAfter(text.out, "  group container group.example");
  EXPECT_EQ(group.rfind(home() + "/Containers/Shared/", 0), 0u) << text.out;
  EXPECT_NE(text.out.find("Safe harbors:\n  com.example.gone  " + home() +
                          "/Harbors/Gone  (container type 2)\n"),
            std::string::npos)
      << text.out;
  EXPECT_NE(text.out.find("1 application(s), 1 safe harbor(s)"), std::string::npos) << text.out;

  const ProgramRun json = mavrel({"apps", "--json", "--root=" + root_});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  EXPECT_EQ(json.out,
            "{\"tool\":\"mavrel\",\"toolVersion\":\"" + std::string(mavrel_host::toolVersion()) +
                "\",\"schemaVersion\":1,\"registry\":\"" + registry() +
                "\",\"registryExists\":true,\"pendingInstalls\":0,\"applications\":[{"
                "\"identifier\":\"com.example.app\",\"kind\":\"application\",\"version\":\"42\","
                "\"shortVersion\":\"4.2\",\"bundleContainer\":\"" +
                bundleContainer + "\",\"bundle\":\"" + bundleContainer +
                "/Example.app\",\"vpnPlugin\":null,\"vpnPluginIdentifier\":null,"
                "\"vpnPluginDataContainer\":null,\"dataContainer\":\"" +
                data + "\",\"groupContainers\":{\"group.example\":\"" + group +
                "\"}}],\"safeHarbors\":[{\"identifier\":\"com.example.gone\",\"path\":\"" + home() +
                "/Harbors/Gone\",\"containerType\":2}]}\n");

  EXPECT_EQ(describeTree(root_, kWithoutRegistryCompanions), before) << "listing changed the image";
}

TEST_F(AppsCommandTest, AnImageWithoutARegistryListsItsBuiltInApplications) {
  writeFile(root_ + "/Applications/Weather.app/Info.plist",
            plist("<dict><key>QXBundleIdentifier</key><string>com.zentrel.weather</string>"
                  "<key>QXBundleVersion</key><string>500</string></dict>"));
  const ProgramRun run = mavrel({"apps", "--root", root_});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_NE(run.out.find("No application registry yet at " + registry()), std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("\ncom.zentrel.weather  system (500)\n  bundle: " + root_ +
                         "/Applications/Weather.app\n  data container: (none yet)\n"),
            std::string::npos)
      << run.out;
  EXPECT_FALSE(pathExists(home() + "/Library/Corvane"));

  const ProgramRun json = mavrel({"apps", "--root", root_, "--json"});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  EXPECT_NE(json.out.find("\"registryExists\":false"), std::string::npos) << json.out;
  EXPECT_NE(json.out.find("\"kind\":\"system\""), std::string::npos) << json.out;
}

TEST_F(AppsCommandTest, ADamagedRegistryIsNamedAndBothCommandsStop) {
  writeFile(registry(), "not a database at all, but long enough to look like a header....");
  const ProgramRun list = mavrel({"apps", "--root", root_});
  EXPECT_EQ(list.exitCode, 2);
  EXPECT_NE(list.err.find(registry()), std::string::npos) << list.err;
  EXPECT_NE(list.err.find("damaged or is not a database"), std::string::npos) << list.err;

  const ProgramRun migration = mavrel({"migrate", "--root", root_});
  EXPECT_EQ(migration.exitCode, 2) << migration.out << migration.err;
  EXPECT_NE(migration.err.find("mavrel: cannot open the application registry: "), std::string::npos)
      << migration.err;
  EXPECT_EQ(readFile(registry()),
            "not a database at all, but long enough to look like a header....");
}

TEST_F(AppsCommandTest, AWriteCutOffBeforeItsCommitIsExplainedAndRolledBackByAMigration) {
  writeLegacyImage();
  ASSERT_EQ(mavrel({"migrate", "--root", root_}).exitCode, 0);
  // What a writer killed inside a commit in rollback-journal mode leaves: a
  // journal whose header was synced (no pages to put back here), naming the
  // size of the database before the write.
  const auto writeJournal = [this](std::uint32_t pagesBefore) {
    std::string header = "\xD9\xD5\x05\xF9\x20\xA1\x63\xD7";
    for (const std::uint32_t field : {0u, 0u, pagesBefore, 512u, 4096u}) {
      for (int shift = 24; shift >= 0; shift -= 8)
        header += static_cast<char>((field >> shift) & 0xFF);
    }
    header.resize(512, '\0');
    writeFile(registry() + "-journal", header);
  };
  // The very first write: nothing was ever committed, so there is nothing yet.
  writeJournal(0);
  const ProgramRun first = mavrel({"apps", "--root", root_});
  EXPECT_EQ(first.exitCode, 0) << first.err;
  EXPECT_NE(first.out.find("No application registry yet at " + registry()), std::string::npos)
      << first.out;

  writeJournal(static_cast<std::uint32_t>(std::filesystem::file_size(registry()) / 4096));

  const ProgramRun cut = mavrel({"apps", "--root", root_});
  EXPECT_EQ(cut.exitCode, 2);
  EXPECT_NE(cut.err.find("holds a write that was cut off before it committed"), std::string::npos)
      << cut.err;
  EXPECT_NE(cut.err.find("'mavrel migrate --root " + root_ + "' rolls the cut write back"),
            std::string::npos)
      << cut.err;
  EXPECT_EQ(cut.err.find("readonly database"), std::string::npos) << cut.err;

  ASSERT_EQ(mavrel({"migrate", "--root", root_}).exitCode, 0);
  const ProgramRun listed = mavrel({"apps", "--root", root_});
  EXPECT_EQ(listed.exitCode, 0) << listed.err;
  EXPECT_NE(listed.out.find("com.example.app"), std::string::npos) << listed.out;
}

}  // namespace
