#include "samplegen/LegacyImageGenerator.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <system_error>
#include <thread>

#include "platform/DeviceRoot.h"
#include "platform/FileIOPosix.h"
#include "platform/SystemVersion.h"
#include "platform/linux/Paths.h"
#include "samplegen/DeterministicRandom.h"
#include "samplegen/SampleBundles.h"
#include "samplegen/SampleContent.h"
#include "samplegen/SampleFileWriter.h"
#include "samplegen/SampleIcons.h"
#include "samplegen/SampleMaps.h"
#include "samplegen/SamplePlan.h"
#include "samplegen/SampleStoreMetadata.h"
#include "samplegen/SampleUserData.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace samplegen {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kExtraItemName = "Unexpected.dat";
constexpr std::string_view kGroupContainersDirectory = "Library/GroupContainers";
constexpr std::string_view kHarborsDirectory = "Library/Harbors";
// Writing is mostly file-system calls, which gain little from more threads.
constexpr std::size_t kMaxDefaultThreads = 4;

const char* formatName(PropertyListFormat format) {
  return format == PropertyListFormat::Binary ? "binary" : "xml";
}

bool isEmptyDirectory(const std::string& path, CVError* error) {
  std::error_code status;
  const fs::directory_iterator entries(path, status);
  if (status) {
    CVSetError(error, platform::posixCallError(status.value(), "opendir", path));
    return false;
  }
  if (entries != fs::directory_iterator()) {
    CVSetError(error, sampleGenError(kSampleGenRootNotEmptyError,
                                     "The image root " + path + " is not empty"));
    return false;
  }
  return true;
}

// Where things go, as paths relative to the root.
struct Locations {
  std::string legacy;  // the legacy container directory
  std::string installMap;
  std::string dataDirectory;  // holds the harbor map
  std::string systemBuild;
  std::string systemApps;
  std::string internalApps;
  std::string coreServices;
  std::string groupContainers;
  std::string harbors;
  std::vector<std::string> userDataItems;
  std::vector<std::string> metadataItems;
};

class Generator {
 public:
  Generator(const GeneratorOptions& options, SamplePlan plan)
      : options_(options), plan_(std::move(plan)), writer_(options.root) {}

  std::optional<ImageManifest> run(CVError* error) {
    const auto start = std::chrono::steady_clock::now();
    if (!locate()) return fail(error);
    manifest_.root = options_.root;
    manifest_.seed = options_.seed;
    manifest_.dataScale = options_.dataScale;
    manifest_.legacyDirectory = writer_.absolutePath(locations_.legacy);
    manifest_.installMapPath = writer_.absolutePath(locations_.installMap);
    manifest_.harborMapPath =
        writer_.absolutePath(joinPath(locations_.dataDirectory, "SafeHarbor.plist"));
    manifest_.systemBuildPath = writer_.absolutePath(locations_.systemBuild);
    manifest_.strayNotePath =
        writer_.absolutePath(joinPath(locations_.legacy, "WhereDidMyApplicationsGo.txt"));

    if (!writeBuiltIns() || !writeApplications() || !writeVPNOnlyContainers() ||
        !writeGroupContainers() || !writeHarbors() || !writeMaps()) {
      return fail(error);
    }
    writer_.writeFile(kSampleImageStampName, "mavrel-mkimage seed " +
                                                 std::to_string(options_.seed) + " applications " +
                                                 std::to_string(options_.applicationCount) + "\n");
    if (writer_.failed()) return fail(error);

    manifest_.files = writer_.fileCount();
    manifest_.directories = writer_.directoryCount();
    manifest_.bytes = writer_.byteCount();
    manifest_.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return std::move(manifest_);
  }

 private:
  std::optional<ImageManifest> fail(CVError* error) {
    CVSetError(error, writer_.error());
    return std::nullopt;
  }

