#include "host/SafetyNet.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <unordered_set>

#include "AppMigrator/AppMigrator.h"
#include "AppMigrator/LegacyGroupContainers.h"
#include "host/DataUsage.h"
#include "host/DroppingLogSink.h"
#include "host/EntryOutcomeNames.h"
#include "host/SafetyNetStore.h"
#include "installer/RegistryListing.h"
#include "platform/JSONWriter.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "platform/linux/DirectoryStream.h"
#include "platform/linux/HardLinks.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace mavrel_host {
namespace {

using platform::sys::UniqueFd;

constexpr mode_t kNetDirectoryMode = 0700;
constexpr std::size_t kExamplesKept = 20;
constexpr int kRunIdAttempts = 100;

std::string joinRelative(std::string_view parent, std::string_view name) {
  if (parent.empty()) return std::string(name);
  return std::string(parent) + "/" + std::string(name);
}

std::string hostPath(const std::string& root, std::string_view relative) {
  return root == "/" ? "/" + std::string(relative) : root + "/" + std::string(relative);
}

std::string runIdForTime(std::time_t time) {
  std::tm parts{};
  ::localtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &parts);
  return text;
}

// Calls `visit(name, type)` for every entry of the open directory `fd` but
// "." and "..", the type looked at without following a link when the file
// system does not say. False when the directory cannot be read.
template <typename Visit>
bool forEachEntry(int fd, Visit&& visit) {
  // A description of its own ("." opened anew, not a duplicate that would
  // share the read position), so a directory can be listed more than once.
  auto stream = platform::sys::DirectoryStream::adopt(platform::sys::openDirectoryAt(fd, "."));
  if (!stream.valid()) return false;
  platform::sys::DirectoryEntry entry;
  bool atEnd = false;
  while (stream.next(entry, atEnd) == 0 && !atEnd) {
    if (entry.name == "." || entry.name == "..") continue;
    visit(std::string(entry.name), entry.type);
  }
  return atEnd;
}

// Lays the links of one run; counts go into `result`.
class NetLayer {
 public:
  NetLayer(SafetyNetResult& result, dev_t netDevice, ino_t netInode)
      : result_(result), netDevice_(netDevice), netInode_(netInode) {}

  // Links the item `name` of `sourceParent` (a file or a whole tree) into
  // `netParent`; `relative` names it for messages.
  // `type` is what the directory listing said of the item, when it did.
  void linkItem(int sourceParent, int netParent, const std::string& name,
                const std::string& relative,
                platform::sys::EntryType type = platform::sys::EntryType::Unknown) {
    if (type == platform::sys::EntryType::Unknown) {
      struct stat status {};
      if (platform::sys::statAt(sourceParent, name.c_str(), &status) != 0) {
        if (errno != ENOENT) failed(relative, errno);
        return;
      }
      type = S_ISREG(status.st_mode)   ? platform::sys::EntryType::Regular
             : S_ISDIR(status.st_mode) ? platform::sys::EntryType::Directory
                                       : platform::sys::EntryType::Other;
    }
    if (type == platform::sys::EntryType::Regular) {
      linkFile(sourceParent, netParent, name, relative);
    } else if (type == platform::sys::EntryType::Directory) {
      const UniqueFd source = platform::sys::openDirectoryAt(sourceParent, name.c_str());
      if (!source) return errno == ENOENT ? void() : failed(relative, errno);
      // The net itself is never netted, wherever a group container leads.
      struct stat status {};
      if (platform::sys::statOpen(source.get(), &status) != 0) return failed(relative, errno);
      if (status.st_dev == netDevice_ && status.st_ino == netInode_) return;
      const UniqueFd net =
          platform::sys::openOrMakeDirectoryAt(netParent, name.c_str(), kNetDirectoryMode);
      if (!net) return failed(relative, errno);
      const bool listed =
          forEachEntry(source.get(), [&](const std::string& child, platform::sys::EntryType kind) {
            linkItem(source.get(), net.get(), child, relative + "/" + child, kind);
          });
      if (!listed) failed(relative, errno);
    }
  }

