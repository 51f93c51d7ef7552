// The whole job through the real `mavrel` program and the embedded installer,
// on generated legacy images: every user-data file arrives with the same
// bytes, nothing is left behind, and the failing variants fail as they must
// without losing data.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "installer/EmbeddedInstallerService.h"
#include "platform/DeviceRoot.h"
#include "samplegen/LegacyImageGenerator.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/support/CVFileDigest.h"
#include "tests/host/GeneratedImage.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

using Digests = std::map<std::string, std::string>;

class MigrationEndToEndTest : public ::testing::Test {
 protected:
  samplegen::ImageManifest generate(const samplegen::GeneratorOptions& options) {
    return host_test::generateImage(image_.path() + "/image", options);
  }

  // The user data of each container and each group container, before the pass.
  void recordUserData(const samplegen::ImageManifest& manifest) {
    for (const auto& container : manifest.containers) {
      Digests& digests = containerData_[container.identifier];
      for (const char* item : {"Documents", "Library", "tmp", "Pormex"}) {
        for (auto& [path, digest] : digestsBelow(container.containerPath + "/" + item)) {
          digests[std::string(item) + "/" + path] = digest;
        }
      }
    }
    for (const auto& group : manifest.groupContainers) {
      groupData_[group.identifier] = digestsBelow(group.path);
    }
    // The manifest's own count: the walk above must have seen every file.
    std::uint64_t recorded = 0;
    std::uint64_t expected = 0;
    for (const auto& container : manifest.containers) {
      recorded += containerData_[container.identifier].size();
      expected += container.dataFiles;
    }
    EXPECT_GT(recorded, 0u);
    EXPECT_EQ(recorded, expected);
  }

  testing_support::ProgramRun migrate(const samplegen::ImageManifest& manifest) {
    return testing_support::runMavrel({"migrate", "--root", manifest.root}, image_.path());
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
  void expectDataArrived(mavrel_installer::EmbeddedInstallerService& registry,
                         const std::string& identifier) {
    const auto record = registry.bundleRecordForIdentifier(identifier);
    ASSERT_TRUE(record.has_value()) << identifier;
    ASSERT_TRUE(record->dataContainerURL) << identifier;
    const Digests arrived = digestsBelow(record->dataContainerURL.path());
    for (const auto& [path, digest] : containerData_[identifier]) {
      const auto found = arrived.find(path);
      ASSERT_NE(found, arrived.end()) << identifier << ": " << path << " is missing";
      EXPECT_EQ(found->second, digest) << identifier << ": " << path << " changed";
    }
  }

  testing_support::TemporaryDirectory image_;
  std::map<std::string, Digests> containerData_;
  std::map<std::string, Digests> groupData_;
  std::unique_ptr<CVGlobalConfiguration> configuration_;
};

TEST_F(MigrationEndToEndTest, EveryApplicationAndEveryFileArrives) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 24;
  options.seed = 7;
  const samplegen::ImageManifest manifest = generate(options);
  recordUserData(manifest);

  const testing_support::ProgramRun run = migrate(manifest);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_NE(run.err.find("succeeded"), std::string::npos) << run.err;
  EXPECT_FALSE(pathExists(manifest.legacyDirectory));
  EXPECT_FALSE(pathExists(manifest.installMapPath));
  EXPECT_FALSE(pathExists(manifest.harborMapPath));
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
      const Digests arrived = digestsBelow(url->asURL()->path());
      for (const auto& [path, digest] : groupData_[group]) {
        const auto found = arrived.find(path);
        ASSERT_NE(found, arrived.end()) << group << ": " << path << " is missing";
        EXPECT_EQ(found->second, digest) << group << ": " << path << " changed";
      }
    }
  }
  for (const auto& group : manifest.groupContainers)
    EXPECT_FALSE(pathExists(group.path));
  // The listing names each plug-in and the data container its data went to.
  const testing_support::ProgramRun apps =
      testing_support::runMavrel({"apps", "--json", "--root", manifest.root}, image_.path());
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

TEST_F(MigrationEndToEndTest, MissingExecutableKeepsDataAndFailsTheRun) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 6;
  options.seed = 11;
  options.missingExecutable = {"1"};
  const samplegen::ImageManifest manifest = generate(options);
  recordUserData(manifest);
  const auto broken = std::find_if(manifest.containers.begin(), manifest.containers.end(),
                                   [](const auto& c) { return c.missingExecutable; });
  ASSERT_NE(broken, manifest.containers.end());

  const testing_support::ProgramRun run = migrate(manifest);
  EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
  EXPECT_EQ(run.err.find("succeeded"), std::string::npos) << run.err;
  // The container goes, the data stays in the data container of its placeholder.
  EXPECT_FALSE(pathExists(broken->containerPath));
  const auto registry = openRegistry(manifest);
  ASSERT_NE(registry, nullptr);
  for (const auto& container : manifest.containers)
    expectDataArrived(*registry, container.identifier);
  EXPECT_EQ(registry->bundleRecordForIdentifier(broken->identifier)->bundleType, "Placeholder");
}

TEST_F(MigrationEndToEndTest, UnknownExtraItemKeepsItsContainer) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 6;
  options.seed = 13;
  options.extraItem = {"2"};
  const samplegen::ImageManifest manifest = generate(options);
  const auto extra = std::find_if(manifest.containers.begin(), manifest.containers.end(),
                                  [](const auto& c) { return c.extraItem; });
  ASSERT_NE(extra, manifest.containers.end());

  const testing_support::ProgramRun run = migrate(manifest);
  EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
  EXPECT_TRUE(pathExists(extra->containerPath + "/Unexpected.dat"));
  // The legacy tree and its map stay while something is left to migrate.
  EXPECT_TRUE(pathExists(manifest.installMapPath));
}

}  // namespace
