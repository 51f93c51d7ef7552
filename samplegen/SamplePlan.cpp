#include "samplegen/SamplePlan.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <set>
#include <string_view>

#include "samplegen/DeterministicRandom.h"
#include "samplegen/SampleFileWriter.h"
#include "samplegen/SampleNames.h"

namespace samplegen {
namespace {

// Shares of applications with each trait.
constexpr double kBinaryInfoPlistShare = 0.35;
constexpr double kDisplayNameShare = 0.85;
constexpr double kSameVendorShare = 0.25;
constexpr double kVPNPluginShare = 0.04;
constexpr double kStoreShare = 0.9;
constexpr double kManifestShare = 0.3;
constexpr double kGeoJSONShare = 0.03;
constexpr double kLargeFileShare = 0.01;
constexpr double kPrivateGroupShare = 0.04;
constexpr double kVendorGroupShare = 0.7;
constexpr double kEntitlementsWithoutGroupsShare = 0.3;
constexpr std::size_t kMaxGroupMembers = 8;
// From this many applications on, every kind of container is present at least once.
constexpr std::size_t kEveryKindFrom = 4;
constexpr std::uint32_t kIconVariants = 1u << 16;

struct BuiltInEntry {
  std::string_view name;
  BuiltInLocation location;
};
constexpr std::array<BuiltInEntry, 14> kBuiltIns = {{
    {"Calendar", BuiltInLocation::System},
    {"Camera", BuiltInLocation::System},
    {"Clock", BuiltInLocation::System},
    {"Contacts", BuiltInLocation::System},
    {"Mail", BuiltInLocation::System},
    {"Maps", BuiltInLocation::System},
    {"Messages", BuiltInLocation::System},
    {"Music", BuiltInLocation::System},
    {"Notes", BuiltInLocation::System},
    {"Photos", BuiltInLocation::System},
    {"Settings", BuiltInLocation::System},
    {"Weather", BuiltInLocation::System},
    {"Diagnostics", BuiltInLocation::Internal},
    {"HomeScreen", BuiltInLocation::CoreServices},
}};
// The built-in application that a user also installed from the store.
constexpr std::string_view kDuplicatedBuiltIn = "Weather";
constexpr std::string_view kBuiltInVendor = "com.zentrel";

std::string shortVersion(DeterministicRandom& random) {
  return std::to_string(random.between(1, 9)) + "." + std::to_string(random.below(20)) + "." +
         std::to_string(random.below(10));
}

BundlePlan builtInBundle(std::string_view name) {
  BundlePlan bundle;
  bundle.identifier = std::string(kBuiltInVendor) + "." + std::string(name);
  bundle.name = std::string(name);
  bundle.displayName = std::string(name);
  bundle.executable = std::string(name);
  bundle.version = "2101.80";
  bundle.shortVersion = "21.1";
  bundle.infoFormat = PropertyListFormat::Binary;
  bundle.iconStyle = IconStyle::IconFiles;
  return bundle;
}

class Planner {
 public:
  explicit Planner(const SamplePlanOptions& options)
      : options_(options),
        random_(DeterministicRandom::stream(options.seed, std::uint64_t(RandomPurpose::Plan))) {}

  std::optional<SamplePlan> make(CVError* error) {
    plan_.seed = options_.seed;
    planBuiltIns();
    planApplications();
    planGroups();
    planHarbors();
    planVPNOnlyContainers();
    if (!select(options_.missingExecutable, error,
                [](ApplicationPlan& app) { app.bundle.missingExecutable = true; }) ||
        !select(options_.extraItem, error, [](ApplicationPlan& app) { app.extraItem = true; })) {
      return std::nullopt;
    }
    return std::move(plan_);
  }

 private:
  void planBuiltIns() {
    for (const BuiltInEntry& entry : kBuiltIns) {
      BuiltInPlan builtIn;
      builtIn.index = plan_.builtIns.size();
      builtIn.location = entry.location;
      builtIn.bundle = builtInBundle(entry.name);
      builtIn.bundle.iconVariant = static_cast<std::uint32_t>(random_.below(kIconVariants));
      used_.insert(builtIn.bundle.identifier);
      plan_.builtIns.push_back(std::move(builtIn));
    }
  }

  // A fresh identifier under `vendor`, and the product it names.
  std::pair<std::string, ProductName> freshIdentity(const VendorName& vendor,
                                                    std::string_view suffix = "") {
    ProductName product;
    std::string identifier;
    for (int attempt = 0; attempt < 8; ++attempt) {
      product = makeProductName(random_);
      identifier = vendor.identifier + "." + product.token + std::string(suffix);
      if (!used_.contains(identifier)) break;
    }
    // Many applications, few words: number the name until it is new.
    if (used_.contains(identifier)) {
      const ProductName base = product;
      for (int number = 2;; ++number) {
        const std::string numeral = std::to_string(number);
        identifier = vendor.identifier + "." + base.token + numeral + std::string(suffix);
        if (used_.contains(identifier)) continue;
        product.token = base.token + numeral;
        product.bundle = base.bundle + numeral;
        product.display = base.display + " " + numeral;
        break;
      }
    }
    used_.insert(identifier);
    return {identifier, product};
  }

