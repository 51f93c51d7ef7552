#include "tests/support/DeviceImage.h"

#include <gtest/gtest.h>

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

void DeviceImage::writePlist(const std::string& path, const CVValue& value) const {
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

}  // namespace testing_support