  // The path of `url` relative to the root; the writer refuses anything else.
  bool relative(const CVURL& url, std::string& out) {
    const std::string& path = url.path();
    const std::string prefix = options_.root + "/";
    if (path.compare(0, prefix.size(), prefix) != 0) {
      writer_.reportFailure(sampleGenError(
          kSampleGenBadPathError, path + " is not inside the image root " + options_.root));
      return false;
    }
    out = path.substr(prefix.size());
    return true;
  }

  // The locations the migrator and the configuration's scans read, from the
  // configuration itself.
  bool locate() {
    CVGlobalConfiguration configuration{platform::DeviceRoot(options_.root)};
    locations_.userDataItems = configuration.appUserDataItemNames();
    locations_.metadataItems = configuration.appBundleMetadataItemNames();
    const CVURL home = configuration.homeDirectory();
    return relative(configuration.oldContainerPath(), locations_.legacy) &&
           relative(configuration.oldInstallMapPath(), locations_.installMap) &&
           relative(configuration.dataDirectory(), locations_.dataDirectory) &&
           relative(platform::DeviceSystemVersion(configuration.rootDirectory()).fileURL(),
                    locations_.systemBuild) &&
           relative(configuration.systemAppsDirectory(), locations_.systemApps) &&
           relative(configuration.internalAppsDirectory(), locations_.internalApps) &&
           relative(configuration.coreServicesDirectory(), locations_.coreServices) &&
           relative(home.URLByAppendingPathComponent(kGroupContainersDirectory, true),
                    locations_.groupContainers) &&
           relative(home.URLByAppendingPathComponent(kHarborsDirectory, true), locations_.harbors);
  }

  bool writeBuiltIns() {
    for (const BuiltInPlan& builtIn : plan_.builtIns) {
      DeterministicRandom random = DeterministicRandom::stream(
          plan_.seed, std::uint64_t(RandomPurpose::BuiltIn), builtIn.index);
      const std::string* directory = &locations_.systemApps;
      const char* location = "system";
      if (builtIn.location == BuiltInLocation::Internal) {
        directory = &locations_.internalApps;
        location = "internal";
      } else if (builtIn.location == BuiltInLocation::CoreServices) {
        directory = &locations_.coreServices;
        location = "coreServices";
      }
      const std::string bundle = joinPath(*directory, builtIn.bundle.name + ".app");
      ApplicationBundleTraits traits;
      traits.codeSignature = false;
      if (!writeApplicationBundle(writer_, icons_, bundle, builtIn.bundle, traits, random)) {
        return false;
      }
      manifest_.builtIns.push_back(
          BuiltInManifest{builtIn.bundle.identifier, writer_.absolutePath(bundle), location});
      systemEntries_.push_back(
          InstallMapEntry{builtIn.bundle.identifier, "System", "", writer_.absolutePath(bundle), "",
                          builtIn.bundle.version, builtIn.bundle.shortVersion});
    }
    return true;
  }

  // One legacy application container. Called from several threads at once,
  // each with a writer of its own; touches nothing else that is shared but
  // the icon cache, which locks.
  bool writeApplication(SampleFileWriter& writer, const ApplicationPlan& app,
                        ContainerManifest& entry) {
    DeterministicRandom random = DeterministicRandom::stream(
        plan_.seed, std::uint64_t(RandomPurpose::Application), app.index);
    const std::string container = joinPath(locations_.legacy, app.containerName);
    const std::string bundle = joinPath(container, app.bundle.name + ".app");
    ApplicationBundleTraits traits;
    traits.entitlements = app.entitlements;
    traits.groups = app.groups;
    writeApplicationBundle(writer, icons_, bundle, app.bundle, traits, random);

    entry.identifier = app.bundle.identifier;
    entry.containerType = "App";
    entry.containerPath = writer.absolutePath(container);
    entry.bundlePath = writer.absolutePath(bundle);
    entry.infoPlistFormat = formatName(app.bundle.infoFormat);
    entry.groups = app.groups;
    entry.missingExecutable = app.bundle.missingExecutable;
    entry.extraItem = app.extraItem;
    entry.builtInDuplicate = app.builtInDuplicate;
    if (app.vpnPlugin) {
      const std::string plugin = joinPath(container, app.vpnPlugin->name + ".vpnplugin");
      writeVPNPluginBundle(writer, plugin, *app.vpnPlugin, random);
      entry.vpnPluginPath = writer.absolutePath(plugin);
    }
    const UserDataRecipe recipe{app.bundle.identifier, app.bundle.name, app.largeFile,
                                options_.dataScale};
    const DataTally data =
        writeApplicationUserData(writer, container, locations_.userDataItems, recipe, random);
    entry.dataFiles = data.files;
    entry.dataBytes = data.bytes;
    writeStoreMetadata(writer, icons_, container, app, locations_.metadataItems, random,
                       entry.storeMetadata);
    if (app.extraItem) {
      writeBinaryFile(writer, joinPath(container, kExtraItemName), random.between(16, 4096), "",
                      random);
    }
    return !writer.failed();
  }

