// Install throughput for small bundles, next to the lower bound of the same
// work done as plain renames: placeholder installs, customer installs from a
// legacy staging directory, and mkdir + rename of the same bundles. Reported,
// not judged: the numbers depend on the machine and on the build.
//
//   install_bench [--dir DIR] [--files N]   (N applications, default 200)
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/BenchSupport.h"
#include "installer/EmbeddedInstallerService.h"
#include "installer/InstallerFiles.h"
#include "platform/Bundle.h"
#include "platform/InstallOptions.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace {

namespace fs = std::filesystem;

void writeText(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) bench::die("cannot write " + path);
}

// Info.plist and executable of a bundle named `identifier`.
void writeBundle(const std::string& path, const std::string& identifier, bool executable) {
  CVDictionary info{{std::string(platform::kBundleIdentifierKey), identifier},
                    {std::string(platform::kBundleVersionKey), "1"}};
  if (executable) {
    info.set(std::string(platform::kBundleExecutableKey), CVValue("Main"));
    writeText(path + "/Main", "#!binary " + identifier);
    fs::permissions(path + "/Main", fs::perms::owner_all);
  }
  writeText(path + "/Info.plist", platform::encodeXMLPropertyList(CVValue(info)));
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Options options = bench::parseOptions(argc, argv, 200);
  const std::string work = options.directory + "/install-bench";
  fs::remove_all(work);
  const std::string root = work + "/image", home = root + "/private/var/mobile";
  fs::create_directories(home + "/Library");
  const std::size_t count = options.files;
  std::vector<std::string> identifiers;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string identifier = "com.example.app" + std::to_string(i);
    identifiers.push_back(identifier);
    writeBundle(home + "/Applications/T" + std::to_string(i) + "/Staging/Payload/app.app",
                identifier, true);
    writeBundle(work + "/placeholders/" + identifier + ".app", identifier, false);
    writeBundle(work + "/plain/" + std::to_string(i) + "/app.app", identifier, true);
  }
  platform::installerLog().setHandleLevel(platform::kLogLevelError);  // no line per install
  CVGlobalConfiguration configuration{platform::DeviceRoot(root)};
  CVError error;
  auto service = mavrel_installer::EmbeddedInstallerService::open(configuration, &error);
  if (!service) bench::die("cannot open the installer: " + error.description());
  const auto install = [&](const std::string& path, const CVDictionary& installOptions) {
    if (!service->installApplication(CVURL::fileURLWithPath(path, true), installOptions, &error,
                                     [](const CVDictionary&) {}))
      bench::die("install of " + path + " failed: " + error.description());
  };

  auto start = std::chrono::steady_clock::now();
  for (const std::string& identifier : identifiers)
    install(work + "/placeholders/" + identifier + ".app",
            platform::migrationPlaceholderInstallOptions(identifier, CVData{'m'}));
  const double placeholder = secondsSince(start);
  start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < count; ++i)
    install(home + "/Applications/T" + std::to_string(i) + "/Staging",
            platform::migrationCustomerInstallOptions(identifiers[i]));
  const double customer = secondsSince(start);
  // The lower bound of a customer install: a new container and one rename.
  fs::create_directories(work + "/containers");
  start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < count; ++i) {
    const std::string container = work + "/containers/" + std::to_string(i);
    if (!mavrel_installer::makeOwnedDirectory(container, 0755, {}, &error) ||
        !mavrel_installer::renameItem(work + "/plain/" + std::to_string(i) + "/app.app",
                                      container + "/app.app", &error))
      bench::die("plain move failed: " + error.description());
  }
  const double plain = secondsSince(start);
  std::printf(
      "installs of %zu small bundles: placeholder %.0f/s, customer %.0f/s, "
      "plain mkdir+rename %.0f/s\n",
      count, count / placeholder, count / customer, count / plain);
  service.reset();
  fs::remove_all(work);
  return 0;
}