 private:
  void linkFile(int sourceParent, int netParent, const std::string& name,
                const std::string& relative) {
    if (platform::sys::linkAt(sourceParent, name.c_str(), netParent, name.c_str()) == 0) {
      ++result_.linked;
      return;
    }
    if (errno != EEXIST) return failed(relative, errno);
    // An adopted net may hold it already.
    struct stat source {};
    struct stat net {};
    if (platform::sys::statAt(sourceParent, name.c_str(), &source) == 0 &&
        platform::sys::statAt(netParent, name.c_str(), &net) == 0 && source.st_dev == net.st_dev &&
        source.st_ino == net.st_ino) {
      ++result_.alreadyThere;
      return;
    }
    ++result_.notLinked;
    if (result_.notLinkedExamples.size() < kExamplesKept)
      result_.notLinkedExamples.push_back(relative +
                                          ": the net already holds another file of that name");
  }

  // Counts and names an item that could not be linked.
 public:
  void failed(const std::string& relative, int code) {
    ++result_.notLinked;
    if (result_.notLinkedExamples.size() < kExamplesKept)
      result_.notLinkedExamples.push_back(relative + ": " + std::strerror(code));
  }

 private:
  SafetyNetResult& result_;
  dev_t netDevice_;
  ino_t netInode_;
};

// The inodes of the regular files with more than one name below `fd`, on
// `device`.
void collectLinkedInodes(int fd, dev_t device, std::unordered_set<ino_t>& inodes) {
  forEachEntry(fd, [&](const std::string& name, platform::sys::EntryType type) {
    if (type == platform::sys::EntryType::Directory) {
      const UniqueFd child = platform::sys::openDirectoryAt(fd, name.c_str());
      if (child) collectLinkedInodes(child.get(), device, inodes);
      return;
    }
    struct stat status {};
    if (platform::sys::statAt(fd, name.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_nlink > 1 && status.st_dev == device)
      inodes.insert(status.st_ino);
  });
}

struct KeptFile {
  std::string relative;  // to the root
  std::uint64_t size = 0;
};

// Removes the empty directories below the open directory `directory`.
void removeEmptyDirectoriesBelow(int directory) {
  forEachEntry(directory, [&](const std::string& name, platform::sys::EntryType type) {
    if (type != platform::sys::EntryType::Directory) return;
    if (const UniqueFd child = platform::sys::openDirectoryAt(directory, name.c_str()))
      removeEmptyDirectoriesBelow(child.get());
    platform::sys::removeEmptyDirectoryAt(directory, name.c_str());
  });
}

// A net entry whose file is neither at its old place nor at its expected new
// one, but still has another name: looked for in every container afterwards.
struct Unresolved {
  std::string relative;  // to the net's run directory
  std::uint64_t size = 0;
  ino_t inode = 0;
};

// Whether `name` in the open directory `directory` is the file `status` describes.
bool sameFileAt(int directory, const std::string& name, const struct stat& status) {
  struct stat other {};
  return directory >= 0 && platform::sys::statAt(directory, name.c_str(), &other) == 0 &&
         other.st_dev == status.st_dev && other.st_ino == status.st_ino;
}

// Removes every net entry below `net` whose file is at its old place (the
// same path below `old`) or at its expected new place (the same path below
// `expected`, the new container of the legacy one the walk is in, which
// `newPlaceOf` names for a net path); collects the files with no other name
// in `kept`, the others in `unresolved`, and removes the directories left empty.
void prune(int net, int old, int expected, const std::string& relative,
           const std::function<std::optional<std::string>(const std::string&)>& newPlaceOf,
           int rootFd, std::vector<KeptFile>& kept, std::vector<Unresolved>& unresolved) {
  forEachEntry(net, [&](const std::string& name, platform::sys::EntryType type) {
    if (relative.empty() && name == kSafetyNetStateFile) return;
    const std::string path = joinRelative(relative, name);
    struct stat status {};
    // The net holds only directories and files it made: a directory needs no look.
    if (type != platform::sys::EntryType::Directory &&
        platform::sys::statAt(net, name.c_str(), &status) != 0)
      return;
    if (type == platform::sys::EntryType::Directory || S_ISDIR(status.st_mode)) {
      const UniqueFd child = platform::sys::openDirectoryAt(net, name.c_str());
      if (!child) return;
      UniqueFd oldChild;
      if (old >= 0) oldChild = platform::sys::openDirectoryAt(old, name.c_str());
      UniqueFd expectedChild;
      if (const auto place = newPlaceOf(path)) {
        expectedChild = openBeneath(rootFd, *place);
      } else if (expected >= 0) {
        expectedChild = platform::sys::openDirectoryAt(expected, name.c_str());
      }
      prune(child.get(), oldChild.get(), expectedChild.get(), path, newPlaceOf, rootFd, kept,
            unresolved);
      platform::sys::removeEmptyDirectoryAt(net, name.c_str());
      return;
    }
    if (status.st_nlink > 1) {
      if ((sameFileAt(old, name, status) || sameFileAt(expected, name, status)) &&
          platform::sys::removeFileAt(net, name.c_str()) == 0)
        return;
      unresolved.push_back(
          Unresolved{path, static_cast<std::uint64_t>(status.st_size), status.st_ino});
      return;
    }
    kept.push_back(KeptFile{path, static_cast<std::uint64_t>(status.st_size)});
  });
}

std::optional<std::string> relativeToRoot(const std::string& root, const std::string& path) {
  if (root == "/") {
    if (path.size() > 1 && path.front() == '/') return path.substr(1);
    return std::nullopt;
  }
  if (path.size() > root.size() + 1 && path.compare(0, root.size(), root) == 0 &&
      path[root.size()] == '/')
    return path.substr(root.size() + 1);
  return std::nullopt;
}

std::string reasonForContainer(const std::string& legacyHostPath,
                               const std::vector<RecordedEntry>& entries, bool stillThere) {
  const auto entry = std::find_if(entries.rbegin(), entries.rend(),
                                  [&](const RecordedEntry& e) { return e.path == legacyHostPath; });
  if (entry == entries.rend()) {
    return stillThere ? "not found at its old place nor at a new place"
                      : "its legacy container was removed by an earlier, interrupted run";
  }
  const std::string message = entry->message.empty() ? "" : " (" + entry->message + ")";
  switch (entry->result.outcome) {
    case MavrelEntryOutcome::Removed:
      return "the migration removed the container by its rules" + message;
    case MavrelEntryOutcome::Failed:
      return "the migration failed at '" + std::string(stepName(entry->result.failedStep)) + "'" +
             message;
    default:
      return "the entry ended '" + std::string(outcomeName(entry->result.outcome)) +
             "', but these files are neither at their old place nor at their new place (data "
             "replaced by another container of the same identifier, or removed)";
  }
}

}  // namespace