  // The containers are independent of one another (each draws from a stream
  // of its own), so they are written by several threads; the manifest keeps
  // the plan's order.
  bool writeApplications() {
    const std::size_t count = plan_.applications.size();
    std::vector<ContainerManifest> entries(count);
    const std::size_t workers = std::max<std::size_t>(1, std::min(threadCount(), count));
    std::vector<std::unique_ptr<SampleFileWriter>> writers;
    for (std::size_t i = 0; i < workers; ++i) {
      writers.push_back(std::make_unique<SampleFileWriter>(options_.root));
    }
    std::atomic<std::size_t> next{0};
    std::atomic<bool> stop{false};
    const auto work = [&](SampleFileWriter& writer) {
      while (!stop.load()) {
        const std::size_t index = next.fetch_add(1);
        if (index >= count) return;
        if (!writeApplication(writer, plan_.applications[index], entries[index])) stop = true;
      }
    };
    {
      std::vector<std::jthread> threads;
      for (std::size_t i = 1; i < workers; ++i)
        threads.emplace_back(work, std::ref(*writers[i]));
      work(*writers[0]);
    }
    for (const auto& writer : writers) {
      if (writer->failed()) writer_.reportFailure(writer->error());
      writer_.addCounts(*writer);
    }
    if (writer_.failed()) return false;

    for (std::size_t index = 0; index < count; ++index) {
      const ContainerManifest& entry = entries[index];
      const BundlePlan& bundle = plan_.applications[index].bundle;
      userEntries_.push_back(InstallMapEntry{entry.identifier, "User", entry.containerPath,
                                             entry.bundlePath, entry.vpnPluginPath, bundle.version,
                                             bundle.shortVersion});
      manifest_.containers.push_back(std::move(entries[index]));
    }
    return true;
  }

