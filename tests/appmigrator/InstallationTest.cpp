// Staged and placeholder installs through the installer double, and one
// legacy container carried into the current layout.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "platform/Bundle.h"
#include "tests/appmigrator/MigratorFixture.h"

namespace {

using Handler = testing_support::FakeInstallerService::InstallHandler;

platform::Image opaqueSquare(std::uint32_t side) {
  platform::Image image;
  image.width = side;
  image.height = side;
  image.pixels.assign(std::size_t{side} * side * 4, 0xFF);
  return image;
}

// Refuses with the given progress report (none when empty) and error.
Handler refusing(CVDictionary report, bool fromAnotherThread = false) {
  return [=](const CVURL&, const CVDictionary&, CVError* error,
             const platform::InstallProgressCallback& progress) {
    if (report.count() > 0 && fromAnotherThread) std::thread([&] { progress(report); }).join();
    if (report.count() > 0 && !fromAnotherThread) progress(report);
    CVSetError(error, CVError("CVInstallerErrorDomain", 7));
    return false;
  };
}

const Handler kAccepting = [](const CVURL&, const CVDictionary&, CVError*,
                              const platform::InstallProgressCallback&) { return true; };

class InstallationTest : public MigratorTest {
 protected:
  void SetUp() override {
    image_.writeBundle(bundle_, CVDictionary{{"QXBundleIdentifier", "com.example.maps"},
                                             {"QXBundleExecutable", "Maps"},
                                             {"QXBundleVersion", "412"},
                                             {"QXBundleShortVersionString", "4.1"},
                                             {"QXBundleIconFile", "AppIcon"},
                                             {"UIDeviceFamily", CVArray{1}}});
    writeFile(bundle_ + "/Maps", "binary", 0755);
    migrator_ = makeMigrator();
    ASSERT_NE(migrator_, nullptr);
  }

  std::string staged() const {
    return temporaryPath() + "/com.zentrel.corvane.migrator/com.example.maps.app";
  }
  bool stageAndInstall(const CVURL& vpnPluginURL = CVURL()) {
    return migrator_->_stageAndInstallBundleAtURL(directoryURL(bundle_), "com.example.maps",
                                                  vpnPluginURL, directoryURL(container_));
  }
  bool installPlaceholder(const std::string& bundle) {
    return migrator_->_stageAndInstallPlaceholderForBundleAtURL(
        directoryURL(bundle), "com.example.maps", directoryURL(container_));
  }

  // Puts the staged bundle back where it was and removes the staging directory.
  void unstage() {
    std::filesystem::rename(container_ + "/Staging/Payload/Maps.app", bundle_);
    removeItem(container_ + "/Staging");
  }

  const std::string container_ = container("AB12");
  const std::string bundle_ = container_ + "/Maps.app";
  std::unique_ptr<CVAppMigrator> migrator_;
};

// The installer's answers, and what each one becomes: result and log lines.
TEST_F(InstallationTest, InstallerAnswersBecomeResultsAndMessages) {
  const std::string failed = "CVAppMigrator: Failed to install file://" + container_ + "/Staging/";
  struct Case {
    const char* name;
    Handler handler;
    bool result;
    int level;
    std::string present;  // a line that must be there ("" for none)
    std::string absent;   // a fragment that must not be
  };
  const Case cases[] = {
      {"accepted", kAccepting, true, 0, "", "Installation of"},
      // Refused because the system carries a newer copy, reported from another thread.
      {"built in",
       refusing(CVDictionary{{"Error", "ApplicationAlreadyInstalled"},
                             {"ErrorDescription", "newer copy built in"}},
                true),
       true, kLogLevelNotice,
       "Installation of " + bundle_ +
           " failed because it's older than what's built into the system. Data migration already "
           "happened so we're done here.",
       "Failed to install"},
      {"other error",
       refusing(CVDictionary{{"Error", "ExecutableMissing"},
                             {"ErrorDescription", "no executable"},
                             {"ErrorDetail", "Maps"}}),
       false, kLogLevelError,
       "Installation of " + bundle_ +
           " failed with Corvane error no executable (ExecutableMissing : Maps)",
       "older than"},
      {"no error name", refusing(CVDictionary{}), false, 0, "", "failed with Corvane error"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    installer_.installHandler = c.handler;
    EXPECT_EQ(stageAndInstall(), c.result);
    if (!c.present.empty()) {
      EXPECT_TRUE(logged(c.level, "CVAppMigrator: " + c.present)) << log_.dump();
    }
    EXPECT_FALSE(log_.containsFragment(c.absent)) << log_.dump();
    EXPECT_EQ(log_.containsFragment(failed), !c.result) << log_.dump();
    // The staging directory stays with the container.
    EXPECT_TRUE(pathExists(container_ + "/Staging/Payload/Maps.app"));
    unstage();
  }
}

TEST_F(InstallationTest, StagingFailuresStopBeforeTheInstallerAndAMissingBundleDoesNot) {
  // "Staging" is a file, so "Payload" cannot be made.
  writeFile(container_ + "/Staging", "in the way");
  EXPECT_FALSE(stageAndInstall());
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to create file://" + container_ +
                                    "/Staging/Payload/ : "));
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_TRUE(pathExists(bundle_));

