#include "shared/configuration/CVGlobalConfiguration.h"

#include <mutex>

#include "platform/Log.h"
#include "platform/linux/LoopDeviceRegistry.h"

namespace {

constexpr std::string_view kInitFunction = "-[CVGlobalConfiguration init]";

// Owner of installed items.
constexpr std::uint32_t kInstalledItemsOwner = 501;

}  // namespace

CVGlobalConfiguration& CVGlobalConfiguration::sharedInstance() {
  static std::once_flag once;
  static CVGlobalConfiguration* instance = nullptr;  // never destroyed
  std::call_once(once, [] { instance = new CVGlobalConfiguration(platform::processDeviceRoot()); });
  return *instance;
}

CVGlobalConfiguration::Services CVGlobalConfiguration::defaultServices(
    const platform::DeviceRoot& root) {
  Services services;
  services.preferences = std::make_shared<platform::PreferencesStore>(root.homeURL());
  services.ioRegistry = [] {
    return std::shared_ptr<platform::IORegistry>(platform::makeLoopDeviceRegistry());
  };
  services.mountTable = std::make_shared<platform::ProcessMountTable>();
  return services;
}

CVGlobalConfiguration::CVGlobalConfiguration(const platform::DeviceRoot& root)
    : CVGlobalConfiguration(root, defaultServices(root)) {}

CVGlobalConfiguration::CVGlobalConfiguration(const platform::DeviceRoot& root, Services services)
    : services_(std::move(services)) {
  using platform::kLogLevelNotice;

  // Background priority is on unless explicitly turned off with a boolean false.
  if (const auto value = copyPreference("LowerInstallPriority")) {
    if (value->isBooleanFalse()) {
      platform::logInstaller(
          kLogLevelNotice, kInitFunction,
          "Not running installation at background priority because of a set default");
      _lowerInstallPriority = false;
    }
  }
  // The skip flags are off unless explicitly turned on with a boolean true.
  if (const auto value = copyPreference("SkipDeviceFamilyCheck"); value && value->isBooleanTrue()) {
    platform::logInstaller(kLogLevelNotice, kInitFunction,
                           "Skipping device family check because of a set default");
    _skipDeviceFamilyCheck = true;
  }
  if (const auto value = copyPreference("SkipThinningCheck"); value && value->isBooleanTrue()) {
    platform::logInstaller(kLogLevelNotice, kInitFunction,
                           "Skipping device thinning check because of a set default");
    _skipThinningCheck = true;
  }
  // Any number is taken as it is, without a range check; other types are ignored.
  if (const auto value = copyPreference("SimultaneousInstallsNumber")) {
    if (const CVNumber* number = value->asNumber()) {
      const long count = static_cast<long>(number->int64Value());
      platform::logInstaller(kLogLevelNotice, kInitFunction,
                             "Setting simultaneous installations allowed to %ld", count);
      _nSimultaneousInstallations = count;
    }
  }
  _homePath = root.homeURL();
  _rootPath = root.rootURL();
  _uid = kInstalledItemsOwner;
  _gid = kInstalledItemsOwner;
}

std::optional<CVValue> CVGlobalConfiguration::copyPreference(std::string_view key) const {
  return services_.preferences->copyValue(key, kCVPreferencesDomain,
                                          platform::kPreferencesCurrentUser,
                                          platform::kPreferencesCurrentHost);
}

std::vector<std::string> CVGlobalConfiguration::appBundleMetadataItemNames() const {
  return {"Manifest.plist", "SorvikArtwork", "SorvikMetadata.plist", "GeoJSON"};
}

std::vector<std::string> CVGlobalConfiguration::appUserDataItemNames() const {
  return {"Documents", "Library", "tmp", "Pormex"};
}

const CVSet& CVGlobalConfiguration::installationBlacklist() const {
  static const CVSet* const blacklist = new CVSet{"com.zentrel.Orvos6Updater"};
  return *blacklist;
}

CVURL CVGlobalConfiguration::oldContainerPath() const {
  return _homePath.URLByAppendingPathComponent("Applications", true);
}

CVURL CVGlobalConfiguration::oldInstallMapPath() const {
  return _homePath.URLByAppendingPathComponent("Library/Caches/com.zentrel.corvane.plist", false);
}

bool CVGlobalConfiguration::haveUpdatedPluginContainersWithParentID() const {
  const auto value = copyPreference("UpdatedPluginContainersWithParentID");
  return value && !value->isBooleanFalse();
}

void CVGlobalConfiguration::setHaveUpdatedPluginContainersWithParentID(bool value) {
  services_.preferences->setValue("UpdatedPluginContainersWithParentID", CVValue(value),
                                  kCVPreferencesDomain, platform::kPreferencesCurrentUser,
                                  platform::kPreferencesCurrentHost);
}
