#include "host/SafetyNet.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <unordered_set>

#include "AppMigrator/AppMigrator.h"
#include "AppMigrator/LegacyGroupContainers.h"
#include "host/DataUsage.h"
#include "host/DroppingLogSink.h"
#include "host/EntryOutcomeNames.h"
#include "host/ParallelFor.h"
#include "host/SafetyNetManifest.h"
#include "host/SafetyNetStore.h"
#include "installer/RegistryListing.h"
#include "platform/JSONWriter.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "platform/linux/DirectoryRelative.h"
#include "platform/linux/DirectoryStream.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace mavrel_host {
namespace {

using platform::sys::UniqueFd;

constexpr mode_t kNetDirectoryMode = 0700;
constexpr std::size_t kExamplesKept = 20;
constexpr int kRunIdAttempts = 100;
// Runs of consecutive manifest parts per worker when settling: enough for
// uneven runs to even out, few enough to share the directories above them.
constexpr std::size_t kSettlingRunsPerWorker = 8;

std::string joinRelative(std::string_view parent, std::string_view name) {
  if (parent.empty()) return std::string(name);
  return std::string(parent) + "/" + std::string(name);
}

std::string hostPath(const std::string& root, std::string_view relative) {
  return root == "/" ? "/" + std::string(relative) : root + "/" + std::string(relative);
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string runIdForTime(std::time_t time) {
  std::tm parts{};
  ::localtime_r(&time, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &parts);
  return text;
}

// Calls `visit(name, type)` for every entry of the open directory `fd`, the
// type looked at without following a link when the file
// system does not say. False when the directory cannot be read.
template <typename Visit>
bool forEachEntry(int fd, Visit&& visit) {
  // A description of its own ("." opened anew, not a duplicate that would
  // share the read position), so a directory can be listed more than once.
  auto stream = platform::sys::DirectoryStream::adopt(platform::sys::openDirectoryAt(fd, "."));
  if (!stream.valid()) return false;
  platform::sys::DirectoryEntry entry;
  bool atEnd = false;
  while (stream.next(entry, atEnd) == 0 && !atEnd)
    visit(std::string(entry.name), entry.type);
  return atEnd;
}

// Opens directories below a base directory, one component at a time and
// never following a link, keeping the chain of the last one open: the files
// of a net come in walk order, so each directory is opened about once.
class ParentDirectories {
 public:
  enum class Missing { Absent, Made };
  ParentDirectories(int base, Missing missing) : base_(base), missing_(missing) {}

  // The open directory `relative` below the base ("" is the base itself), or
  // -1 when it cannot be opened (or made).
  int open(std::string_view relative) {
    // What could not be opened once is not tried again (a legacy container
    // that moved away is asked for once per file otherwise).
    if (!failed_.empty() && relative.starts_with(failed_) &&
        (relative.size() == failed_.size() || relative[failed_.size()] == '/'))
      return -1;
    const std::string_view whole = relative;
    std::size_t depth = 0;
    while (!relative.empty()) {
      const std::size_t slash = relative.find('/');
      const std::string_view component = relative.substr(0, slash);
      relative = slash == std::string_view::npos ? std::string_view() : relative.substr(slash + 1);
      if (depth < chain_.size() && chain_[depth].first == component) {
        ++depth;
        continue;
      }
      chain_.resize(depth);
      const int parent = depth == 0 ? base_ : chain_[depth - 1].second.get();
      const std::string name(component);
      UniqueFd child =
          missing_ == Missing::Made
              ? platform::sys::openOrMakeDirectoryAt(parent, name.c_str(), kNetDirectoryMode)
              : platform::sys::openDirectoryAt(parent, name.c_str());
      if (!child) {
        failed_.assign(whole.substr(0, whole.size() - relative.size()));
        if (!failed_.empty() && failed_.back() == '/') failed_.pop_back();
        return -1;
      }
      chain_.emplace_back(name, std::move(child));
      ++depth;
    }
    chain_.resize(depth);
    return depth == 0 ? base_ : chain_.back().second.get();
  }

 private:
  int base_;
  Missing missing_;
  std::vector<std::pair<std::string, UniqueFd>> chain_;
  std::string failed_;
};

// "a/b/c" as ("a/b", "c"); "c" as ("", "c").
std::pair<std::string_view, std::string_view> splitParent(std::string_view relative) {
  const std::size_t slash = relative.rfind('/');
  if (slash == std::string_view::npos) return {std::string_view(), relative};
  return {relative.substr(0, slash), relative.substr(slash + 1)};
}

// What every layer of one run links into, shared by the threads that lay it.
struct NetTarget {
  int links = -1;  // the links directory
  dev_t netDevice = 0;
  ino_t netInode = 0;                              // the run's directory, never netted itself
  std::atomic<std::uint64_t>* nextName = nullptr;  // the next link's name
  const std::unordered_set<ino_t>* alreadyLinked = nullptr;  // in an adopted net
};

// Lays the links of a part of one run's net into its links directory;
// counts go into `result`, one manifest record per link into `manifest`.
class NetLayer {
 public:
  NetLayer(SafetyNetResult& result, std::string& manifest, const NetTarget& target)
      : result_(result), manifest_(manifest), target_(target) {}

  // Links the item `name` of `sourceParent` (a file or a whole tree) of the
  // legacy container `container`; `inner` is its path inside the container.
  // `type` and `inode` are what the directory listing said of the item,
  // when it did.
  void linkItem(int sourceParent, const std::string& container, const std::string& name,
                const std::string& inner,
                platform::sys::EntryType type = platform::sys::EntryType::Unknown,
                std::uint64_t inode = 0) {
    if (type == platform::sys::EntryType::Regular)
      return linkFile(sourceParent, container, name, inner);
    if (type != platform::sys::EntryType::Directory && type != platform::sys::EntryType::Unknown)
      return;
    // The net itself is never netted, wherever a group container leads. A
    // listed directory is known by the inode its parent records (a mount
    // point shows the covered one, whose files could not be linked anyway).
    if (inode != 0 && inode == target_.netInode) return;
    // Not known from a listing: opened as a directory first, which most
    // user-data items are, and looked at only when it is not one.
    UniqueFd source = platform::sys::openDirectoryAt(sourceParent, name.c_str());
    if (source) return linkContents(std::move(source), container, inner, /*listed=*/inode != 0);
    if (errno == ENOENT) return;
    if (type == platform::sys::EntryType::Directory) return failed(container + "/" + inner, errno);
    struct stat status {};
    if (platform::sys::statAt(sourceParent, name.c_str(), &status) != 0) {
      if (errno != ENOENT) failed(container + "/" + inner, errno);
      return;
    }
    if (S_ISREG(status.st_mode)) linkFile(sourceParent, container, name, inner);
  }

  // Links everything below the directory `directory` (whose descriptor the
  // call takes), which is `inner` in `container` ("" for the container
  // itself). A directory not found in a listing (`listed` false) is looked
  // at first: it may be the net.
  void linkContents(UniqueFd directory, const std::string& container, const std::string& inner,
                    bool listed = false) {
    const std::string relative = inner.empty() ? container : container + "/" + inner;
    if (!listed) {
      struct stat status {};
      if (platform::sys::statOpen(directory.get(), &status) != 0) return failed(relative, errno);
      if (status.st_dev == target_.netDevice && status.st_ino == target_.netInode) return;
    }
    // The listing reads through the descriptor itself: the directory is read once.
    auto stream = platform::sys::DirectoryStream::adopt(std::move(directory));
    const int fd = stream.descriptor();
    platform::sys::DirectoryEntry entry;
    bool atEnd = false;
    while (stream.valid() && stream.next(entry, atEnd) == 0 && !atEnd) {
      const std::string child(entry.name);
      linkItem(fd, container, child, inner.empty() ? child : inner + "/" + child, entry.type,
               entry.inode);
    }
    if (!atEnd) failed(relative, errno);
  }

  // Counts and names an item that could not be linked.
  void failed(const std::string& relative, int code) {
    ++result_.notLinked;
    if (result_.notLinkedExamples.size() < kExamplesKept)
      result_.notLinkedExamples.push_back(relative + ": " + std::strerror(code));
  }

 private:
  void linkFile(int sourceParent, const std::string& container, const std::string& name,
                const std::string& inner) {
    if (!target_.alreadyLinked->empty()) {
      // An adopted net: a file it holds already is not linked twice.
      struct stat status {};
      if (platform::sys::statAt(sourceParent, name.c_str(), &status) == 0 &&
          status.st_dev == target_.netDevice && target_.alreadyLinked->contains(status.st_ino)) {
        ++result_.alreadyThere;
        return;
      }
    }
    // A name in use is a link an interrupted laying made before its manifest
    // was written: the next name is taken, and settling clears such links.
    for (;;) {
      const std::string linkName = std::to_string(target_.nextName->fetch_add(1));
      if (platform::sys::linkAt(sourceParent, name.c_str(), target_.links, linkName.c_str()) == 0) {
        appendNetLinkRecord(manifest_, linkName, container, inner);
        ++result_.linked;
        return;
      }
      if (errno != EEXIST) return failed(container + "/" + inner, errno);
    }
  }

  SafetyNetResult& result_;
  std::string& manifest_;
  const NetTarget& target_;
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
  std::string relative;  // the legacy path, relative to the root
  std::uint64_t size = 0;
  std::string linkName;  // in the links directory; "" once at its legacy path
};

// A net link whose file is neither at its old place nor at its expected new
// one, but still has another name: looked for in every container afterwards.
struct Unresolved {
  std::string relative;  // the legacy path, relative to the root
  std::uint64_t size = 0;
  ino_t inode = 0;
  std::string linkName;
};

// Whether `name` in the open directory `directory` is the file `status` describes.
bool sameFileAt(int directory, std::string_view name, const struct stat& status) {
  struct stat other {};
  return directory >= 0 &&
         platform::sys::statAt(directory, std::string(name).c_str(), &other) == 0 &&
         other.st_dev == status.st_dev && other.st_ino == status.st_ino;
}

// Whether the file `status` describes is at `relative` below the root.
bool sameFileBelow(ParentDirectories& directories, std::string_view relative,
                   const struct stat& status) {
  const auto [parent, name] = splitParent(relative);
  return sameFileAt(directories.open(parent), name, status);
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
  const auto start = std::chrono::steady_clock::now();
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
  const UniqueFd links = platform::sys::openOrMakeDirectoryAt(
      run.get(), std::string(kSafetyNetLinksDirectory).c_str(), kNetDirectoryMode);
  if (!links) {
    *reason = "cannot make '" + result.directory + "/" + std::string(kSafetyNetLinksDirectory) +
              "': " + std::strerror(errno);
    return std::nullopt;
  }

  // An adopted net keeps its links and its manifest; the files it holds
  // already are not linked again.
  std::unordered_set<ino_t> alreadyLinked;
  std::uint64_t nextName = 0;
  if (result.adopted) {
    net.manifestParts_.push_back(readNetManifest(result.directory));
    for (const NetLinkRecord& record : parseNetManifest(net.manifestParts_.front())) {
      nextName = std::max<std::uint64_t>(nextName, std::stoull(std::string(record.linkName)) + 1);
      struct stat status {};
      if (platform::sys::statAt(links.get(), std::string(record.linkName).c_str(), &status) == 0)
        alreadyLinked.insert(status.st_ino);
    }
  }

  // Where the pass will look, found as it finds it; the group containers'
  // own check writes nothing to the logs, but keep them quiet all the same.
  const auto drop = std::make_shared<DroppingLogSink>();
  const platform::ScopedLogSink quiet(platform::migrationLog(), drop, std::nullopt);
  const platform::ScopedLogSink quietInstaller(platform::installerLog(), drop, std::nullopt);

  // One task per legacy container and per legacy group container, laid on
  // every core: walking the user data is most of the net's cost. Each task
  // keeps its own records and counts; the records stay one part per task,
  // in task order, written one after the other, so the manifest reads as
  // one walk and is never copied whole.
  UniqueFd legacyFd;
  std::vector<std::string> containerNames;
  const auto legacy = relativeToRoot(root, configuration.oldContainerPath().path());
  if (legacy) {
    net.legacyRelative_ = *legacy;
    legacyFd = openBeneath(rootFd.get(), *legacy);
    if (legacyFd)
      forEachEntry(legacyFd.get(), [&](const std::string& name, platform::sys::EntryType type) {
        if (type == platform::sys::EntryType::Directory ||
            type == platform::sys::EntryType::Unknown)
          containerNames.push_back(name);
      });
  }
  for (const auto& [identifier, hostPath] :
       CVMigratableLegacyGroupContainers(configuration.oldInstallMapPath())) {
    const auto relative = relativeToRoot(root, hostPath);
    if (!relative) continue;
    net.groupRelatives_.push_back(*relative);
    net.groupIdentifiers_[*relative] = identifier;
  }
  const std::vector<std::string> items = configuration.appUserDataItemNames();
  std::atomic<std::uint64_t> nextLinkName{nextName};
  const NetTarget target{links.get(), runStatus.st_dev, runStatus.st_ino, &nextLinkName,
                         &alreadyLinked};
  const std::size_t tasks = containerNames.size() + net.groupRelatives_.size();
  std::vector<SafetyNetResult> counts(tasks);
  std::vector<std::string> records(tasks);
  parallelFor(tasks, defaultWorkerCount(), [&](std::size_t task) {
    NetLayer layer(counts[task], records[task], target);
    if (task < containerNames.size()) {
      const std::string& name = containerNames[task];
      const UniqueFd container = platform::sys::openDirectoryAt(legacyFd.get(), name.c_str());
      if (!container) return;
      const std::string containerRelative = *legacy + "/" + name;
      for (const std::string& item : items)
        layer.linkItem(container.get(), containerRelative, item, item);
      return;
    }
    const std::string& group = net.groupRelatives_[task - containerNames.size()];
    if (UniqueFd fd = openBeneath(rootFd.get(), group))
      layer.linkContents(std::move(fd), group, "");
  });
  for (std::size_t task = 0; task < tasks; ++task) {
    result.linked += counts[task].linked;
    result.alreadyThere += counts[task].alreadyThere;
    result.notLinked += counts[task].notLinked;
    for (std::string& example : counts[task].notLinkedExamples) {
      if (result.notLinkedExamples.size() < kExamplesKept)
        result.notLinkedExamples.push_back(std::move(example));
    }
    if (!records[task].empty()) net.manifestParts_.push_back(std::move(records[task]));
  }

  // The links and the manifest are on the disk before the pass moves or
  // removes anything.
  CVError error;
  if (platform::sys::flushDirectory(links.get()) != 0) {
    *reason = "cannot flush '" + result.directory + "/" + std::string(kSafetyNetLinksDirectory) +
              "': " + std::strerror(errno);
    return std::nullopt;
  }
  if (!writeNetManifest(result.directory, net.manifestParts_, &error)) {
    *reason = "cannot write the safety net's manifest: " + error.localizedDescription();
    return std::nullopt;
  }
  result.layDurationSeconds = secondsSince(start);
  return net;
}

void SafetyNet::settle(CVGlobalConfiguration& configuration,
                       const std::vector<RecordedEntry>& entries) {
  // Timed however settling ends.
  struct Timer {
    std::chrono::steady_clock::time_point began;
    double& seconds;
    ~Timer() { seconds = secondsSince(began); }
  } timer{std::chrono::steady_clock::now(), result_.settleDurationSeconds};
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
  const std::string linksName(kSafetyNetLinksDirectory);
  const UniqueFd links = platform::sys::openDirectoryAt(run.get(), linksName.c_str());
  if (!links) {
    result_.problem = "cannot open '" + result_.directory + "/" + linksName +
                      "': " + std::strerror(errno) + "; the net is left as it is";
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
  // Legacy container or group container, relative to the root, to the
  // relative path of its new container.
  std::map<std::string, std::string, std::less<>> newPlaces;
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

  // A link whose file is at its old place or at its new place goes; a file
  // with no other name is kept; the rest is looked for below. The parts of
  // the manifest (one per container laid, whose records share their
  // directories) are settled on every core, joined back in order. Each task
  // takes a run of consecutive parts, whose containers lie side by side, so
  // that the directories above them are opened once per run.
  const std::size_t parts = manifestParts_.size();
  std::vector<std::vector<KeptFile>> keptByPart(parts);
  std::vector<std::vector<Unresolved>> unresolvedByPart(parts);
  const auto settlePart = [&](std::size_t part, ParentDirectories& oldPlaces,
                              ParentDirectories& newPlaceDirectories) {
    std::vector<KeptFile>& kept = keptByPart[part];
    std::vector<Unresolved>& unresolved = unresolvedByPart[part];
    for (const NetLinkRecord& record : parseNetManifest(manifestParts_[part])) {
      const std::string linkName(record.linkName);
      const std::string legacy = record.legacyRelative();
      struct stat status {};
      if (platform::sys::statAt(links.get(), linkName.c_str(), &status) != 0) {
        // Moved to its legacy path by an interrupted settling, or gone.
        if (result_.adopted && platform::sys::statAt(run.get(), legacy.c_str(), &status) == 0 &&
            S_ISREG(status.st_mode))
          kept.push_back(
              KeptFile{legacy, static_cast<std::uint64_t>(status.st_size), std::string()});
        continue;
      }
      if (status.st_nlink > 1) {
        const auto newPlace = newPlaces.find(record.container);
        const bool safe =
            sameFileBelow(oldPlaces, legacy, status) ||
            (newPlace != newPlaces.end() &&
             sameFileBelow(newPlaceDirectories, newPlace->second + "/" + std::string(record.inner),
                           status));
        if (safe && platform::sys::removeFileAt(links.get(), linkName.c_str()) == 0) continue;
        unresolved.push_back(Unresolved{legacy, static_cast<std::uint64_t>(status.st_size),
                                        status.st_ino, linkName});
        continue;
      }
      kept.push_back(KeptFile{legacy, static_cast<std::uint64_t>(status.st_size), linkName});
    }
  };
  const std::size_t tasks =
      std::min<std::size_t>(parts, kSettlingRunsPerWorker * defaultWorkerCount());
  parallelFor(tasks, defaultWorkerCount(), [&](std::size_t task) {
    ParentDirectories oldPlaces(rootFd.get(), ParentDirectories::Missing::Absent);
    ParentDirectories newPlaceDirectories(rootFd.get(), ParentDirectories::Missing::Absent);
    for (std::size_t part = task * parts / tasks; part < (task + 1) * parts / tasks; ++part)
      settlePart(part, oldPlaces, newPlaceDirectories);
  });
  std::vector<KeptFile> kept;
  std::vector<Unresolved> unresolved;
  for (std::size_t part = 0; part < parts; ++part) {
    std::move(keptByPart[part].begin(), keptByPart[part].end(), std::back_inserter(kept));
    std::move(unresolvedByPart[part].begin(), unresolvedByPart[part].end(),
              std::back_inserter(unresolved));
  }
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
          platform::sys::removeFileAt(links.get(), file.linkName.c_str()) == 0)
        continue;
      kept.push_back(KeptFile{file.relative, file.size, file.linkName});
    }
  }