  // A bundle that is gone is moved as a no-op and the installer decides.
  removeItem(container_ + "/Staging");
  removeItem(bundle_);
  installer_.installHandler = kAccepting;
  EXPECT_TRUE(stageAndInstall());
  EXPECT_EQ(installer_.installs.size(), 1u);
}

// ---- Placeholders

TEST_F(InstallationTest, PlaceholderCarriesIdentityIconAndStoreMetadata) {
  icons_.icon = opaqueSquare(120);
  writeFile(container_ + "/SorvikMetadata.plist", "raw metadata bytes");
  CVDictionary stagedInfo;
  bool iconWasPNG = false;
  installer_.installHandler = [&](const CVURL& stagedURL, const CVDictionary&, CVError*,
                                  const platform::InstallProgressCallback&) {
    stagedInfo = image_.readPlistDictionary(stagedURL.path() + "/Info.plist");
    iconWasPNG = readFile(stagedURL.path() + "/Icon.png").starts_with("\x89PNG\r\n\x1a\n");
    return true;
  };
  EXPECT_TRUE(installPlaceholder(bundle_)) << log_.dump();

  ASSERT_EQ(installer_.installs.size(), 1u);
  EXPECT_EQ(installer_.installs[0].url.path(), staged());
  EXPECT_FALSE(installer_.installs[0].hadProgressCallback);
  const std::string metadata = "raw metadata bytes";
  EXPECT_EQ(installer_.installs[0].options,
            (CVDictionary{{"InstallType", 6},
                          {"PackageType", std::string(platform::kPackageTypePlaceholder)},
                          {"SkipBlacklist", true},
                          {"QXBundleIdentifier", "com.example.maps"},
                          {std::string(platform::kStoreMetadataOptionKey),
                           CVData(metadata.begin(), metadata.end())}}));
  EXPECT_EQ(stagedInfo.keys(),
            (std::vector<std::string>{"QXBundleIdentifier", "QXBundleExecutable", "QXBundleVersion",
                                      "QXBundleShortVersionString", "QXBundleIconFile"}));
  EXPECT_EQ(*stagedInfo.findString("QXBundleIconFile"), "Icon.png");
  EXPECT_TRUE(iconWasPNG);
  EXPECT_TRUE(
      logged(kLogLevelNotice, "CVAppMigrator: Installing placeholder for com.example.maps"));
  // The staged copy never outlives the call, and the legacy container is as it was.
  EXPECT_FALSE(pathExists(staged()));
  EXPECT_EQ(readFile(container_ + "/SorvikMetadata.plist"), metadata);
  EXPECT_TRUE(pathExists(bundle_ + "/Maps"));
}

