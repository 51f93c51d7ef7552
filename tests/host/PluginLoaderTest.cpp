// Finding and loading plug-in modules, and the reasons given when a
// directory or a module is not usable.
#include <gtest/gtest.h>

#include "host/PluginLoader.h"
#include "tests/support/TestSupport.h"

namespace mavrel_host {
namespace {

using namespace testing_support;

TEST(PluginLoaderTest, FindsMigratorModulesInNameOrderAndRefusesTheUnusable) {
  TemporaryDirectory directory;
  for (const char* name : {"b.migrator", "a.migrator", "c.migrator.bak", ".migrator", "notes.txt"})
    writeFile(directory / name, "");
  std::string reason;
  const auto found = findPlugins(directory.path(), &reason);
  ASSERT_TRUE(found) << reason;
  EXPECT_EQ(*found, (std::vector<std::string>{directory / "a.migrator", directory / "b.migrator"}));
  // A missing directory is a failure, not an empty list.
  EXPECT_FALSE(findPlugins(directory / "absent", &reason));
  EXPECT_NE(reason.find(directory / "absent"), std::string::npos) << reason;

  writeFile(directory / "broken.migrator", "not an object file");
  // A real shared module (already loaded by this program) without the entry point.
  makeSymlink(MAVREL_BINARY_DIR "/lib/libmavrel_installer.so", directory / "plain.migrator");
  const MavrelHostServices services;
  for (const auto& [module, message] : std::vector<std::pair<std::string, std::string>>{
           {directory / "broken.migrator",
            "cannot load plug-in '" + (directory / "broken.migrator") + "'"},
           {directory / "plain.migrator", "does not export MavrelCreateMigrator"}}) {
    EXPECT_FALSE(loadMigrator(module, services, &reason)) << module;
    EXPECT_NE(reason.find(message), std::string::npos) << reason;
  }
}

}  // namespace
}  // namespace mavrel_host
