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
//
//   MAVREL_TEST_SIGNAL="TERM" or "INT"  sends the signal to its own process
//       during the pass, then reports an entry (a safe point to stop at);
//   MAVREL_TEST_SIGNAL="INT,INT"         sends it twice, then waits in the
//       middle of its entry for the host to stop the run.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "platform/InstallerService.h"
#include "platform/MavrelMigrator.h"

namespace {

class DamagingMigrator final : public MavrelMigrator {
 public:
  DamagingMigrator(platform::ApplicationRegistry& registry, MavrelMigrationObserver* observer)
      : registry_(registry), observer_(observer) {}

  std::string dataClassName() const override { return "DamagingMigrator"; }
  float estimatedDuration() const override { return 1.0f; }
  float migrationProgress() const override { return 1.0f; }

  bool performMigration() override {
    if (const char* signal = std::getenv("MAVREL_TEST_SIGNAL")) interrupt(signal);
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
  void interrupt(std::string_view request) {
    const int number = request.starts_with("INT") ? SIGINT : SIGTERM;
    const std::string path = "/DamagingMigrator/entry";
    if (request.find(',') == std::string_view::npos) {
      ::kill(::getpid(), number);
      if (observer_ != nullptr) observer_->migrationEntryBegan(path, "com.example.signalled");
      return;
    }
    if (observer_ != nullptr) observer_->migrationEntryBegan(path, "com.example.signalled");
    ::kill(::getpid(), number);
    ::kill(::getpid(), number);
    for (;;)
      ::pause();
  }

  platform::ApplicationRegistry& registry_;
  MavrelMigrationObserver* observer_;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) MavrelMigrator* MavrelCreateMigrator(
    const MavrelHostServices* services) {
  if (services == nullptr || services->registry == nullptr) return nullptr;
  return new DamagingMigrator(*services->registry, services->observer);
}