std::string safetyNetBaseRelative(const std::string& root,
                                  const CVGlobalConfiguration& configuration) {
  const std::string home = configuration.homeDirectory().path();
  const auto relative = relativeToRoot(root, home);
  return joinRelative(relative ? *relative : std::string(), kSafetyNetDirectory);
}

std::optional<SafetyNet> SafetyNet::lay(const std::string& root,
                                        CVGlobalConfiguration& configuration, std::time_t runTime,
                                        std::string* reason) {
  SafetyNet net;
  net.root_ = root;
  net.baseRelative_ = safetyNetBaseRelative(root, configuration);
  const UniqueFd rootFd =
      platform::sys::openDirectory(root.c_str(), platform::sys::FinalLink::NotFollowed);
  if (!rootFd) {
    *reason = "cannot open '" + root + "': " + std::strerror(errno);
    return std::nullopt;
  }
  const std::string basePath = hostPath(root, net.baseRelative_);
  UniqueFd base = openOrMakeBeneath(rootFd.get(), net.baseRelative_);
  if (!base) {
    *reason = "cannot make the safety net directory '" + basePath + "': " + std::strerror(errno);
    return std::nullopt;
  }

  // An interrupted run's net is taken over; otherwise a new one is made.
  SafetyNetResult& result = net.result_;
  for (const StoredNet& stored : listStoredNets(base.get(), std::string())) {
    if (!stored.complete) {
      result.runId = stored.runId;
      result.adopted = true;
    }
  }
  if (!result.adopted) {
    const std::string stamp = runIdForTime(runTime);
    for (int attempt = 1; attempt <= kRunIdAttempts && result.runId.empty(); ++attempt) {
      const std::string id = attempt == 1 ? stamp : stamp + "-" + std::to_string(attempt);
      if (platform::sys::makeDirectoryAt(base.get(), id.c_str(), kNetDirectoryMode) == 0) {
        result.runId = id;
      } else if (errno != EEXIST) {
        *reason = "cannot make '" + basePath + "/" + id + "': " + std::strerror(errno);
        return std::nullopt;
      }
    }
  }
  const UniqueFd run = platform::sys::openDirectoryAt(base.get(), result.runId.c_str());
  struct stat runStatus {};
  if (result.runId.empty() || !run || platform::sys::statOpen(run.get(), &runStatus) != 0) {
    *reason = "cannot make a safety net directory in '" + basePath + "'";
    return std::nullopt;
  }
  result.directory = basePath + "/" + result.runId;

  // Where the pass will look, found as it finds it; the group containers'
  // own check writes nothing to the logs, but keep them quiet all the same.
  const auto drop = std::make_shared<DroppingLogSink>();
  const platform::ScopedLogSink quiet(platform::migrationLog(), drop, std::nullopt);
  const platform::ScopedLogSink quietInstaller(platform::installerLog(), drop, std::nullopt);
  NetLayer layer(result, runStatus.st_dev, runStatus.st_ino);
  const auto linkBelow = [&](const std::string& relative, const std::vector<std::string>& items) {
    const UniqueFd source = openBeneath(rootFd.get(), relative);
    if (!source) return;
    const UniqueFd netDirectory = openOrMakeBeneath(run.get(), relative);
    if (!netDirectory) {
      ++result.notLinked;
      result.notLinkedExamples.push_back(relative + ": " + std::strerror(errno));
      return;
    }
    for (const std::string& item : items)
      layer.linkItem(source.get(), netDirectory.get(), item, relative + "/" + item);
  };

  const auto legacy = relativeToRoot(root, configuration.oldContainerPath().path());
  if (legacy) {
    net.legacyRelative_ = *legacy;
    const std::vector<std::string> items = configuration.appUserDataItemNames();
    if (const UniqueFd legacyFd = openBeneath(rootFd.get(), *legacy)) {
      // Made at the first container that holds user data.
      UniqueFd netLegacy;
      forEachEntry(legacyFd.get(), [&](const std::string& name, platform::sys::EntryType type) {
        if (type != platform::sys::EntryType::Directory) return;
        const UniqueFd container = platform::sys::openDirectoryAt(legacyFd.get(), name.c_str());
        if (!container) return;
        UniqueFd netContainer;
        for (const std::string& item : items) {
          struct stat status {};
          if (platform::sys::statAt(container.get(), item.c_str(), &status) != 0) continue;
          if (!netLegacy) netLegacy = openOrMakeBeneath(run.get(), *legacy);
          if (netLegacy && !netContainer)
            netContainer = platform::sys::openOrMakeDirectoryAt(netLegacy.get(), name.c_str(),
                                                                kNetDirectoryMode);
          const std::string relative = *legacy + "/" + name + "/" + item;
          if (!netContainer) {
            layer.failed(relative, errno);
            continue;
          }
          layer.linkItem(container.get(), netContainer.get(), item, relative);
        }
      });
    }
  }
  for (const auto& [identifier, hostPath] :
       CVMigratableLegacyGroupContainers(configuration.oldInstallMapPath())) {
    const auto relative = relativeToRoot(root, hostPath);
    if (!relative) continue;
    net.groupRelatives_.push_back(*relative);
    net.groupIdentifiers_[*relative] = identifier;
    const std::size_t slash = relative->rfind('/');
    const std::string parent = slash == std::string::npos ? "" : relative->substr(0, slash);
    const std::string name = slash == std::string::npos ? *relative : relative->substr(slash + 1);
    if (parent.empty()) continue;
    linkBelow(parent, {name});
  }
  return net;
}

