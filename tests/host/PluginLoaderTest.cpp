// Finding and loading plug-in modules, and the reasons given when a module is
// not a usable plug-in.
#include <gtest/gtest.h>

#include "host/PluginLoader.h"
#include "tests/support/TestSupport.h"

namespace mavrel_host {
namespace {

using namespace testing_support;

TEST(PluginLoaderTest, FindsMigratorModulesInNameOrder) {
  TemporaryDirectory directory;
  writeFile(directory / "b.migrator", "");
  writeFile(directory / "a.migrator", "");
  writeFile(directory / "c.migrator.bak", "");
  writeFile(directory / ".migrator", "");
  writeFile(directory / "notes.txt", "");
  std::string reason;
  const auto found = findPlugins(directory.path(), &reason);
  ASSERT_TRUE(found) << reason;
  EXPECT_EQ(*found, (std::vector<std::string>{directory / "a.migrator", directory / "b.migrator"}));
}

TEST(PluginLoaderTest, AMissingDirectoryIsAFailureNotAnEmptyList) {
  TemporaryDirectory directory;
  std::string reason;
  EXPECT_FALSE(findPlugins(directory / "absent", &reason));
  EXPECT_NE(reason.find(directory / "absent"), std::string::npos) << reason;
}

TEST(PluginLoaderTest, DefaultDirectoryIsBesideTheProgram) {
  const std::string directory = defaultPluginDirectory();
  EXPECT_TRUE(directory.ends_with("/plugins")) << directory;
  EXPECT_EQ(directory.find("/bin/"), std::string::npos) << directory;
}

TEST(PluginLoaderTest, AFileThatIsNoModuleIsRefused) {
  TemporaryDirectory directory;
  writeFile(directory / "broken.migrator", "not an object file");
  std::string reason;
  const MavrelHostServices services;
  EXPECT_FALSE(loadMigrator(directory / "broken.migrator", services, &reason));
  EXPECT_NE(reason.find("cannot load plug-in '" + (directory / "broken.migrator") + "'"),
            std::string::npos)
      << reason;
}

TEST(PluginLoaderTest, AModuleWithoutTheEntryPointIsRefused) {
  TemporaryDirectory directory;
  // A real shared module (already loaded by this program) that exports no
  // migrator entry point.
  makeSymlink(MAVREL_BINARY_DIR "/lib/libmavrel_installer.so", directory / "plain.migrator");
  std::string reason;
  const MavrelHostServices services;
  EXPECT_FALSE(loadMigrator(directory / "plain.migrator", services, &reason));
  EXPECT_NE(reason.find("does not export MavrelCreateMigrator"), std::string::npos) << reason;
}

}  // namespace
}  // namespace mavrel_host
