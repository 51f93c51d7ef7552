// Staged installs of legacy bundles and placeholder installs, through the
// installer double: what is staged where, the options handed over, how the
// installer's answers become results and log lines.
#include <gtest/gtest.h>

#include <thread>

#include "platform/Bundle.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/appmigrator/MigratorFixture.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;

// An icon service that answers with a fixed image, or with nothing.
class FixedIconService final : public platform::IconService {
 public:
  std::optional<platform::Image> homeScreenIconForBundle(const platform::Bundle&) override {
    return icon;
  }
  std::optional<platform::Image> icon;
};

platform::Image opaqueSquare(std::uint32_t side) {
  platform::Image image;
  image.width = side;
  image.height = side;
  image.pixels.assign(std::size_t{side} * side * 4, 0xFF);
  return image;
}

class InstallationTest : public MigratorTest {
 protected:
  void SetUp() override {
    containerPath_ = container("AB12");
    bundlePath_ = containerPath_ + "/Maps.app";
    image_.writeBundle(bundlePath_, CVDictionary{{"QXBundleIdentifier", "com.example.maps"},
                                                 {"QXBundleExecutable", "Maps"},
                                                 {"QXBundleVersion", "412"},
                                                 {"QXBundleShortVersionString", "4.1"},
                                                 {"QXBundleIconFile", "AppIcon"},
                                                 {"UIDeviceFamily", CVArray{1}}});
    writeFile(bundlePath_ + "/Maps", "binary", 0755);
  }

  std::unique_ptr<CVAppMigrator> migrator() {
    auto migrator = makeMigratorWithIcons();
    EXPECT_NE(migrator, nullptr);
    return migrator;
  }

  std::unique_ptr<CVAppMigrator> makeMigratorWithIcons() {
    configuration_ = std::make_unique<CVGlobalConfiguration>(image_.root());
    CVAppMigrator::Environment environment;
    environment.configuration = configuration_.get();
    environment.installer = &installer_;
    environment.registry = &installer_;
    environment.systemVersion = &systemVersion_;
    environment.temporaryDirectory = CVURL::fileURLWithPath(temporaryPath(), true);
    environment.iconService = &icons_;
    return CVAppMigrator::create(environment);
  }

  std::string temporaryPath() const { return image_.rootPath() + "/private/var/tmp/mavrel"; }
  std::string stagedPlaceholderPath() const {
    return temporaryPath() + "/com.zentrel.corvane.migrator/com.example.maps.app";
  }
  CVURL url(const std::string& path) const { return CVURL::fileURLWithPath(path, true); }

  bool stageAndInstall(CVAppMigrator& migrator, const CVURL& vpnPluginURL = CVURL()) {
    return migrator._stageAndInstallBundleAtURL(url(bundlePath_), "com.example.maps", vpnPluginURL,
                                                url(containerPath_));
  }

  std::string containerPath_;
  std::string bundlePath_;
  FixedIconService icons_;
};