  std::size_t threadCount() const {
    if (options_.threads > 0) return options_.threads;
    return std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, kMaxDefaultThreads);
  }

  bool writeVPNOnlyContainers() {
    for (const VPNOnlyPlan& vpn : plan_.vpnOnlyContainers) {
      DeterministicRandom random = DeterministicRandom::stream(
          plan_.seed, std::uint64_t(RandomPurpose::VPNOnlyContainer), vpn.index);
      const std::string container = joinPath(locations_.legacy, vpn.containerName);
      const std::string plugin = joinPath(container, vpn.plugin.name + ".vpnplugin");
      writeVPNPluginBundle(writer_, plugin, vpn.plugin, random);
      const DataTally data =
          writePreferencesOnly(writer_, container, vpn.plugin.identifier, random);
      if (writer_.failed()) return false;

      ContainerManifest entry;
      entry.identifier = vpn.plugin.identifier;
      entry.containerType = "VPNBundle";
      entry.containerPath = writer_.absolutePath(container);
      entry.bundlePath = writer_.absolutePath(plugin);
      entry.infoPlistFormat = formatName(vpn.plugin.infoFormat);
      entry.dataFiles = data.files;
      entry.dataBytes = data.bytes;
      userEntries_.push_back(InstallMapEntry{entry.identifier, "VPNPlugin", entry.containerPath,
                                             entry.bundlePath, "", vpn.plugin.version,
                                             vpn.plugin.shortVersion});
      manifest_.containers.push_back(std::move(entry));
    }
    return true;
  }

  bool writeGroupContainers() {
    for (const GroupPlan& group : plan_.groups) {
      DeterministicRandom random = DeterministicRandom::stream(
          plan_.seed, std::uint64_t(RandomPurpose::GroupContainer), group.index);
      const std::string directory = joinPath(locations_.groupContainers, group.containerName);
      const DataTally data =
          writeGroupContainerData(writer_, directory, group.identifier, options_.dataScale, random);
      if (writer_.failed()) return false;
      manifest_.groupContainers.push_back(
          GroupContainerManifest{group.identifier, writer_.absolutePath(directory), group.members,
                                 data.files, data.bytes});
    }
    return true;
  }

  bool writeHarbors() {
    for (const HarborPlan& harbor : plan_.harbors) {
      DeterministicRandom random = DeterministicRandom::stream(
          plan_.seed, std::uint64_t(RandomPurpose::Harbor), harbor.index);
      const std::string directory = joinPath(locations_.harbors, harbor.identifier);
      const UserDataRecipe recipe{harbor.identifier, harbor.name, false, options_.dataScale};
      const DataTally data = writeHarborData(writer_, directory, recipe, random);
      if (writer_.failed()) return false;
      manifest_.harbors.push_back(HarborManifest{harbor.identifier, writer_.absolutePath(directory),
                                                 data.files, data.bytes});
    }
    return true;
  }

  // The maps hold device paths, as a device writes them: "/private/var/..."
  // in the install map, the "/var/..." form in the harbor map.
  std::string devicePath(const std::string& hostPath, bool viaVar = false) const {
    const platform::DeviceRoot root(writer_.absolutePath(""));
    std::string path = root.devicePathForHostPath(hostPath).value_or(hostPath);
    constexpr std::string_view kPrivateVar = "/private/var/";
    if (viaVar && path.starts_with(kPrivateVar)) path.erase(0, std::string_view("/private").size());
    return path;
  }

  std::vector<InstallMapEntry> withDevicePaths(std::vector<InstallMapEntry> entries) const {
    for (InstallMapEntry& entry : entries) {
      for (std::string* path : {&entry.containerPath, &entry.bundlePath, &entry.vpnPluginPath}) {
        if (!path->empty()) *path = devicePath(*path);
      }
    }
    return entries;
  }

  bool writeMaps() {
    std::vector<GroupContainerManifest> groups = manifest_.groupContainers;
    for (GroupContainerManifest& group : groups)
      group.path = devicePath(group.path);
    std::vector<HarborManifest> harbors = manifest_.harbors;
    for (HarborManifest& harbor : harbors)
      harbor.path = devicePath(harbor.path, /*viaVar=*/true);
    writePropertyListFile(
        writer_, locations_.installMap,
        makeInstallMap(withDevicePaths(userEntries_), withDevicePaths(systemEntries_), groups),
        PropertyListFormat::XML);
    writePropertyListFile(writer_, joinPath(locations_.dataDirectory, "SafeHarbor.plist"),
                          makeHarborMap(harbors), PropertyListFormat::XML);
    writePropertyListFile(writer_, locations_.systemBuild, makeSystemBuild(),
                          PropertyListFormat::XML);
    writer_.writeFile(joinPath(locations_.legacy, "WhereDidMyApplicationsGo.txt"), strayNoteText());
    return !writer_.failed();
  }

  const GeneratorOptions& options_;
  SamplePlan plan_;
  SampleFileWriter writer_;
  SampleIcons icons_;
  Locations locations_;
  ImageManifest manifest_;
  std::vector<InstallMapEntry> userEntries_;
  std::vector<InstallMapEntry> systemEntries_;
};

}  // namespace