void SafetyNet::settle(CVGlobalConfiguration& configuration,
                       const std::vector<RecordedEntry>& entries) {
  const UniqueFd rootFd =
      platform::sys::openDirectory(root_.c_str(), platform::sys::FinalLink::NotFollowed);
  const UniqueFd base = rootFd ? openBeneath(rootFd.get(), baseRelative_) : UniqueFd();
  const UniqueFd run =
      base ? platform::sys::openDirectoryAt(base.get(), result_.runId.c_str()) : UniqueFd();
  struct stat runStatus {};
  if (!run || platform::sys::statOpen(run.get(), &runStatus) != 0) {
    result_.problem = "cannot open the safety net '" + result_.directory +
                      "': " + std::strerror(errno) + "; it is left as it is";
    return;
  }

  // Where the data of each legacy container and group container went: the
  // data container of its entry's identifier, the group's new container.
  CVError error;
  const auto listing = mavrel_installer::readRegistryListing(configuration, &error);
  if (!listing) {
    result_.problem = "the registry could not be read (" + error.localizedDescription() +
                      "); files at their new places stay in the net too";
  }
  std::map<std::string, std::string, std::less<>> dataContainers;   // identifier to path
  std::map<std::string, std::string, std::less<>> groupContainers;  // group to path
  for (const mavrel_installer::ListedApplication& application :
       listing ? listing->applications : std::vector<mavrel_installer::ListedApplication>()) {
    dataContainers.emplace(application.identifier, application.dataContainer);
    if (!application.vpnPluginIdentifier.empty())
      dataContainers.emplace(application.vpnPluginIdentifier, application.vpnPluginDataContainer);
    for (const auto& [group, path] : application.groupContainers)
      groupContainers.emplace(group, path);
  }
  std::map<std::string, std::string, std::less<>> newPlaces;  // legacy relative to new relative
  for (const RecordedEntry& entry : entries) {
    const auto legacy = relativeToRoot(root_, entry.path);
    const auto found = dataContainers.find(entry.identifier);
    if (!legacy || found == dataContainers.end()) continue;
    if (const auto place = relativeToRoot(root_, found->second)) newPlaces.emplace(*legacy, *place);
  }
  for (const auto& [legacy, group] : groupIdentifiers_) {
    const auto found = groupContainers.find(group);
    if (found == groupContainers.end()) continue;
    if (const auto place = relativeToRoot(root_, found->second)) newPlaces.emplace(legacy, *place);
  }
  const auto newPlaceOf = [&newPlaces](const std::string& relative) -> std::optional<std::string> {
    const auto found = newPlaces.find(relative);
    if (found == newPlaces.end()) return std::nullopt;
    return found->second;
  };

  std::vector<KeptFile> kept;
  std::vector<Unresolved> unresolved;
  prune(run.get(), rootFd.get(), -1, "", newPlaceOf, rootFd.get(), kept, unresolved);
  if (!unresolved.empty()) {
    // Rare: a file with another name neither at its old nor at its expected
    // new place. Every container the registry names is looked through.
    std::unordered_set<ino_t> elsewhere;
    std::vector<std::string> places;
    for (const auto& [identifier, path] : dataContainers)
      places.push_back(path);
    for (const auto& [group, path] : groupContainers)
      places.push_back(path);
    std::sort(places.begin(), places.end());
    places.erase(std::unique(places.begin(), places.end()), places.end());
    for (const std::string& place : places) {
      const auto relative = relativeToRoot(root_, place);
      if (!relative) continue;
      if (const UniqueFd fd = openBeneath(rootFd.get(), *relative))
        collectLinkedInodes(fd.get(), runStatus.st_dev, elsewhere);
    }
    for (const Unresolved& file : unresolved) {
      if (elsewhere.count(file.inode) != 0 &&
          platform::sys::removeFileAt(run.get(), file.relative.c_str()) == 0)
        continue;
      kept.push_back(KeptFile{file.relative, file.size});
    }
    removeEmptyDirectoriesBelow(run.get());
  }
  result_.settled = true;

  // By legacy container or group container.
  std::map<std::string, SafetyNetEntry> bySource;
  for (const KeptFile& file : kept) {
    std::string source;
    if (!legacyRelative_.empty() && file.relative.starts_with(legacyRelative_ + "/")) {
      const std::size_t start = legacyRelative_.size() + 1;
      source = file.relative.substr(0, file.relative.find('/', start));
    } else {
      for (const std::string& group : groupRelatives_) {
        if (file.relative.starts_with(group + "/")) source = group;
      }
      if (source.empty()) source = file.relative.substr(0, file.relative.rfind('/'));
    }
    SafetyNetEntry& entry = bySource[source];
    entry.legacyPath = hostPath(root_, source);
    ++entry.files;
    entry.bytes += file.size;
    if (entry.examples.size() < kExamplesKept)
      entry.examples.push_back(
          file.relative.substr(std::min(file.relative.size(), source.size() + 1)));
    ++result_.keptFiles;
    result_.keptBytes += file.size;
  }
  for (auto& [source, entry] : bySource) {
    struct stat status {};
    const bool stillThere = platform::sys::statAt(rootFd.get(), source.c_str(), &status) == 0;
    const bool isGroup =
        std::find(groupRelatives_.begin(), groupRelatives_.end(), source) != groupRelatives_.end();
    if (isGroup) {
      entry.reason = stillThere ? "not found in the legacy group container nor at its new place"
                                : "the legacy group container was removed with what it still "
                                  "held (items whose move failed)";
    } else {
      entry.reason = reasonForContainer(entry.legacyPath, entries, stillThere);
    }
    result_.kept.push_back(std::move(entry));
  }

  if (kept.empty()) {
    // Nothing to keep: no directory is left behind.
    if (platform::sys::removeEmptyDirectoryAt(base.get(), result_.runId.c_str()) == 0)
      removeEmptyNetBase(rootFd.get(), baseRelative_);
    return;
  }
  CVError writeError;
  if (!writeNetState(result_, hostPath(root_, baseRelative_), root_, &writeError))
    result_.problem = "cannot mark the safety net complete: " + writeError.localizedDescription();
}

