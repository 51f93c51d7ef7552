#include "tests/reliability/SweepWorkspace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "host/SafetyNetManifest.h"
#include "samplegen/LegacyImageGenerator.h"
#include "shared/support/CVFileDigest.h"
#include "tests/support/JSON.h"
#include "tests/support/LegacyImage.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

namespace reliability {
namespace {

namespace fs = std::filesystem;
using testing_support::JSONValue;

const std::string kMavrel = MAVREL_BINARY_DIR "/bin/mavrel";
constexpr const char* kUserDataItems[] = {"Documents", "Library", "tmp", "Pormex"};
constexpr const char* kDataContainers = "/private/var/mobile/Containers/Data";

// Left out of tree snapshots: written by every run whatever it does.
bool isRunBookkeeping(const std::string& relative) {
  return relative.rfind("private/var/mobile/Library/Logs", 0) == 0 ||
         relative.rfind("private/var/tmp/mavrel", 0) == 0 ||
         fs::path(relative).filename().string().rfind("ApplicationRegistry", 0) == 0;
}

bool isRegularFile(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

// One line per item below `directory` (not following links), by relative path.
TreeSnapshot snapshotBelow(const std::string& directory, bool withTimes, bool skipBookkeeping) {
  testing_support::TreeDescription how;
  how.times = withTimes;
  how.ownersAndAttributes = false;
  how.relativeKeys = true;
  how.skipped = [skipBookkeeping](const std::string& relative) {
    return relative.empty() || (skipBookkeeping && isRunBookkeeping(relative));
  };
  return testing_support::describeTree(directory, how);
}

// ".<name>.<16 lowercase hex digits>.tmp", the name of an atomic write's
// aside file.
bool isAsideName(const std::string& name) {
  static const std::regex aside(R"(\..+\.[0-9a-f]{16}\.tmp)");
  return std::regex_match(name, aside);
}

// UUIDs (8-4-4-4-12 upper-case hex digits) replaced by "<uuid>".
std::string withGenericUUIDs(const std::string& text) {
  static const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
  return std::regex_replace(text, uuid, "<uuid>");
}

std::string firstComponent(const std::string& relative) {
  return relative.substr(0, relative.find('/'));
}

}  // namespace

std::vector<std::string> childEnvironment(bool traced) {
  return {
      std::string("ASAN_OPTIONS=exitcode=77:abort_on_error=0:detect_leaks=") + (traced ? "0" : "1"),
      "UBSAN_OPTIONS=exitcode=78:print_stacktrace=1", "LSAN_OPTIONS=exitcode=79"};
}

bool endedByTheHost(const ChildOutcome& outcome) {
  return outcome.exited() && outcome.exitCode >= 0 && outcome.exitCode <= 3;
}

std::string ImageCheck::describe() const {
  std::ostringstream text;
  const auto list = [&text](const char* title, const std::vector<std::string>& items) {
    if (items.empty()) return;
    text << title << " (" << items.size() << "):";
    std::size_t shown = 0;
    for (const std::string& item : items) {
      if (++shown > 8) {
        text << "\n    ...";
        break;
      }
      text << "\n    " << item;
    }
    text << "\n";
  };
  list("lost", lost);
  list("changed", changed);
  list("still at the legacy place after a successful run", stranded);
  list("registered but missing", missingContainers);
  list("changed outside the image", outsideChanges);
  if (!listingError.empty()) text << "mavrel apps: " << listingError << "\n";
  return text.str();
}

std::unique_ptr<SweepWorkspace> SweepWorkspace::create(const std::string& base,
                                                       const ImageSettings& settings,
                                                       std::string* reason) {
  std::unique_ptr<SweepWorkspace> workspace(new SweepWorkspace());
  workspace->base_ = base;
  workspace->root_ = base + "/image";
  workspace->template_ = base + "/template";
  workspace->canary_ = base + "/canary";
  workspace->scratch_ = base + "/scratch";
  std::error_code error;
  fs::create_directories(workspace->scratch_, error);
  fs::create_directories(workspace->canary_ + "/nested", error);
  if (error) {
    *reason = "cannot make " + base + ": " + error.message();
    return nullptr;
  }
  // The canary: what a stray write or removal outside the image would hit.
  std::ofstream(workspace->canary_ + "/keep.txt") << "the migration must not touch this\n";
  std::ofstream(workspace->canary_ + "/nested/Documents.dat") << "nor this\n";
  fs::create_symlink(workspace->root_, workspace->canary_ + "/image-link", error);

  CVError generatorError;
  const auto root = samplegen::prepareImageRoot(workspace->root_, false, &generatorError);
  if (!root) {
    *reason = "cannot prepare " + workspace->root_ + ": " + generatorError.description();
    return nullptr;
  }
  samplegen::GeneratorOptions options;
  options.root = *root;
  options.applicationCount = settings.applications;
  options.vpnOnlyCount = settings.vpnOnly;
  options.seed = settings.seed;
  options.dataScale = settings.dataScale;
  options.threads = 1;
  auto manifest = samplegen::generateLegacyImage(options, &generatorError);
  if (!manifest) {
    *reason = "cannot generate the image: " + generatorError.description();
    return nullptr;
  }
  workspace->root_ = *root;
  workspace->manifest_ = std::move(*manifest);
  if (!workspace->recordData(reason)) return nullptr;
  const ChildOutcome copy = runChild("cp", {"-a", workspace->root_, workspace->template_});
  if (copy.exitCode != 0) {
    *reason = "cp -a of the image failed: " + copy.describe();
    return nullptr;
  }
  workspace->canarySnapshot_ = snapshotBelow(workspace->canary_, true, false);
  return workspace;
}

bool SweepWorkspace::recordData(std::string* reason) {
  const auto record = [this](const std::string& owner, const std::string& kind,
                             const std::string& legacy, const std::string& below) {
    const std::string prefix = below.empty() ? "" : below + "/";
    for (const auto& [relative, digest] : testing_support::digestsBelow(legacy + "/" + below))
      data_.push_back({owner, kind, legacy, prefix + relative, digest});
  };
  std::uint64_t expected = 0;
  for (const auto& container : manifest_.containers) {
    for (const char* item : kUserDataItems)
      record(container.identifier, "container", container.containerPath, item);
    expected += container.dataFiles;
  }
  const std::uint64_t containerFiles = data_.size();
  for (const auto& group : manifest_.groupContainers)
    record(group.identifier, "group", group.path, "");
  for (const auto& harbor : manifest_.harbors)
    record(harbor.path, "harbor", harbor.path, "");
  if (containerFiles != expected || containerFiles == 0) {
    *reason = "recorded " + std::to_string(containerFiles) +
              " user-data files, the manifest says " + std::to_string(expected);
    return false;
  }
  return true;
}

bool SweepWorkspace::restore(std::string* reason) {
  std::error_code error;
  fs::remove_all(root_, error);
  // In process rather than through cp: a trial restores the image several
  // hundred times. Owners and modes are kept; times do not matter here.
  if (!error)
    fs::copy(template_, root_, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
             error);
  if (error) {
    *reason = "cannot restore " + root_ + " from " + template_ + ": " + error.message();
    return false;
  }
  for (const auto& entry : fs::recursive_directory_iterator(template_)) {
    struct stat status {};
    if (::lstat(entry.path().c_str(), &status) != 0) continue;
    const std::string copy = root_ + "/" + fs::relative(entry.path(), template_).string();
    if (::lchown(copy.c_str(), status.st_uid, status.st_gid) != 0) {
      *reason = "cannot give " + copy + " its owner: " + std::strerror(errno);
      return false;
    }
  }
  return true;
}

ChildOutcome SweepWorkspace::run(const std::vector<std::string>& arguments, const std::string& name,
                                 ChildOptions options,
                                 const std::optional<StracePlan>& strace) const {
  options.environment = childEnvironment(strace.has_value());
  options.outPath = scratch_ + "/" + name + ".out";
  options.errPath = scratch_ + "/" + name + ".err";
  if (!strace) return runChild(kMavrel, arguments, options);
  return runChild("strace", straceArguments(*strace, kMavrel, arguments), options);
}

ChildOutcome SweepWorkspace::migrate(const std::optional<StracePlan>& strace,
                                     std::chrono::milliseconds timeout) const {
  ChildOptions options;
  options.timeout = timeout;
  return run({"migrate", "--root", root_}, "migrate", options, strace);
}

ChildOutcome SweepWorkspace::migrateKilledAfter(std::chrono::microseconds after) const {
  ChildOptions options;
  options.killAfter = after;
  return run({"migrate", "--root", root_}, "migrate", options);
}

ChildOutcome SweepWorkspace::listApplications() const {
  return run({"apps", "--root", root_, "--json"}, "apps", ChildOptions());
}

std::string SweepWorkspace::logs() const {
  std::string text;
  for (const char* directory :
       {"/private/var/mobile/Library/Logs/Mavrel", "/private/var/mobile/Library/Logs/Corvane"}) {
    std::error_code error;
    for (fs::directory_iterator it(root_ + directory, error), end; !error && it != end;
         it.increment(error)) {
      if (it->path().extension() == ".log") text += testing_support::readFile(it->path().string());
    }
  }
  return text;
}

bool SweepWorkspace::onlyMarkersAndAsideFilesLeft() const {
  const std::set<std::string> markers = {"com.zentrel.corvane.container_migrator.plist",
                                         "com.zentrel.corvane.migration_marker",
                                         "com.zentrel.corvane.placeholder"};
  bool asideFile = false;
  std::error_code error;
  for (fs::directory_iterator container(manifest_.legacyDirectory, error), end;
       !error && container != end; container.increment(error)) {
    if (!container->is_directory()) return false;
    std::error_code inner;
    for (fs::directory_iterator it(container->path(), inner); !inner && it != end;
         it.increment(inner)) {
      const std::string name = it->path().filename().string();
      asideFile = asideFile || isAsideName(name);
      if (!markers.contains(name) && !isAsideName(name)) return false;
    }
  }
  return asideFile;
}

std::vector<std::string> newErrorLines(const std::string& before, const std::string& after,
                                       const std::string& root) {
  std::set<std::string> old;
  std::istringstream oldLines(before);
  for (std::string line; std::getline(oldLines, line);)
    old.insert(line);
  std::vector<std::string> lines;
  std::istringstream newLines(after);
  for (std::string line; std::getline(newLines, line);) {
    if (line.find(" <3> ") == std::string::npos || old.contains(line)) continue;
    // Without the time stamp (the first two words).
    std::size_t start = line.find(' ');
    start = start == std::string::npos ? 0 : line.find(' ', start + 1);
    std::string generic = line.substr(start == std::string::npos ? 0 : start + 1);
    for (std::size_t at = generic.find(root); at != std::string::npos; at = generic.find(root))
      generic.replace(at, root.size(), "<image>");
    lines.push_back(withGenericUUIDs(generic));
  }
  return lines;
}

TreeSnapshot SweepWorkspace::snapshot() const {
  return snapshotBelow(root_, false, true);
}

std::vector<std::string> changesBetween(const TreeSnapshot& before, const TreeSnapshot& after) {
  std::vector<std::string> changes;
  for (const auto& [path, line] : before) {
    const auto found = after.find(path);
    if (found == after.end()) {
      changes.push_back(path + " removed");
    } else if (found->second != line) {
      changes.push_back(path + " changed: " + found->second);
    }
  }
  for (const auto& [path, line] : after) {
    if (!before.contains(path)) changes.push_back(path + " appeared");
  }
  return changes;
}

void SweepWorkspace::checkOutside(ImageCheck& result) const {
  for (const std::string& change :
       changesBetween(canarySnapshot_, snapshotBelow(canary_, true, false)))
    result.outsideChanges.push_back("canary/" + change);
  const std::set<std::string> expected = {"image", "template", "canary", "scratch"};
  std::error_code error;
  for (fs::directory_iterator it(base_, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (!expected.contains(name)) result.outsideChanges.push_back(base_ + "/" + name + " appeared");
  }
}

namespace {

// Whether a safety net of the image holds the file with these bytes: at its
// legacy path in a settled net, or as the link its manifest names in one
// whose run was interrupted.
bool keptInSafetyNet(const std::string& root, const std::string& legacy,
                     const std::string& relative, const std::string& digest) {
  const std::string nets = root + "/private/var/mobile/Library/Mavrel/SafetyNet";
  const std::string below = fs::path(legacy).lexically_relative(root).string() + "/" + relative;
  const auto holds = [&](const std::string& path) {
    return isRegularFile(path) && CVCreateSHA256Digest(path).value_or("") == digest;
  };
  std::error_code error;
  for (fs::directory_iterator it(nets, error), end; !error && it != end; it.increment(error)) {
    const std::string run = it->path().string();
    if (holds(run + "/" + below)) return true;
    const std::string manifest = mavrel_host::readNetManifest(run);
    for (const mavrel_host::NetLinkRecord& record : mavrel_host::parseNetManifest(manifest)) {
      if (record.legacyRelative() == below &&
          holds(run + "/" + std::string(mavrel_host::kSafetyNetLinksDirectory) + "/" +
                std::string(record.linkName)))
        return true;
    }
  }
  return false;
}

}  // namespace

ImageCheck SweepWorkspace::check(bool finished) const {
  ImageCheck result;
  checkOutside(result);
  // What `mavrel apps` lists: every registered application with its
  // containers ("" when null), and the safe harbors.
  const ChildOutcome listed = listApplications();
  std::optional<JSONValue> listing;
  if (listed.exitCode != 0) {
    result.listingError = listed.describe() + ": " + listed.err;
  } else {
    listing = testing_support::readJSON(listed.out, &result.listingError);
    if (listing && (!listing->has("applications") || !listing->has("registryExists"))) {
      result.listingError = "not the listing's JSON object";
      listing.reset();
    }
  }
  const auto application = [&listing](const std::string& identifier) -> const JSONValue* {
    for (const JSONValue& entry : (*listing)["applications"].array) {
      if (entry["identifier"].string == identifier) return &entry;
    }
    return nullptr;
  };
  if (listing) {
    result.pendingInstalls = static_cast<long>((*listing)["pendingInstalls"].number);
    for (const JSONValue& entry : (*listing)["applications"].array) {
      std::vector<std::string> paths;
      for (const char* key : {"bundleContainer", "bundle", "vpnPlugin", "dataContainer"})
        paths.push_back(entry[key].string);
      for (const auto& [group, path] : entry["groupContainers"].object)
        paths.push_back(path.string);
      for (const std::string& path : paths) {
        if (!path.empty() && !exists(path))
          result.missingContainers.push_back(entry["identifier"].string + ": " + path);
      }
    }
    for (const JSONValue& harbor : (*listing)["safeHarbors"].array) {
      if (!exists(harbor["path"].string))
        result.missingContainers.push_back("harbor of " + harbor["identifier"].string + ": " +
                                           harbor["path"].string);
    }
  }

  std::optional<std::string> logText;
  for (const DataFile& file : data_) {
    std::vector<std::string> places = {file.legacy + "/" + file.relative};
    bool unlisted = false;
    if (listing && file.kind == "container") {
      const JSONValue* owner = application(file.owner);
      if (owner && !(*owner)["dataContainer"].string.empty()) {
        places.push_back((*owner)["dataContainer"].string + "/" + file.relative);
      } else if (!owner) {
        // A VPN plug-in's own data container is not in the listing: any data
        // container of the image will do. Other owners' files of the same
        // name live there too, so a copy with other bytes proves nothing.
        unlisted = true;
        std::error_code error;
        for (fs::directory_iterator it(root_ + kDataContainers, error), end; !error && it != end;
             it.increment(error))
          places.push_back(it->path().string() + "/" + file.relative);
      }
    }
    if (listing && file.kind == "group") {
      for (const JSONValue& entry : (*listing)["applications"].array) {
        const JSONValue& group = entry["groupContainers"][file.owner];
        if (!group.isNull()) places.push_back(group.string + "/" + file.relative);
      }
    }
    const std::size_t ownPlaces = unlisted ? 1 : places.size();
    bool found = false;
    bool differs = false;
    bool onlyLegacy = false;
    for (std::size_t i = 0; i < places.size(); ++i) {
      if (!isRegularFile(places[i])) continue;
      if (CVCreateSHA256Digest(places[i]).value_or("") == file.digest) {
        found = true;
        onlyLegacy = i == 0;
        if (!onlyLegacy) break;
      } else if (i < ownPlaces) {
        differs = true;
      }
    }
    const std::string name = file.kind + " " + file.owner + ": " + file.relative;
    if (found && onlyLegacy && finished && file.kind != "harbor") {
      result.stranded.push_back(name);
      continue;
    }
    if (found) {
      ++result.filesVerified;
      if (unlisted && !isRegularFile(file.legacy + "/" + file.relative))
        ++result.filesInUnlistedContainers;
      continue;
    }
    if (differs) {
      result.changed.push_back(name);
      continue;
    }
    // The migration's safety net keeps what its rules discard, under the
    // legacy path.
    if (keptInSafetyNet(root_, file.legacy, file.relative, file.digest)) {
      ++result.filesInSafetyNet;
      continue;
    }
    if (!logText) logText = logs();
    // A container whose bundle could not be read holds no bundle by the
    // migration's rules and is removed; a group item whose move failed stays
    // in its legacy group container, which is removed all the same.
    const std::string removedContainer =
        "No app or vpn bundle found in container " + file.legacy + " ; removing it";
    const std::string leftInGroup =
        "Failed to move item " + file.legacy + "/" + firstComponent(file.relative) + " to ";
    if (file.kind == "container" && logText->find(removedContainer) != std::string::npos) {
      result.lossesByRule.push_back(name + " (" + removedContainer + ")");
    } else if (file.kind == "group" && logText->find(leftInGroup) != std::string::npos) {
      result.lossesByRule.push_back(name + " (" + leftInGroup + "...)");
    } else {
      result.lost.push_back(name);
    }
  }
  return result;
}

}  // namespace reliability