TEST_F(InstallationTest, StagesBundlePluginAndStoreDataThenInstallsWithTheMigrationOptions) {
  writeFile(containerPath_ + "/Tunnel.vpnplugin/Info.plist", "<plist/>");
  writeFile(containerPath_ + "/SorvikMetadata.plist", "metadata");
  writeFile(containerPath_ + "/Manifest.plist", "manifest");
  writeFile(containerPath_ + "/Documents/keep.txt", "user data stays");
  bool payloadWasComplete = false;
  installer_.installHandler = [&](const CVURL& stagingURL, const CVDictionary&, CVError*,
                                  const platform::InstallProgressCallback& progress) {
    const std::string staging = stagingURL.path();
    payloadWasComplete = pathExists(staging + "/Payload/Maps.app/Maps") &&
                         pathExists(staging + "/Payload/Tunnel.vpnplugin/Info.plist") &&
                         readFile(staging + "/SorvikMetadata.plist") == "metadata" &&
                         readFile(staging + "/Manifest.plist") == "manifest";
    progress(CVDictionary{{"PercentComplete", 50}, {"Status", "Installing"}});
    return true;
  };
  auto subject = migrator();
  EXPECT_TRUE(stageAndInstall(*subject, url(containerPath_ + "/Tunnel.vpnplugin")));
  EXPECT_TRUE(payloadWasComplete);

  ASSERT_EQ(installer_.installs.size(), 1u);
  const CVDictionary& options = installer_.installs[0].options;
  EXPECT_EQ(options.count(), 5u);
  EXPECT_EQ(options.findNumber("InstallType")->uint64Value(), 6u);
  EXPECT_EQ(*options.findString("PackageType"), platform::kPackageTypeCustomer);
  EXPECT_TRUE(options.findNumber("VerifyForMigrator")->boolValue());
  EXPECT_TRUE(options.findNumber("SkipBlacklist")->boolValue());
  EXPECT_EQ(*options.findString("QXBundleIdentifier"), "com.example.maps");
  EXPECT_TRUE(installer_.installs[0].hadProgressCallback);
  // The staging directory stays with the container; user data is untouched.
  EXPECT_TRUE(pathExists(containerPath_ + "/Staging/Payload/Maps.app"));
  EXPECT_EQ(readFile(containerPath_ + "/Documents/keep.txt"), "user data stays");
  EXPECT_FALSE(log_.containsFragment("CVAppMigrator: Failed")) << log_.dump();
  EXPECT_FALSE(log_.containsFragment("CVAppMigrator: Installation of")) << log_.dump();
}

TEST_F(InstallationTest, WithoutPluginOnlyTheApplicationIsStaged) {
  std::vector<std::string> payload;
  installer_.installHandler = [&](const CVURL& stagingURL, const CVDictionary&, CVError*,
                                  const platform::InstallProgressCallback&) {
    auto entries = CVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
        stagingURL.URLByAppendingPathComponent("Payload", true), false, nullptr);
    for (const CVURL& entry : *entries)
      payload.push_back(entry.lastPathComponent());
    return true;
  };
  auto subject = migrator();
  EXPECT_TRUE(stageAndInstall(*subject));
  EXPECT_EQ(payload, std::vector<std::string>{"Maps.app"});
}

TEST_F(InstallationTest, AlreadyInstalledRefusalReportedFromAnotherThreadIsSuccess) {
  installer_.installHandler = [](const CVURL&, const CVDictionary&, CVError* error,
                                 const platform::InstallProgressCallback& progress) {
    std::thread reporter([&] {
      progress(CVDictionary{{"Error", "ApplicationAlreadyInstalled"},
                            {"ErrorDescription", "newer copy built in"}});
    });
    reporter.join();
    CVSetError(error, CVError("CVInstallerErrorDomain", 7));
    return false;
  };
  auto subject = migrator();
  EXPECT_TRUE(stageAndInstall(*subject));
  EXPECT_TRUE(log_.contains(kLogLevelNotice,
                            "CVAppMigrator: Installation of " + bundlePath_ +
                                " failed because it's older than what's built into the system. "
                                "Data migration already happened so we're done here."));
  EXPECT_FALSE(log_.containsFragment("Failed to install"));
}

TEST_F(InstallationTest, OtherInstallerErrorsFailWithBothMessages) {
  installer_.installHandler = [](const CVURL&, const CVDictionary&, CVError* error,
                                 const platform::InstallProgressCallback& progress) {
    progress(CVDictionary{{"Error", "ExecutableMissing"},
                          {"ErrorDescription", "no executable"},
                          {"ErrorDetail", "Maps"}});
    CVSetError(error, CVError("CVInstallerErrorDomain", 9));
    return false;
  };
  auto subject = migrator();
  EXPECT_FALSE(stageAndInstall(*subject));
  EXPECT_TRUE(log_.contains(kLogLevelError, "CVAppMigrator: Installation of " + bundlePath_ +
                                                " failed with Corvane error no executable "
                                                "(ExecutableMissing : Maps)"));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to install file://" + containerPath_ +
                                    "/Staging/"));
  EXPECT_TRUE(pathExists(containerPath_ + "/Staging/Payload/Maps.app"));
}

TEST_F(InstallationTest, FailureWithoutErrorNameLogsOnlyTheInstallFailure) {
  // The default double refuses without reporting progress.
  auto subject = migrator();
  EXPECT_FALSE(stageAndInstall(*subject));
  EXPECT_FALSE(log_.containsFragment("failed with Corvane error"));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to install "));
}