  BundlePlan userBundle(const std::string& identifier, const ProductName& product) {
    BundlePlan bundle;
    bundle.identifier = identifier;
    bundle.name = product.bundle;
    if (random_.chance(kDisplayNameShare)) bundle.displayName = product.display;
    bundle.executable = product.bundle;
    bundle.version = std::to_string(random_.between(1, 900));
    bundle.shortVersion = shortVersion(random_);
    bundle.infoFormat = random_.chance(kBinaryInfoPlistShare) ? PropertyListFormat::Binary
                                                              : PropertyListFormat::XML;
    const double style = random_.unit();
    bundle.iconStyle = style < 0.6    ? IconStyle::IconFiles
                       : style < 0.85 ? IconStyle::IconFile
                                      : IconStyle::Implicit;
    bundle.iconVariant = static_cast<std::uint32_t>(random_.below(kIconVariants));
    return bundle;
  }

  BundlePlan pluginBundle(const std::string& identifier, std::string name) {
    BundlePlan plugin;
    plugin.identifier = identifier;
    plugin.name = name;
    plugin.executable = std::move(name);
    plugin.version = std::to_string(random_.between(1, 90));
    plugin.shortVersion = shortVersion(random_);
    plugin.infoFormat = random_.chance(kBinaryInfoPlistShare) ? PropertyListFormat::Binary
                                                              : PropertyListFormat::XML;
    plugin.iconStyle = IconStyle::Implicit;
    return plugin;
  }

  void addVPNPlugin(ApplicationPlan& app) {
    const std::string identifier = app.bundle.identifier + ".vpnplugin";
    used_.insert(identifier);
    app.vpnPlugin = pluginBundle(identifier, app.bundle.name + "VPN");
  }

  void planApplications() {
    const std::size_t count = options_.applicationCount;
    const std::size_t duplicate = count >= 2 ? random_.below(count) : count;
    for (std::size_t index = 0; index < count; ++index) {
      ApplicationPlan app;
      app.index = index;
      app.containerName = random_.uuid();
      if (index == duplicate) {
        // The user's own, older copy of a built-in application.
        app.builtInDuplicate = true;
        app.vendor = "Zentrel";
        app.bundle = builtInBundle(kDuplicatedBuiltIn);
        app.bundle.version = "320";
        app.bundle.shortVersion = "3.2";
        app.bundle.infoFormat = PropertyListFormat::XML;
        app.bundle.iconVariant = static_cast<std::uint32_t>(random_.below(kIconVariants));
        app.storeMetadata = true;
        vendorOfApp_.push_back(VendorName{"Zentrel", std::string(kBuiltInVendor)});
        plan_.applications.push_back(std::move(app));
        continue;
      }
      VendorName vendor;
      if (index > 0 && random_.chance(kSameVendorShare)) {
        vendor = vendorOfApp_[random_.below(index)];
        if (vendor.identifier == kBuiltInVendor) vendor = makeVendorName(random_);
      } else {
        vendor = makeVendorName(random_);
      }
      auto [identifier, product] = freshIdentity(vendor);
      app.vendor = vendor.display;
      app.bundle = userBundle(identifier, product);
      if (random_.chance(kVPNPluginShare)) addVPNPlugin(app);
      app.storeMetadata = random_.chance(kStoreShare);
      app.manifest = app.storeMetadata && random_.chance(kManifestShare);
      app.geoJSON = random_.chance(kGeoJSONShare);
      app.largeFile = random_.chance(kLargeFileShare);
      app.entitlements = random_.chance(kEntitlementsWithoutGroupsShare);
      vendorOfApp_.push_back(std::move(vendor));
      plan_.applications.push_back(std::move(app));
    }
    if (count < kEveryKindFrom) return;
    // Small images still show every kind of container.
    const auto ordinary = [this] {
      std::size_t index = random_.below(plan_.applications.size());
      while (plan_.applications[index].builtInDuplicate) {
        index = (index + 1) % plan_.applications.size();
      }
      return index;
    };
    const auto has = [this](auto predicate) {
      return std::any_of(plan_.applications.begin(), plan_.applications.end(), predicate);
    };
    if (!has([](const ApplicationPlan& app) { return app.vpnPlugin.has_value(); })) {
      addVPNPlugin(plan_.applications[ordinary()]);
    }
    if (!has([](const ApplicationPlan& app) { return app.largeFile; })) {
      plan_.applications[ordinary()].largeFile = true;
    }
    if (!has([](const ApplicationPlan& app) { return app.geoJSON; })) {
      plan_.applications[ordinary()].geoJSON = true;
    }
  }

  void addGroup(std::string identifier, const std::vector<std::size_t>& members) {
    GroupPlan group;
    group.index = plan_.groups.size();
    group.identifier = std::move(identifier);
    group.containerName = random_.uuid();
    for (std::size_t member : members) {
      ApplicationPlan& app = plan_.applications[member];
      app.groups.push_back(group.identifier);
      app.entitlements = true;
      group.members.push_back(app.bundle.identifier);
    }
    plan_.groups.push_back(std::move(group));
  }

