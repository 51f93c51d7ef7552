#include "host/SafetyNetStore.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "host/SafetyNet.h"
#include "host/SafetyNetManifest.h"
#include "platform/PropertyList.h"
#include "platform/linux/DirectoryRelative.h"
#include "platform/linux/DirectoryStream.h"
#include "platform/linux/FilesBeneath.h"

namespace mavrel_host {
namespace {

using platform::sys::UniqueFd;

constexpr mode_t kNetDirectoryMode = 0700;

// The files below the open directory `fd` of a run's directory, but the
// net's own files at its top.
void listFiles(int fd, const std::string& relative, StoredNet& net) {
  auto stream = platform::sys::DirectoryStream::adopt(platform::sys::openDirectoryAt(fd, "."));
  if (!stream.valid()) return;
  platform::sys::DirectoryEntry entry;
  bool atEnd = false;
  std::vector<std::string> names;
  while (stream.next(entry, atEnd) == 0 && !atEnd)
    names.emplace_back(entry.name);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (relative.empty() && (name == kSafetyNetStateFile || name == kSafetyNetManifestFile ||
                             (!net.complete && name == kSafetyNetLinksDirectory)))
      continue;
    const std::string path = relative.empty() ? name : relative + "/" + name;
    struct stat status {};
    if (platform::sys::statAt(fd, name.c_str(), &status) != 0) continue;
    if (S_ISDIR(status.st_mode)) {
      if (const UniqueFd child = platform::sys::openDirectoryAt(fd, name.c_str()))
        listFiles(child.get(), path, net);
    } else if (S_ISREG(status.st_mode)) {
      net.files.push_back(StoredFile{path, static_cast<std::uint64_t>(status.st_size), path});
      net.bytes += static_cast<std::uint64_t>(status.st_size);
    }
  }
}

std::uint64_t unsignedValue(const CVDictionary& dictionary, std::string_view key) {
  const CVNumber* number = dictionary.findNumber(key);
  return number != nullptr ? number->uint64Value() : 0;
}

}  // namespace

UniqueFd openBeneath(int fd, std::string_view relative) {
  return platform::sys::walkDirectoriesBeneath(fd, relative, [](int parent, const char* name) {
    return platform::sys::openDirectoryAt(parent, name);
  });
}

UniqueFd openOrMakeBeneath(int fd, std::string_view relative) {
  return platform::sys::walkDirectoriesBeneath(fd, relative, [](int parent, const char* name) {
    return platform::sys::openOrMakeDirectoryAt(parent, name, kNetDirectoryMode);
  });
}

std::vector<StoredNet> listStoredNets(int base, const std::string& baseHostPath,
                                      bool withContents) {
  std::vector<StoredNet> nets;
  auto stream = platform::sys::DirectoryStream::adopt(platform::sys::openDirectoryAt(base, "."));
  if (!stream.valid()) return nets;
  platform::sys::DirectoryEntry entry;
  bool atEnd = false;
  std::vector<std::string> names;
  while (stream.next(entry, atEnd) == 0 && !atEnd) {
    if (entry.type == platform::sys::EntryType::Directory) names.emplace_back(entry.name);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const UniqueFd run = platform::sys::openDirectoryAt(base, name.c_str());
    if (!run) continue;
    StoredNet net;
    net.runId = name;
    struct stat status {};
    net.complete =
        platform::sys::statAt(run.get(), std::string(kSafetyNetStateFile).c_str(), &status) == 0;
    if (withContents && !net.complete && !baseHostPath.empty()) {
      // Its links, by the legacy paths its manifest gives them.
      const std::string manifest = readNetManifest(baseHostPath + "/" + name);
      const UniqueFd links =
          platform::sys::openDirectoryAt(run.get(), std::string(kSafetyNetLinksDirectory).c_str());
      for (const NetLinkRecord& record : parseNetManifest(manifest)) {
        const std::string linkName(record.linkName);
        if (!links || platform::sys::statAt(links.get(), linkName.c_str(), &status) != 0 ||
            !S_ISREG(status.st_mode))
          continue;
        net.files.push_back(StoredFile{record.legacyRelative(),
                                       static_cast<std::uint64_t>(status.st_size),
                                       std::string(kSafetyNetLinksDirectory) + "/" + linkName});
        net.bytes += static_cast<std::uint64_t>(status.st_size);
      }
    }
    if (withContents) listFiles(run.get(), "", net);
    if (net.complete && !baseHostPath.empty()) {
      const auto state = platform::readPropertyListDictionary(
          CVURL::fileURLWithPath(baseHostPath + "/" + name + "/" + std::string(kSafetyNetStateFile),
                                 false),
          nullptr);
      const CVArray* entries = state ? state->findArray("Entries") : nullptr;
      for (std::size_t i = 0; entries != nullptr && i < entries->count(); ++i) {
        const CVDictionary* item = (*entries)[i].asDictionary();
        if (item == nullptr) continue;
        StoredEntry stored;
        if (const std::string* path = item->findString("Path")) stored.devicePath = *path;
        if (const std::string* reason = item->findString("Reason")) stored.reason = *reason;
        stored.files = unsignedValue(*item, "Files");
        stored.bytes = unsignedValue(*item, "Bytes");
        net.entries.push_back(std::move(stored));
      }
    }
    nets.push_back(std::move(net));
  }
  return nets;
}

bool writeNetState(const SafetyNetResult& result, const std::string& baseHostPath,
                   const std::string& root, CVError* error) {
  CVArray entries;
  for (const SafetyNetEntry& entry : result.kept) {
    std::string devicePath = entry.legacyPath;
    if (root != "/" && devicePath.starts_with(root + "/")) devicePath.erase(0, root.size());
    entries.append(CVDictionary{{"Path", devicePath},
                                {"Files", CVValue(entry.files)},
                                {"Bytes", CVValue(entry.bytes)},
                                {"Reason", entry.reason}});
  }
  const CVDictionary state{{"RunID", result.runId},
                           {"Files", CVValue(result.keptFiles)},
                           {"Bytes", CVValue(result.keptBytes)},
                           {"Entries", std::move(entries)}};
  const CVURL url = CVURL::fileURLWithPath(
      baseHostPath + "/" + result.runId + "/" + std::string(kSafetyNetStateFile), false);
  return platform::writePropertyListAtomically(state, url, error);
}

void removeEmptyNetBase(int rootFd, std::string_view baseRelative) {
  // "…/Library/Mavrel/SafetyNet": SafetyNet, then Mavrel.
  std::string relative(baseRelative);
  for (int level = 0; level < 2; ++level) {
    const std::size_t slash = relative.rfind('/');
    if (slash == std::string::npos) return;
    const UniqueFd parent = openBeneath(rootFd, relative.substr(0, slash));
    if (!parent) return;
    if (platform::sys::removeEmptyDirectoryAt(parent.get(), relative.substr(slash + 1).c_str()) !=
        0)
      return;
    relative.erase(slash);
  }
}

}  // namespace mavrel_host