  // What is kept goes to its legacy path under the run's directory.
  ParentDirectories layout(run.get(), ParentDirectories::Missing::Made);
  for (KeptFile& file : kept) {
    if (file.linkName.empty()) continue;
    const auto [parent, name] = splitParent(file.relative);
    const int directory = layout.open(parent);
    if (directory >= 0 &&
        platform::sys::renameNoReplaceAt(links.get(), file.linkName.c_str(), directory,
                                         std::string(name).c_str()) == 0)
      file.linkName.clear();
  }
  // Left in the links directory: what could not be moved, and links an
  // interrupted laying made before its manifest was written. Those of files
  // with another name go.
  std::unordered_set<std::string> keptHere;
  for (const KeptFile& file : kept) {
    if (!file.linkName.empty()) keptHere.insert(file.linkName);
  }
  forEachEntry(links.get(), [&](const std::string& name, platform::sys::EntryType) {
    struct stat status {};
    if (platform::sys::statAt(links.get(), name.c_str(), &status) != 0 || status.st_nlink <= 1)
      return;
    if (!keptHere.contains(name)) platform::sys::removeFileAt(links.get(), name.c_str());
  });
  platform::sys::removeEmptyDirectoryAt(run.get(), linksName.c_str());
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

  const std::string manifestName(kSafetyNetManifestFile);
  if (kept.empty()) {
    // Nothing to keep: no directory is left behind.
    platform::sys::removeFileAt(run.get(), manifestName.c_str());
    if (platform::sys::removeEmptyDirectoryAt(base.get(), result_.runId.c_str()) == 0)
      removeEmptyNetBase(rootFd.get(), baseRelative_);
    return;
  }
  CVError writeError;
  if (!writeNetState(result_, hostPath(root_, baseRelative_), root_, &writeError)) {
    result_.problem = "cannot mark the safety net complete: " + writeError.localizedDescription();
    return;
  }
  // Only once the state file marks the net complete: the manifest is what
  // the next run would settle it by.
  platform::sys::removeFileAt(run.get(), manifestName.c_str());
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
  json.member("layDurationSeconds", result.layDurationSeconds)
      .member("settleDurationSeconds", result.settleDurationSeconds);
  json.endObject();
}

}  // namespace mavrel_host
