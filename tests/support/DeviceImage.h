// A device image in a temporary directory: the root, the mobile user's home and
// builders for the files the migrator reads; and the image the tests that run
// the real programs use, with a canary tree beside it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/DeviceRoot.h"
#include "platform/Value.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

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
  static void writePlist(const std::string& path, const CVValue& value);
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

// The image for the tests that run the real programs on it: the system
// build record every run needs, builders for the applications the installer
// accepts, and, beside the image, a canary tree that looks like legacy
// containers (so that a run misled into it would find plenty to move or
// remove). The canary is checked unchanged when the object goes away.
class LegacyImage : public DeviceImage {
 public:
  LegacyImage();
  ~LegacyImage();

  // A place beside the image, outside it (canonical).
  std::string outside(std::string_view relative = "") const;
  std::string canary() const { return outside("canary"); }
  std::string legacy() const { return legacyDirectory(); }

  // An application bundle the installer accepts (identifier, version and,
  // unless `executable` is false, an executable that is there) and, when
  // `groups` is not empty, entitlements naming those application groups.
  void writeApplication(const std::string& path, std::string_view identifier,
                        const std::vector<std::string>& groups = {}, bool executable = true) const;

  // Runs mavrel with `arguments`, capturing its output beside the image.
  ProgramRun mavrel(const std::vector<std::string>& arguments) const;
  // `mavrel migrate --root <root>` with both JSON logs beside the image.
  ProgramRun migrate(const std::vector<std::string>& extraArguments = {}) const;
  std::string migrationLog() const { return readFile(outside("json/migration.json")); }
  std::string installerLog() const { return readFile(outside("json/installer.json")); }
  // Whether the JSON migration log holds `fragment` (which must need no escaping).
  bool logged(std::string_view fragment) const;

 private:
  TemporaryDirectory outside_;
  std::string outsidePath_;
  TreeSnapshot canaryBefore_;
};

}  // namespace testing_support