// Refused (the double's default), then accepted at the same staging path,
// with neither an icon nor store metadata to hand over.
TEST_F(InstallationTest, RefusedPlaceholderIsCleanedUpAndOneWithoutIconOrMetadataInstalls) {
  EXPECT_FALSE(installPlaceholder(bundle_));
  EXPECT_TRUE(
      log_.containsFragment("CVAppMigrator: Failed to install placeholder for com.example.maps: "));
  CVDictionary stagedInfo;
  installer_.installHandler = [&](const CVURL& stagedURL, const CVDictionary&, CVError*,
                                  const platform::InstallProgressCallback&) {
    stagedInfo = image_.readPlistDictionary(stagedURL.path() + "/Info.plist");
    return true;
  };
  EXPECT_TRUE(installPlaceholder(bundle_));
  ASSERT_EQ(installer_.installs.size(), 2u);
  EXPECT_EQ(installer_.installs[0].url, installer_.installs[1].url);
  EXPECT_EQ(stagedInfo.find("QXBundleIconFile"), nullptr);
  EXPECT_EQ(installer_.installs[1].options.find(platform::kStoreMetadataOptionKey), nullptr);
  EXPECT_TRUE(logged(kLogLevelError,
                     "CVAppMigrator: Writing placeholder icon for app "
                     "com.example.maps to file://" +
                         staged() + "/Icon.png failed"));
  EXPECT_FALSE(log_.containsFragment("Failed to read"));
}

TEST_F(InstallationTest, PlaceholderNeedsAStagingPlaceAndAReadableBundle) {
  // The staging parent is a file.
  writeFile(temporaryPath() + "/com.zentrel.corvane.migrator", "in the way");
  EXPECT_FALSE(installPlaceholder(bundle_));
  EXPECT_TRUE(log_.containsFragment(
      "CVAppMigrator: Failed to create staged placeholder directory at " + staged()));
  removeItem(temporaryPath());

  const std::string missing = container_ + "/Gone.app";
  EXPECT_FALSE(installPlaceholder(missing));
  EXPECT_TRUE(logged(kLogLevelError, "CVAppMigrator: Failed to create QXBundle for " + missing));
  writeFile(bundle_ + "/Info.plist", "not a property list");
  EXPECT_FALSE(installPlaceholder(bundle_));
  EXPECT_TRUE(logged(kLogLevelError,
                     "CVAppMigrator: Failed to get bundle info dictionary for bundle " + bundle_));
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_FALSE(pathExists(staged()));
}

TEST_F(InstallationTest, IconIsWrittenAsPNGOrReportedMissing) {
  const auto bundle = platform::Bundle::create(directoryURL(bundle_));
  const CVURL iconURL = CVURL::fileURLWithPath(image_.rootPath() + "/icon.png", false);
  EXPECT_FALSE(migrator_->_writeIconForBundle(*bundle, iconURL));
  EXPECT_TRUE(
      logged(kLogLevelError, "CVAppMigrator: Failed to create icon from bundle " + bundle_));
  EXPECT_FALSE(pathExists(iconURL.path()));

  // A destination that cannot be written (a written icon is the placeholder tests' part).
  icons_.icon = opaqueSquare(120);
  const CVURL blocked = CVURL::fileURLWithPath(bundle_ + "/Maps/icon.png", false);
  EXPECT_FALSE(migrator_->_writeIconForBundle(*bundle, blocked));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to write image data to file://" +
                                    bundle_ + "/Maps/icon.png : "));
}

const std::string kIdentifier = "com.example.notes";

class ContainerMigrationTest : public MigratorTest {
 protected:
  void SetUp() override {
    image_.writeBundle(bundle_, CVDictionary{{"QXBundleIdentifier", kIdentifier},
                                             {"QXBundleExecutable", "Notes"},
                                             {"QXBundleDisplayName", "Notes"}});
    writeFile(bundle_ + "/Notes", "binary", 0755);
    writeFile(container_ + "/Documents/note.txt", "dear diary");
    writeFile(container_ + "/Library/Preferences/p.plist", "prefs");
    makeDirectories(data_);
    migrator_ = makeMigrator();
    ASSERT_NE(migrator_, nullptr);
  }

  bool migrate(std::string_view type = "App") {
    return migrator_->_migrateContainerWithInfo(CVDictionary{{"ContainerPath", container_},
                                                             {"BundlePath", bundle_},
                                                             {"BundleIdentifier", kIdentifier},
                                                             {"ContainerType", std::string(type)}});
  }
  void accepted() { acceptInstalls(kIdentifier, data_); }
  // Installs are accepted and the registry already knows the application.
  void acceptedAndKnown() {
    accepted();
    installer_.records[kIdentifier] = record(kIdentifier, data_);
  }

