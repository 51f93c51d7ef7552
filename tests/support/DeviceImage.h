// A device image in a temporary directory: the root, the mobile user's home and
// builders for the files the migrator reads.
#pragma once

#include <string>
#include <string_view>

#include "platform/DeviceRoot.h"
#include "platform/Value.h"
#include "tests/support/TestSupport.h"

namespace testing_support {

class DeviceImage {
 public:
  DeviceImage();

  const platform::DeviceRoot& root() const { return root_; }
  const std::string& rootPath() const { return directory_.path(); }
  // "<root>/private/var/mobile" + "/" + relative (no trailing separator).
  std::string home(std::string_view relative = "") const;
  std::string legacyDirectory() const { return home("Applications"); }
  std::string installMapPath() const { return home("Library/Caches/com.zentrel.corvane.plist"); }
  std::string dataDirectory() const { return home("Library/Corvane"); }

  // Writes `value` as an XML property list at `path`, creating parent directories.
  void writePlist(const std::string& path, const CVValue& value) const;
  // Makes a bundle directory at `path` whose Info.plist holds `info`.
  void writeBundle(const std::string& path, const CVDictionary& info) const;
  // Makes a bundle whose Info.plist names `identifier` (and nothing else).
  void writeBundle(const std::string& path, std::string_view identifier) const;
  // Reads a property list as a dictionary; fails the test when it cannot.
  CVDictionary readPlistDictionary(const std::string& path) const;

 private:
  TemporaryDirectory directory_;
  platform::DeviceRoot root_;
};

}  // namespace testing_support
