#include "tests/support/DeviceImage.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/PropertyList.h"

namespace testing_support {

DeviceImage::DeviceImage() : root_(directory_.path()) {
  makeDirectories(home());
}

std::string DeviceImage::home(std::string_view relative) const {
  std::string path = directory_.path() + "/private/var/mobile";
  if (!relative.empty()) path += "/" + std::string(relative);
  return path;
}

void DeviceImage::writePlist(const std::string& path, const CVValue& value) {
  makeDirectories(path.substr(0, path.find_last_of('/')));
  CVError error;
  ASSERT_TRUE(
      platform::writePropertyListAtomically(value, CVURL::fileURLWithPath(path, false), &error))
      << error.description();
}

void DeviceImage::writeBundle(const std::string& path, const CVDictionary& info) const {
  makeDirectories(path);
  writePlist(path + "/Info.plist", info);
}

void DeviceImage::writeBundle(const std::string& path, std::string_view identifier) const {
  writeBundle(path, CVDictionary{{"QXBundleIdentifier", std::string(identifier)}});
}

CVDictionary DeviceImage::readPlistDictionary(const std::string& path) const {
  CVError error;
  auto dictionary =
      platform::readPropertyListDictionary(CVURL::fileURLWithPath(path, false), &error);
  EXPECT_TRUE(dictionary.has_value()) << path << ": " << error.description();
  return dictionary.value_or(CVDictionary());
}

LegacyImage::LegacyImage() : outsidePath_(std::filesystem::canonical(outside_.path()).string()) {
  writePlist(rootPath() + "/System/Library/CoreServices/SystemBuild.plist",
             CVDictionary{{"SystemBuildVersion", "23A344"},
                          {"SystemName", "Corvane OS"},
                          {"SystemVersion", "17.0"}});
  makeDirectories(outside("json"));
  makeDirectories(outside("scratch"));
  writeApplication(canary() + "/Container/Victim.app", "com.example.victim");
  writeFile(canary() + "/Container/Documents/diary.txt", "outside the image");
  writeFile(canary() + "/Group/shared.txt", "shared outside the image");
  writeFile(canary() + "/Documents/notes.txt", "notes outside the image");
  canaryBefore_ = snapshotTree(canary());
}

LegacyImage::~LegacyImage() {
  EXPECT_EQ(listed(differences(canaryBefore_, snapshotTree(canary()), AccessTimes::Ignored)), "")
      << "something outside the image changed";
}

std::string LegacyImage::outside(std::string_view relative) const {
  return relative.empty() ? outsidePath_ : outsidePath_ + "/" + std::string(relative);
}

void LegacyImage::writeApplication(const std::string& path, std::string_view identifier,
                                   const std::vector<std::string>& groups, bool executable) const {
  CVDictionary info{{"QXBundleIdentifier", std::string(identifier)},
                    {"QXBundleExecutable", "App"},
                    {"QXBundleVersion", "1.0"}};
  writeBundle(path, info);
  if (executable) writeFile(path + "/App", "#!/bin/sh\n", 0755);
  if (groups.empty()) return;
  CVArray array;
  for (const std::string& group : groups)
    array.append(group);
  writePlist(path + "/Entitlements.plist", CVDictionary{{"application-groups", std::move(array)}});
}

ProgramRun LegacyImage::mavrel(const std::vector<std::string>& arguments) const {
  // A run that never ends (blocked on a FIFO, walking a cycle) is ended and
  // fails the test instead of hanging the suite.
  ChildOptions options;
  options.outPath = outside("scratch/stdout.txt");
  options.errPath = outside("scratch/stderr.txt");
  options.timeout = std::chrono::minutes(10);
  ProgramRun run = runChild(MAVREL_BINARY_DIR "/bin/mavrel", arguments, options);
  EXPECT_TRUE(run.started && !run.timedOut) << run.describe() << " " << run.err;
  return run;
}

ProgramRun LegacyImage::migrate(const std::vector<std::string>& extraArguments) const {
  std::vector<std::string> arguments{"migrate",
                                     "--root",
                                     rootPath(),
                                     "--log-json",
                                     outside("json/migration.json"),
                                     "--installer-log-json",
                                     outside("json/installer.json")};
  arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
  return mavrel(arguments);
}

bool LegacyImage::logged(std::string_view fragment) const {
  return migrationLog().find(fragment) != std::string::npos;
}

}  // namespace testing_support