TEST_F(InstallationTest, StagingFailuresStopBeforeTheInstaller) {
  // "Staging" is a file, so "Payload" cannot be made.
  writeFile(containerPath_ + "/Staging", "in the way");
  auto subject = migrator();
  EXPECT_FALSE(stageAndInstall(*subject));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to create file://" + containerPath_ +
                                    "/Staging/Payload/ : "));
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_TRUE(pathExists(bundlePath_));
}

TEST_F(InstallationTest, MissingBundleIsMovedAsANoOpAndTheInstallerDecides) {
  CVFileManager::defaultManager().removeItemAtURL(url(bundlePath_), nullptr);
  installer_.installHandler = [](const CVURL&, const CVDictionary&, CVError*,
                                 const platform::InstallProgressCallback&) { return true; };
  auto subject = migrator();
  EXPECT_TRUE(stageAndInstall(*subject));
  EXPECT_EQ(installer_.installs.size(), 1u);
}

// ---- Placeholders

TEST_F(InstallationTest, PlaceholderCarriesIdentityIconAndStoreMetadata) {
  icons_.icon = opaqueSquare(120);
  writeFile(containerPath_ + "/SorvikMetadata.plist", "raw metadata bytes");
  CVDictionary stagedInfo;
  bool iconWasPNG = false;
  installer_.installHandler = [&](const CVURL& stagedURL, const CVDictionary&, CVError*,
                                  const platform::InstallProgressCallback&) {
    stagedInfo = image_.readPlistDictionary(stagedURL.path() + "/Info.plist");
    iconWasPNG = readFile(stagedURL.path() + "/Icon.png").starts_with("\x89PNG\r\n\x1a\n");
    return true;
  };
  auto subject = migrator();
  EXPECT_TRUE(subject->_stageAndInstallPlaceholderForBundleAtURL(
      url(bundlePath_), "com.example.maps", url(containerPath_)))
      << log_.dump();

  ASSERT_EQ(installer_.installs.size(), 1u);
  EXPECT_EQ(installer_.installs[0].url.path(), stagedPlaceholderPath());
  EXPECT_FALSE(installer_.installs[0].hadProgressCallback);
  const CVDictionary& options = installer_.installs[0].options;
  EXPECT_EQ(*options.findString("PackageType"), platform::kPackageTypePlaceholder);
  EXPECT_EQ(options.findNumber("InstallType")->uint64Value(), 6u);
  EXPECT_TRUE(options.findNumber("SkipBlacklist")->boolValue());
  EXPECT_EQ(options.find("VerifyForMigrator"), nullptr);
  const CVValue* metadata = options.find(platform::kStoreMetadataOptionKey);
  ASSERT_NE(metadata, nullptr);
  ASSERT_NE(metadata->asData(), nullptr);
  EXPECT_EQ(std::string(metadata->asData()->begin(), metadata->asData()->end()),
            "raw metadata bytes");

  EXPECT_EQ(stagedInfo.keys(),
            (std::vector<std::string>{"QXBundleIdentifier", "QXBundleExecutable", "QXBundleVersion",
                                      "QXBundleShortVersionString", "QXBundleIconFile"}));
  EXPECT_EQ(*stagedInfo.findString("QXBundleIconFile"), "Icon.png");
  EXPECT_TRUE(iconWasPNG);
  EXPECT_TRUE(
      log_.contains(kLogLevelNotice, "CVAppMigrator: Installing placeholder for com.example.maps"));
  // The staged copy never outlives the call, and the legacy container is as it was.
  EXPECT_FALSE(pathExists(stagedPlaceholderPath()));
  EXPECT_EQ(readFile(containerPath_ + "/SorvikMetadata.plist"), "raw metadata bytes");
  EXPECT_TRUE(pathExists(bundlePath_ + "/Maps"));
}

