// A migrator plug-in for the host's tests, loaded after the real one (plug-ins
// run in name order). Its pass always reports success; the environment says
// what it does first:
//   MAVREL_TEST_DAMAGE="<action>:<identifier>:<path>", <path> relative to the
//       application's data container: "remove" removes the file, "corrupt"
//       changes its first byte, "unmove" moves it back below the directory
//       MAVREL_TEST_LEGACY_CONTAINER names (a move that never happened);
//   MAVREL_TEST_SIGNAL="TERM" or "INT" sends the signal to its own process,
//       then reports an entry (a safe point to stop at); "INT,INT" sends it
//       twice, then waits in the middle of its entry for the host to stop.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
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
    std::istringstream fields(request);
    std::string action, identifier, relative;
    if (!std::getline(fields, action, ':') || !std::getline(fields, identifier, ':') ||
        !std::getline(fields, relative))
      return true;
    const auto record = registry_.bundleRecordForIdentifier(identifier);
    if (!record || !record->dataContainerURL) return true;
    const std::filesystem::path file =
        std::filesystem::path(record->dataContainerURL.path()) / relative;
    if (action == "remove") {
      std::filesystem::remove(file);
    } else if (action == "unmove") {
      const char* legacy = std::getenv("MAVREL_TEST_LEGACY_CONTAINER");
      if (legacy == nullptr) return true;
      const std::filesystem::path back = std::filesystem::path(legacy) / relative;
      std::filesystem::create_directories(back.parent_path());
      std::filesystem::rename(file, back);
    } else if (action == "corrupt") {
      std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
      const char byte = static_cast<char>(stream.get() ^ 0x5A);
      stream.seekp(0);
      stream.put(byte);
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