  void planGroups() {
    // Applications of one vendor share a group container; a few applications
    // keep one to themselves (an extension's group, say).
    std::vector<std::string> vendorOrder;
    std::map<std::string, std::vector<std::size_t>> appsOfVendor;
    for (const ApplicationPlan& app : plan_.applications) {
      if (app.builtInDuplicate) continue;
      const std::string& vendor = vendorOfApp_[app.index].identifier;
      auto& apps = appsOfVendor[vendor];
      if (apps.empty()) vendorOrder.push_back(vendor);
      apps.push_back(app.index);
    }
    bool shared = false;
    for (const std::string& vendor : vendorOrder) {
      std::vector<std::size_t> members = appsOfVendor[vendor];
      if (members.size() < 2 || !random_.chance(kVendorGroupShare)) continue;
      if (members.size() > kMaxGroupMembers) members.resize(kMaxGroupMembers);
      addGroup("group." + vendor + ".shared", members);
      shared = true;
    }
    for (std::size_t index = 0; index < plan_.applications.size(); ++index) {
      const ApplicationPlan& app = plan_.applications[index];
      if (!app.builtInDuplicate && random_.chance(kPrivateGroupShare)) {
        addGroup("group." + app.bundle.identifier, {index});
      }
    }
    if (shared || plan_.applications.size() < kEveryKindFrom) return;
    std::vector<std::size_t> candidates;
    for (const ApplicationPlan& app : plan_.applications) {
      if (!app.builtInDuplicate) candidates.push_back(app.index);
    }
    const std::size_t first = random_.below(candidates.size());
    const std::size_t second =
        (first + 1 + random_.below(candidates.size() - 1)) % candidates.size();
    addGroup("group." + vendorOfApp_[candidates[first]].identifier + ".suite",
             {std::min(candidates[first], candidates[second]),
              std::max(candidates[first], candidates[second])});
  }

  void planHarbors() {
    const std::size_t count = std::max<std::size_t>(1, options_.applicationCount / 40);
    for (std::size_t index = 0; index < count; ++index) {
      const VendorName vendor = makeVendorName(random_);
      auto [identifier, product] = freshIdentity(vendor);
      plan_.harbors.push_back(HarborPlan{index, identifier, product.bundle});
    }
  }

  // A VPN-only container holds the data of a VPN plug-in that an application
  // also ships: the plug-in had a container of its own on the old system.
  void planVPNOnlyContainers() {
    const std::size_t apps = options_.applicationCount;
    const std::size_t count = options_.vpnOnlyCount.value_or(
        apps >= kEveryKindFrom ? std::max<std::size_t>(1, apps / 50) : 0);
    std::vector<std::size_t> shipping;
    for (const ApplicationPlan& app : plan_.applications) {
      if (app.vpnPlugin) shipping.push_back(app.index);
    }
    for (std::size_t index = 0; index < plan_.applications.size() && shipping.size() < count;
         ++index) {
      ApplicationPlan& app = plan_.applications[index];
      if (app.vpnPlugin || app.builtInDuplicate) continue;
      addVPNPlugin(app);
      shipping.push_back(index);
    }
    for (std::size_t index = 0; index < count && index < shipping.size(); ++index) {
      VPNOnlyPlan container;
      container.index = index;
      container.containerName = random_.uuid();
      container.plugin = *plan_.applications[shipping[index]].vpnPlugin;
      plan_.vpnOnlyContainers.push_back(std::move(container));
    }
  }

  template <typename Mark>
  bool select(const std::vector<std::string>& selectors, CVError* error, Mark mark) {
    for (const std::string& selector : selectors) {
      ApplicationPlan* found = nullptr;
      const bool isIndex =
          !selector.empty() && std::all_of(selector.begin(), selector.end(), [](char c) {
            return std::isdigit(static_cast<unsigned char>(c));
          });
      if (isIndex && selector.size() < 19) {
        const std::size_t index = std::stoull(selector);
        if (index < plan_.applications.size()) found = &plan_.applications[index];
      } else {
        for (ApplicationPlan& app : plan_.applications) {
          if (app.bundle.identifier == selector) found = &app;
        }
      }
      if (found == nullptr) {
        CVSetError(error, sampleGenError(kSampleGenBadOptionError,
                                         "No application \"" + selector +
                                             "\" in the image: name an application by its "
                                             "identifier or by its index (the image has " +
                                             std::to_string(plan_.applications.size()) +
                                             " applications)"));
        return false;
      }
      mark(*found);
    }
    return true;
  }

  const SamplePlanOptions& options_;
  DeterministicRandom random_;
  SamplePlan plan_;
  std::set<std::string> used_;
  std::vector<VendorName> vendorOfApp_;
};

}  // namespace

std::optional<SamplePlan> makeSamplePlan(const SamplePlanOptions& options, CVError* error) {
  return Planner(options).make(error);
}

}  // namespace samplegen