TEST_F(InstallationTest, PlaceholderWithoutIconOrMetadataStillInstalls) {
  CVDictionary stagedInfo;
  installer_.installHandler = [&](const CVURL& stagedURL, const CVDictionary&, CVError*,
                                  const platform::InstallProgressCallback&) {
    stagedInfo = image_.readPlistDictionary(stagedURL.path() + "/Info.plist");
    return true;
  };
  auto subject = migrator();
  EXPECT_TRUE(subject->_stageAndInstallPlaceholderForBundleAtURL(
      url(bundlePath_), "com.example.maps", url(containerPath_)));
  EXPECT_EQ(stagedInfo.find("QXBundleIconFile"), nullptr);
  EXPECT_EQ(installer_.installs[0].options.find(platform::kStoreMetadataOptionKey), nullptr);
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Writing placeholder icon for app "
                            "com.example.maps to file://" +
                                stagedPlaceholderPath() + "/Icon.png failed"));
  EXPECT_FALSE(log_.containsFragment("Failed to read"));
}

TEST_F(InstallationTest, RefusedPlaceholderIsCleanedUpAndTheSamePathServesTheNextCall) {
  auto subject = migrator();
  EXPECT_FALSE(subject->_stageAndInstallPlaceholderForBundleAtURL(
      url(bundlePath_), "com.example.maps", url(containerPath_)));
  EXPECT_TRUE(
      log_.containsFragment("CVAppMigrator: Failed to install placeholder for com.example.maps: "));
  EXPECT_FALSE(pathExists(stagedPlaceholderPath()));

  installer_.installHandler = [](const CVURL&, const CVDictionary&, CVError*,
                                 const platform::InstallProgressCallback&) { return true; };
  EXPECT_TRUE(subject->_stageAndInstallPlaceholderForBundleAtURL(
      url(bundlePath_), "com.example.maps", url(containerPath_)));
  EXPECT_EQ(installer_.installs[0].url, installer_.installs[1].url);
}

TEST_F(InstallationTest, PlaceholderNeedsAReadableBundle) {
  auto subject = migrator();
  const std::string missing = containerPath_ + "/Gone.app";
  EXPECT_FALSE(subject->_stageAndInstallPlaceholderForBundleAtURL(url(missing), "com.example.maps",
                                                                  url(containerPath_)));
  EXPECT_TRUE(
      log_.contains(kLogLevelError, "CVAppMigrator: Failed to create QXBundle for " + missing));

  writeFile(bundlePath_ + "/Info.plist", "not a property list");
  EXPECT_FALSE(subject->_stageAndInstallPlaceholderForBundleAtURL(
      url(bundlePath_), "com.example.maps", url(containerPath_)));
  EXPECT_TRUE(log_.contains(
      kLogLevelError,
      "CVAppMigrator: Failed to get bundle info dictionary for bundle " + bundlePath_));
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_FALSE(pathExists(stagedPlaceholderPath()));
}

TEST_F(InstallationTest, PlaceholderStagingFailureIsReported) {
  // The staging parent is a file.
  writeFile(temporaryPath() + "/com.zentrel.corvane.migrator", "in the way");
  auto subject = migrator();
  EXPECT_FALSE(subject->_stageAndInstallPlaceholderForBundleAtURL(
      url(bundlePath_), "com.example.maps", url(containerPath_)));
  EXPECT_TRUE(
      log_.containsFragment("CVAppMigrator: Failed to create staged placeholder directory at " +
                            stagedPlaceholderPath()));
}

TEST_F(InstallationTest, IconIsWrittenAsPNGOrReportedMissing) {
  auto subject = migrator();
  const auto bundle = platform::Bundle::create(url(bundlePath_));
  const CVURL iconURL = CVURL::fileURLWithPath(image_.rootPath() + "/icon.png", false);

  EXPECT_FALSE(subject->_writeIconForBundle(*bundle, iconURL));
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Failed to create icon from bundle " + bundlePath_));
  EXPECT_FALSE(pathExists(iconURL.path()));

  icons_.icon = opaqueSquare(120);
  EXPECT_TRUE(subject->_writeIconForBundle(*bundle, iconURL));
  EXPECT_TRUE(readFile(iconURL.path()).starts_with("\x89PNG"));

  // A destination that cannot be written.
  const CVURL blocked = CVURL::fileURLWithPath(bundlePath_ + "/Maps/icon.png", false);
  EXPECT_FALSE(subject->_writeIconForBundle(*bundle, blocked));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to write image data to file://" +
                                    bundlePath_ + "/Maps/icon.png : "));
}

}  // namespace