std::string formatSafetyNetLaid(const SafetyNetResult& result) {
  std::string text = "Safety net: " + std::to_string(result.linked) + " user-data file(s) linked";
  if (result.adopted)
    text += " (the net of an interrupted run taken over, " + std::to_string(result.alreadyThere) +
            " already in it)";
  text += " in " + result.directory + "\n";
  if (result.notLinked > 0) {
    text += "Safety net: " + std::to_string(result.notLinked) +
            " file(s) could not be linked; the migration goes on without a copy of them:\n";
    for (const std::string& example : result.notLinkedExamples)
      text += "  not linked: " + example + "\n";
  }
  return text;
}

std::string formatSafetyNetSettled(const SafetyNetResult& result, const std::string& root) {
  std::string text;
  if (!result.problem.empty()) text += "Safety net: " + result.problem + "\n";
  if (!result.settled || result.keptFiles == 0) return text;
  text += "Safety net: kept " + std::to_string(result.keptFiles) + " user-data file(s) (" +
          formatBytes(result.keptBytes) + ") that the migration discarded, in " + result.directory +
          ":\n";
  for (const SafetyNetEntry& entry : result.kept) {
    text += "  " + entry.legacyPath + ": " + std::to_string(entry.files) + " file(s), " +
            formatBytes(entry.bytes) + "; " + entry.reason + "\n";
  }
  text += "Copy them out with 'mavrel recover --root " + root + " --run " + result.runId +
          " --to DIR'.\n";
  return text;
}

void writeSafetyNetJSON(platform::JSONWriter& json, const SafetyNetResult& result) {
  json.beginObject()
      .member("runId", result.runId)
      .member("directory", result.directory)
      .member("adopted", result.adopted)
      .member("linked", result.linked)
      .member("notLinked", result.notLinked);
  json.key("notLinkedExamples").strings(result.notLinkedExamples);
  json.member("keptFiles", result.keptFiles).member("keptBytes", result.keptBytes);
  json.key("kept").beginArray();
  for (const SafetyNetEntry& entry : result.kept) {
    json.beginObject()
        .member("legacyPath", entry.legacyPath)
        .member("files", entry.files)
        .member("bytes", entry.bytes)
        .member("reason", entry.reason);
    json.key("examples").strings(entry.examples);
    json.endObject();
  }
  json.endArray();
  json.key("problem").stringOrNull(result.problem);
  json.endObject();
}

}  // namespace mavrel_host