std::optional<std::string> prepareImageRoot(std::string_view path, bool replace, CVError* error) {
  if (path.empty()) {
    CVSetError(error, sampleGenError(kSampleGenBadPathError, "The image root is empty"));
    return std::nullopt;
  }
  std::error_code status;
  std::string absolute = fs::absolute(fs::path(path), status).lexically_normal().string();
  while (absolute.size() > 1 && absolute.back() == '/')
    absolute.pop_back();

  struct stat item;
  if (platform::sys::lstatPath(absolute.c_str(), &item) != 0) {
    if (errno != ENOENT || platform::sys::makeDirectory(absolute.c_str(), 0755) != 0) {
      CVSetError(error, platform::posixCallError(errno, "mkdir", absolute));
      return std::nullopt;
    }
  } else if (S_ISLNK(item.st_mode)) {
    CVSetError(error, sampleGenError(kSampleGenBadPathError,
                                     "The image root " + absolute + " is a symbolic link"));
    return std::nullopt;
  } else if (!S_ISDIR(item.st_mode)) {
    CVSetError(error, platform::posixCallError(ENOTDIR, "opendir", absolute));
    return std::nullopt;
  } else {
    CVError emptiness;
    if (!isEmptyDirectory(absolute, &emptiness)) {
      if (emptiness.domain() != kSampleGenErrorDomain) {
        CVSetError(error, emptiness);
        return std::nullopt;
      }
      struct stat stamp;
      const std::string stampPath = absolute + "/" + std::string(kSampleImageStampName);
      if (!replace || platform::sys::lstatPath(stampPath.c_str(), &stamp) != 0 ||
          !S_ISREG(stamp.st_mode)) {
        CVSetError(error,
                   sampleGenError(kSampleGenRootNotEmptyError,
                                  "The image root " + absolute + " is not empty" +
                                      (replace ? " and holds no image made by mavrel-mkimage"
                                               : "; --force replaces an image mavrel-mkimage made "
                                                 "there before")));
        return std::nullopt;
      }
      // remove_all removes symbolic links themselves and never follows them.
      for (const fs::directory_entry& entry : fs::directory_iterator(absolute, status)) {
        fs::remove_all(entry.path(), status);
        if (status) break;
      }
      if (status) {
        CVSetError(error, platform::posixCallError(status.value(), "remove", absolute));
        return std::nullopt;
      }
    }
  }
  const fs::path canonical = fs::canonical(absolute, status);
  if (status) {
    CVSetError(error, platform::posixCallError(status.value(), "realpath", absolute));
    return std::nullopt;
  }
  return canonical.string();
}

std::optional<ImageManifest> generateLegacyImage(const GeneratorOptions& options, CVError* error) {
  if (options.root.empty() || options.root.front() != '/' || options.root == "/" ||
      options.root.back() == '/') {
    CVSetError(error, sampleGenError(kSampleGenBadPathError,
                                     "The image root must be an absolute path other than / "
                                     "without a trailing separator: \"" +
                                         options.root + "\""));
    return std::nullopt;
  }
  if (!(options.dataScale >= 0)) {
    CVSetError(error, sampleGenError(kSampleGenBadOptionError,
                                     "The data scale must be a number of at least 0"));
    return std::nullopt;
  }
  struct stat item;
  if (platform::sys::lstatPath(options.root.c_str(), &item) != 0) {
    CVSetError(error, platform::posixCallError(errno, "lstat", options.root));
    return std::nullopt;
  }
  if (!S_ISDIR(item.st_mode)) {
    CVSetError(error, sampleGenError(kSampleGenBadPathError,
                                     "The image root " + options.root + " is not a directory"));
    return std::nullopt;
  }
  if (!isEmptyDirectory(options.root, error)) return std::nullopt;

  SamplePlanOptions planOptions;
  planOptions.seed = options.seed;
  planOptions.applicationCount = options.applicationCount;
  planOptions.vpnOnlyCount = options.vpnOnlyCount;
  planOptions.missingExecutable = options.missingExecutable;
  planOptions.extraItem = options.extraItem;
  auto plan = makeSamplePlan(planOptions, error);
  if (!plan) return std::nullopt;
  return Generator(options, std::move(*plan)).run(error);
}

}  // namespace samplegen
