// A migrator plug-in for the host's tests, loaded after the real one (plug-ins
// run in name order): its pass damages user data at its new place as the
// environment variable MAVREL_TEST_DAMAGE says, so that the tests can see
// `mavrel migrate --verify` catch a lost or changed file.
//
//   MAVREL_TEST_DAMAGE="remove:<identifier>:<path>"   removes the file
//   MAVREL_TEST_DAMAGE="corrupt:<identifier>:<path>"  changes its first byte
//   MAVREL_TEST_DAMAGE="unmove:<identifier>:<path>"   moves it back below the
//       directory MAVREL_TEST_LEGACY_CONTAINER names, as a move that never happened
//
// <path> is relative to the application's data container. Without the
// variable the pass does nothing; it always reports success.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/InstallerService.h"
#include "platform/MavrelMigrator.h"

namespace {

class DamagingMigrator final : public MavrelMigrator {
 public:
  explicit DamagingMigrator(platform::ApplicationRegistry& registry) : registry_(registry) {}

  std::string dataClassName() const override { return "DamagingMigrator"; }
  float estimatedDuration() const override { return 1.0f; }
  float migrationProgress() const override { return 1.0f; }

  bool performMigration() override {
    const char* request = std::getenv("MAVREL_TEST_DAMAGE");
    if (request == nullptr) return true;
    const std::string text(request);
    const std::size_t first = text.find(':');
    const std::size_t second = text.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) return true;
    const std::string action = text.substr(0, first);
    const std::string identifier = text.substr(first + 1, second - first - 1);
    const auto record = registry_.bundleRecordForIdentifier(identifier);
    if (!record || !record->dataContainerURL) return true;
    const std::filesystem::path file =
        std::filesystem::path(record->dataContainerURL.path()) / text.substr(second + 1);
    if (action == "remove") {
      std::filesystem::remove(file);
    } else if (action == "unmove") {
      const char* legacy = std::getenv("MAVREL_TEST_LEGACY_CONTAINER");
      if (legacy == nullptr) return true;
      const std::filesystem::path back = std::filesystem::path(legacy) / text.substr(second + 1);
      std::filesystem::create_directories(back.parent_path());
      std::filesystem::rename(file, back);
    } else if (action == "corrupt") {
      std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
      char byte = 0;
      stream.read(&byte, 1);
      stream.seekp(0);
      byte = static_cast<char>(byte ^ 0x5A);
      stream.write(&byte, 1);
    }
    return true;
  }

 private:
  platform::ApplicationRegistry& registry_;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) MavrelMigrator* MavrelCreateMigrator(
    const MavrelHostServices* services) {
  if (services == nullptr || services->registry == nullptr) return nullptr;
  return new DamagingMigrator(*services->registry);
}
