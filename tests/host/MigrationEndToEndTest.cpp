// The whole job through the real `mavrel migrate --verify` and the embedded
// installer, on generated legacy images: every user-data and group file
// arrives with the same bytes and nothing is left behind (a failing pass
// loses nothing either: PlanAgainstPassTest); a file removed, changed or left behind after
// the pass (by a test plug-in that runs after the real migrator) is caught
// with exit code 3; and every form of device path in the maps migrates alike.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>

#include "installer/EmbeddedInstallerService.h"
#include "platform/DeviceRoot.h"
#include "platform/PropertyList.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "tests/host/GeneratedImage.h"
#include "tests/support/TreeSnapshot.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

using Digests = std::map<std::string, std::string>;

class MigrationEndToEndTest : public ::testing::Test {
 protected:
  samplegen::ImageManifest generate(std::size_t applications, std::uint64_t seed,
                                    const std::string& name = "image") {
    samplegen::GeneratorOptions options;
    options.applicationCount = applications;
    options.seed = seed;
    return host_test::generateImage(directory_.path() + "/" + name, options);
  }

  // The user data of each container and each group container, before the pass.
  void recordUserData(const samplegen::ImageManifest& manifest) {
    std::uint64_t expected = 0;
    for (const auto& container : manifest.containers) {
      Digests& digests = containerData_[container.identifier];
      for (const char* item : {"Documents", "Library", "tmp", "Pormex"}) {
        for (auto& [path, digest] : digestsBelow(container.containerPath + "/" + item))
          digests[std::string(item) + "/" + path] = digest;
      }
      expected += container.dataFiles;
      recorded_ += digests.size();
    }
    for (const auto& group : manifest.groupContainers)
      groupData_[group.identifier] = digestsBelow(group.path);
    // The manifest's own count: the walk above must have seen every file.
    EXPECT_GT(recorded_, 0u);
    EXPECT_EQ(recorded_, expected);
  }

  // The number of user-data files the image holds: containers, groups and harbors.
  static std::uint64_t userDataFiles(const samplegen::ImageManifest& manifest) {
    std::uint64_t files = 0;
    for (const auto& container : manifest.containers)
      files += container.dataFiles;
    for (const auto& group : manifest.groupContainers)
      files += group.files;
    for (const auto& harbor : manifest.harbors)
      files += harbor.files;
    return files;
  }

