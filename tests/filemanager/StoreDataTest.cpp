// CVFileManager::captureStoreDataFromDirectory: the four store data items,
// copied or moved, and what a failing item does to the rest.
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

#include "platform/Value.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace filemanager_test;
using namespace testing_support;

constexpr const char* kFunction =
    "-[CVFileManager captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:withError:]";

class StoreDataTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeDirectories(temp_ / "src");
    makeDirectories(temp_ / "dst");
  }

  // All four items in the source; "SorvikArtwork" is a directory.
  void makeAllItems() {
    writeFile(temp_ / "src/Manifest.plist", "manifest");
    writeFile(temp_ / "src/SorvikArtwork/art.png", "art");
    writeFile(temp_ / "src/SorvikMetadata.plist", "metadata");
    writeFile(temp_ / "src/GeoJSON", "geo");
  }

  // A file where the "SorvikArtwork" directory must go: copying or moving
  // that item fails.
  void blockArtworkDestination() { writeFile(temp_ / "dst/SorvikArtwork", "in the way"); }

  bool capture(bool doCopy, bool failureIsFatal, CVError* error) {
    return manager_.captureStoreDataFromDirectory(
        temp_.directoryURL("src"), temp_.directoryURL("dst"), doCopy, failureIsFatal, error);
  }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(StoreDataTest, CopyCarriesEveryItemAndKeepsTheSource) {
  makeAllItems();
  writeFile(temp_ / "src/Other.plist", "not store data");
  CVError error = sentinelError();

  EXPECT_TRUE(capture(true, true, &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(readFile(temp_ / "dst/Manifest.plist"), "manifest");
  EXPECT_EQ(readFile(temp_ / "dst/SorvikArtwork/art.png"), "art");
  EXPECT_EQ(readFile(temp_ / "dst/SorvikMetadata.plist"), "metadata");
  EXPECT_EQ(readFile(temp_ / "dst/GeoJSON"), "geo");
  EXPECT_FALSE(pathExists(temp_ / "dst/Other.plist"));
  EXPECT_EQ(entryNames(temp_ / "src").size(), 5u);
}

TEST_F(StoreDataTest, MoveCarriesEveryItemAndEmptiesTheSource) {
  makeAllItems();
  EXPECT_TRUE(capture(false, true, nullptr));
  EXPECT_EQ(entryNames(temp_ / "dst"),
            (std::set<std::string>{"GeoJSON", "Manifest.plist", "SorvikArtwork",
                                   "SorvikMetadata.plist"}));
  EXPECT_TRUE(entryNames(temp_ / "src").empty());
}

TEST_F(StoreDataTest, SourceWithoutAnyItemSucceedsAndMakesNothing) {
  CapturedLog log(platform::installerLog());
  for (const bool doCopy : {true, false}) {
    CVError error = sentinelError();
    EXPECT_TRUE(capture(doCopy, true, &error));
    EXPECT_EQ(error, sentinelError());
  }
  EXPECT_TRUE(entryNames(temp_ / "dst").empty());
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(StoreDataTest, NonFatalFailureIsLoggedAndTheLaterItemsAreStillCarried) {
  for (const bool doCopy : {true, false}) {
    SCOPED_TRACE(doCopy ? "copy" : "move");
    makeAllItems();
    blockArtworkDestination();
    CapturedLog log(platform::installerLog());
    CVError error = sentinelError();

    EXPECT_TRUE(capture(doCopy, false, &error));

    EXPECT_EQ(error, sentinelError());
    EXPECT_EQ(readFile(temp_ / "dst/Manifest.plist"), "manifest");
    EXPECT_EQ(readFile(temp_ / "dst/SorvikMetadata.plist"), "metadata");
    EXPECT_EQ(readFile(temp_ / "dst/GeoJSON"), "geo");
    EXPECT_EQ(readFile(temp_ / "dst/SorvikArtwork"), "in the way");
    const std::string message = std::string(doCopy ? "Failed to copy " : "Failed to move ") +
                                "file://" + (temp_ / "src/SorvikArtwork") + " to file://" +
                                (temp_ / "dst/SorvikArtwork");
    ASSERT_EQ(log.count(), 1u) << log.dump();
    EXPECT_TRUE(log.containsFragment(message + " (Error Domain=")) << log.dump();
    EXPECT_EQ(log.lines()[0].function, kFunction);

    // The next round starts from empty directories.
    ASSERT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("src"), nullptr));
    ASSERT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("dst"), nullptr));
    SetUp();
  }
}

TEST_F(StoreDataTest, FatalFailureStopsWithCode24AndTheItemsLegacyName) {
  makeAllItems();
  blockArtworkDestination();
  CVError error;

  EXPECT_FALSE(capture(true, true, &error));

  EXPECT_EQ(error.domain(), "CVInstallerErrorDomain");
  EXPECT_EQ(error.code(), 24);
  EXPECT_EQ(error.localizedDescription(), "Failed to copy file://" + (temp_ / "src/SorvikArtwork") +
                                              " to file://" + (temp_ / "dst/SorvikArtwork"));
  ASSERT_NE(error.userInfo().findString("LegacyErrorString"), nullptr);
  EXPECT_EQ(*error.userInfo().findString("LegacyErrorString"), "SorvikArtworkCaptureFailed");
  EXPECT_TRUE(error.underlyingError().isPOSIX(EEXIST)) << error.description();
  EXPECT_TRUE(pathExists(temp_ / "dst/Manifest.plist"));  // carried before the failure
  EXPECT_FALSE(pathExists(temp_ / "dst/SorvikMetadata.plist"));
  EXPECT_FALSE(pathExists(temp_ / "dst/GeoJSON"));
}

TEST_F(StoreDataTest, FatalMoveFailureNamesTheMove) {
  makeAllItems();
  blockArtworkDestination();
  CVError error;

  EXPECT_FALSE(capture(false, true, &error));

  EXPECT_EQ(error.code(), 24);
  EXPECT_EQ(error.localizedDescription(), "Failed to move file://" + (temp_ / "src/SorvikArtwork") +
                                              " to file://" + (temp_ / "dst/SorvikArtwork"));
  EXPECT_TRUE(error.underlyingError().isPOSIX(ENOTDIR)) << error.description();
  EXPECT_TRUE(pathExists(temp_ / "src/SorvikMetadata.plist"));
}

}  // namespace