  const std::string container_ = container("C0FFEE");
  const std::string bundle_ = container_ + "/Notes.app";
  const std::string data_ = image_.home("Containers/Data/D1");
  std::unique_ptr<CVAppMigrator> migrator_;
};

TEST_F(ContainerMigrationTest, KnownApplicationSkipsThePlaceholder) {
  acceptedAndKnown();
  EXPECT_TRUE(migrate());
  EXPECT_EQ(installsOfType(platform::kPackageTypePlaceholder), 0u);
  EXPECT_TRUE(logged(kLogLevelNotice,
                     "CVAppMigrator: App com.example.notes is already "
                     "installed, so not creating placeholder."));
}

TEST_F(ContainerMigrationTest, FailuresBeforeTheDataMoveKeepTheContainer) {
  // The placeholder install is refused.
  EXPECT_FALSE(migrate());
  // No bundle record at all.
  EXPECT_FALSE(migrate("VPNBundle"));
  EXPECT_TRUE(logged(kLogLevelError,
                     "CVAppMigrator: Failed to get bundle proxy for identifier " + kIdentifier));
  // A record without a data container: everything the registry knew is logged.
  platform::BundleRecord withoutData = record(kIdentifier, data_);
  withoutData.dataContainerURL = CVURL();
  withoutData.foundBackingBundle = false;
  installer_.records[kIdentifier] = withoutData;
  EXPECT_FALSE(migrate());
  for (const std::string& message : {"Failed to get data container URL for " + kIdentifier,
                                     std::string("Proxy had bundle type User"),
                                     std::string("Proxy did not have backing bundle")})
    EXPECT_TRUE(logged(kLogLevelError, "CVAppMigrator: " + message)) << message;
  EXPECT_TRUE(pathExists(container_ + "/Documents/note.txt"));
  EXPECT_TRUE(pathExists(bundle_));
  // The marker was written each time, so a later pass resumes this container.
  EXPECT_TRUE(pathExists(container_ + "/com.zentrel.corvane.container_migrator.plist"));

  // A data container that is a file: nothing can be moved into it.
  acceptedAndKnown();
  removeItem(data_);
  writeFile(data_, "not a directory");
  EXPECT_FALSE(migrate());
  EXPECT_EQ(installsOfType(platform::kPackageTypeCustomer), 0u);
  EXPECT_TRUE(pathExists(container_ + "/Documents/note.txt"));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to move "));
}

TEST_F(ContainerMigrationTest, PlaceholderBundleSkipsInstallGroupsAndMissedItems) {
  acceptedAndKnown();
  ASSERT_TRUE(
      CVFileManager::defaultManager().markBundleAsPlaceholder(directoryURL(bundle_), nullptr));
  writeFile(container_ + "/Unexpected.dat", "left over");
  EXPECT_TRUE(migrate());
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_FALSE(pathExists(container_));
  EXPECT_EQ(readFile(data_ + "/Documents/note.txt"), "dear diary");
}

TEST_F(ContainerMigrationTest, MissedItemsKeepTheContainerButMarkerFilesAreNoneOfThem) {
  acceptedAndKnown();
  writeFile(container_ + "/Unexpected.dat", "left over");
  writeFile(container_ + "/com.zentrel.corvane.placeholder", "");
  writeFile(container_ + "/com.zentrel.corvane.migration_marker", "");
  EXPECT_FALSE(migrate());
  EXPECT_EQ(readFile(container_ + "/Unexpected.dat"), "left over");
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Found missed items in " + container_ +
                                    " for com.example.notes:"));
  EXPECT_TRUE(log_.containsFragment("Unexpected.dat"));
  EXPECT_FALSE(log_.containsFragment("com.zentrel.corvane.placeholder\""));

  removeItem(container_ + "/Unexpected.dat");
  EXPECT_FALSE(migrator_->_containerHasMissedItems(directoryURL(container_), kIdentifier));
  // A container that cannot be listed counts as holding missed items.
  EXPECT_TRUE(migrator_->_containerHasMissedItems(directoryURL(container_ + "-gone"), kIdentifier));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to enumerate container " + container_ +
                                    "-gone for com.example.notes : "));
}

}  // namespace