  ProgramRun migrate(const std::string& root, std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments{"migrate",  "--root",   root,
                                       "--verify", "--report", directory_.path() + "/report.json"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    const ProgramRun run = runMavrel(arguments, directory_.path());
    report_ = parseJSON(readFile(directory_.path() + "/report.json"));
    return run;
  }

  std::unique_ptr<mavrel_installer::EmbeddedInstallerService> openRegistry(
      const samplegen::ImageManifest& manifest) {
    configuration_ = std::make_unique<CVGlobalConfiguration>(platform::DeviceRoot(manifest.root));
    CVError error;
    auto service = mavrel_installer::EmbeddedInstallerService::open(*configuration_, &error);
    EXPECT_NE(service, nullptr) << error.description();
    return service;
  }

  // Each recorded file at its new place with the same bytes.
  static void expectArrived(const Digests& recorded, const std::string& place,
                            const std::string& what) {
    const Digests arrived = digestsBelow(place);
    for (const auto& [path, digest] : recorded) {
      const auto found = arrived.find(path);
      ASSERT_NE(found, arrived.end()) << what << ": " << path << " is missing";
      EXPECT_EQ(found->second, digest) << what << ": " << path << " changed";
    }
  }
  void expectDataArrived(mavrel_installer::EmbeddedInstallerService& registry,
                         const std::string& identifier) {
    const auto record = registry.bundleRecordForIdentifier(identifier);
    ASSERT_TRUE(record.has_value()) << identifier;
    ASSERT_TRUE(record->dataContainerURL) << identifier;
    expectArrived(containerData_[identifier], record->dataContainerURL.path(), identifier);
  }

  // A plug-in directory with the real migrator and, after it, the damaging one.
  std::string damagingPluginDirectory() {
    const std::string directory = directory_.path() + "/plugins";
    if (fs::exists(directory)) return directory;
    fs::create_directories(directory);
    fs::copy_file(MAVREL_BINARY_DIR "/plugins/AppMigrator.migrator",
                  directory + "/AppMigrator.migrator");
    fs::copy_file(MAVREL_BINARY_DIR "/test-plugins/DamagingMigrator.migrator",
                  directory + "/ZZDamagingMigrator.migrator");
    return directory;
  }

  TemporaryDirectory directory_;
  std::map<std::string, Digests> containerData_;
  std::map<std::string, Digests> groupData_;
  std::uint64_t recorded_ = 0;
  JSONValue report_;
  std::unique_ptr<CVGlobalConfiguration> configuration_;
};

TEST_F(MigrationEndToEndTest, EveryApplicationAndEveryFileArrives) {
  const samplegen::ImageManifest manifest = generate(24, 7);
  recordUserData(manifest);
  // A container without an application goes with its data, as designed: that
  // is said, and is no loss.
  writeFile(manifest.legacyDirectory + "/NoBundle/Documents/orphan.txt", "o");

  const ProgramRun run = migrate(manifest.root);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const std::string files = std::to_string(userDataFiles(manifest));
  for (const std::string& said : std::vector<std::string>{
           ": succeeded in ", "Verified " + files + " of " + files + " user-data files",
           "1 file(s) were removed with legacy containers that held no application",
           "Apart from those removed, every file is at its new place."})
    EXPECT_NE(run.err.find(said), std::string::npos) << said << "\n" << run.err;
  EXPECT_EQ(run.err.find("o user data was lost"), std::string::npos) << run.err;
  const JSONValue& verification = report_["verification"];
  EXPECT_EQ(verification["files"].count(), userDataFiles(manifest));
  EXPECT_EQ(verification["verified"].count(), userDataFiles(manifest));
  EXPECT_EQ(verification["missing"].count() + verification["changed"].count() +
                verification["leftBehind"].count(),
            0u);
  EXPECT_EQ(verification["removedByDesign"].count(), 1u);
  for (const std::string& gone :
       {manifest.legacyDirectory, manifest.installMapPath, manifest.harborMapPath})
    EXPECT_FALSE(pathExists(gone)) << gone;
  EXPECT_TRUE(pathExists(manifest.root +
                         "/private/var/mobile/Library/Corvane/AppMigratorLastSystemVersion.plist"));

  const auto registry = openRegistry(manifest);
  ASSERT_NE(registry, nullptr);
  EXPECT_GT(manifest.vpnOnlyCount(), 0u);
  for (const auto& container : manifest.containers) {
    expectDataArrived(*registry, container.identifier);
    const auto record = registry->bundleRecordForIdentifier(container.identifier);
    ASSERT_TRUE(record.has_value());
    if (container.builtInDuplicate) {
      EXPECT_EQ(record->bundleType, "System") << container.identifier;
      continue;
    }
    // A VPN-only container's data belongs to the plug-in that its
    // application installed.
    EXPECT_EQ(record->bundleType, container.containerType == "VPNBundle" ? "VPNPlugin" : "User")
        << container.identifier;
    EXPECT_TRUE(record->foundBackingBundle) << container.identifier;
    // Group contents arrived in the group containers the registry assigned.
    ASSERT_TRUE(record->groupContainerURLs.has_value());
    for (const std::string& group : container.groups) {
      const CVValue* url = record->groupContainerURLs->find(group);
      ASSERT_NE(url, nullptr) << container.identifier << " lacks " << group;
      expectArrived(groupData_[group], url->asURL()->path(), group);
    }
  }
  for (const auto& group : manifest.groupContainers)
    EXPECT_FALSE(pathExists(group.path));
  // The listing names each plug-in and the data container its data went to.
  const ProgramRun apps = runMavrel({"apps", "--json", "--root", manifest.root}, directory_.path());
  for (const auto& container : manifest.containers) {
    if (container.containerType != "VPNBundle") continue;
    const std::string data =
        registry->bundleRecordForIdentifier(container.identifier)->dataContainerURL.path();
    EXPECT_NE(apps.out.find("\"vpnPluginIdentifier\":\"" + container.identifier +
                            "\",\"vpnPluginDataContainer\":\"" + data + "\""),
              std::string::npos)
        << apps.out;
  }
}

TEST_F(MigrationEndToEndTest, DamageAfterThePassIsCaught) {
  const struct {
    std::string kind;
    std::string summary;
    std::string named;  // the file's line starts so
  } cases[] = {
      {"remove", "USER DATA LOST: 1 file(s) missing, 0 file(s) changed", "missing: "},
      {"corrupt", "USER DATA LOST: 0 file(s) missing, 1 file(s) changed", "changed: "},
      // A file still at its old place while the run says it moved is out of
      // its application's reach: named, counted and never called safe.
      {"unmove", "USER DATA LEFT BEHIND: 1 file(s)", "left behind: "},
  };
  for (const auto& damage : cases) {
    SCOPED_TRACE(damage.kind);
    const auto manifest = generate(6, 41, "image-" + damage.kind);
    // The first user-data file under "Documents", relative to its container.
    std::string identifier, legacy, document;
    for (const auto& container : manifest.containers) {
      const fs::path documents = fs::path(container.containerPath) / "Documents";
      if (!document.empty() || !fs::exists(documents)) continue;
      for (const auto& entry : fs::recursive_directory_iterator(documents)) {
        if (!entry.is_regular_file() || entry.is_symlink()) continue;
        identifier = container.identifier;
        legacy = container.containerPath;
        document = fs::relative(entry.path(), container.containerPath).string();
        break;
      }
    }
    ASSERT_FALSE(document.empty()) << "no document in the image";
    ::setenv("MAVREL_TEST_DAMAGE", (damage.kind + ":" + identifier + ":" + document).c_str(), 1);
    ::setenv("MAVREL_TEST_LEGACY_CONTAINER", legacy.c_str(), 1);
    const ProgramRun run = migrate(manifest.root, {"--plugin-dir", damagingPluginDirectory()});
    ::unsetenv("MAVREL_TEST_DAMAGE");
    ::unsetenv("MAVREL_TEST_LEGACY_CONTAINER");
    EXPECT_EQ(run.exitCode, 3) << run.out << run.err;
    EXPECT_NE(run.err.find(damage.summary), std::string::npos) << run.err;
    const std::string place = damage.kind == "unmove" ? legacy + "/" + document : document;
    EXPECT_NE(run.err.find(damage.named), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(place), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("o user data was lost"), std::string::npos) << run.err;
  }
}

// A device writes its maps with "/private/var/..." or "/var/..." paths, images
// made by earlier versions hold host paths inside the root, a device's "/var"
// is a link into "/private", and an image may be copied elsewhere before it is
// migrated: each gives the same outcome, entry by entry and file by file.
TEST_F(MigrationEndToEndTest, EveryFormOfDevicePathAndAMovedImageMigrateAlike) {
  enum class Variant { AsMade, CopiedElsewhere, VarPaths, HostPaths, VarIsALink };
  std::map<std::string, std::string> firstOutcomes;
  for (const Variant variant : {Variant::AsMade, Variant::CopiedElsewhere, Variant::VarPaths,
                                Variant::HostPaths, Variant::VarIsALink}) {
    SCOPED_TRACE(static_cast<int>(variant));
    const std::string made = directory_.path() + "/made";
    fs::remove_all(made);
    const auto manifest = generate(6, 46, "made");
    std::string root = manifest.root;
    if (variant == Variant::CopiedElsewhere) {
      root = directory_.path() + "/copy";
      fs::remove_all(root);
      ASSERT_EQ(runProgram("cp", {"-a", made, root}).exitCode, 0);
      fs::remove_all(made);
    }
    // Rewrites every group container path of the install map.
    const auto rewriteGroups = [&root](const std::function<std::string(std::string)>& rewrite) {
      const CVURL map = CVURL::fileURLWithPath(
          root + "/private/var/mobile/Library/Caches/com.zentrel.corvane.plist", false);
      auto installMap = platform::readPropertyListDictionary(map, nullptr);
      ASSERT_TRUE(installMap.has_value());
      CVDictionary groups = *installMap->findDictionary("GroupContainers");
      for (std::size_t i = 0; i < groups.count(); ++i) {
        const std::string path = *groups.valueAt(i).asDictionary()->findString("Container");
        groups.set(groups.keys()[i], CVDictionary{{"Container", rewrite(path)}});
      }
      installMap->set("GroupContainers", groups);
      ASSERT_TRUE(platform::writePropertyListAtomically(CVValue(*installMap), map, nullptr));
    };
    if (variant == Variant::VarPaths)
      rewriteGroups([](std::string path) { return path.substr(std::string("/private").size()); });
    if (variant == Variant::HostPaths)
      rewriteGroups([&root](std::string path) { return root + path; });
    if (variant == Variant::VarIsALink) fs::create_directory_symlink("private/var", root + "/var");

    const ProgramRun run = migrate(root);
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    const JSONValue& verification = report_["verification"];
    EXPECT_EQ(verification["verified"].count(), userDataFiles(manifest)) << run.out;
    EXPECT_EQ(verification["leftBehind"].count(), 0u);
    std::map<std::string, std::string> outcomes;
    for (const auto& entry : report_["entries"].array)
      outcomes[fs::path(entry["path"].string).filename()] = entry["outcome"].string;
    if (variant == Variant::AsMade) firstOutcomes = outcomes;
    EXPECT_EQ(outcomes, firstOutcomes);
    EXPECT_FALSE(fs::exists(root + "/private/var/mobile/Library/GroupContainers") &&
                 !fs::is_empty(root + "/private/var/mobile/Library/GroupContainers"))
        << "group data stayed behind";
    fs::remove_all(root);
  }
}

}  // namespace
