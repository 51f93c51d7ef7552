// The least work that carries a legacy device image into the current layout:
// the yardstick of the whole-migration benchmark (migration_bench).
//
//   migration_lower_bound [--placeholders] --root DIR
//
// For every legacy application container below
// <root>/private/var/mobile/Applications it does only what the change of
// layout cannot do without, with plain system calls and no bookkeeping:
//   - one marker written beside the items, flushed and renamed into place
//     (what makes an interrupted run resumable);
//   - a bundle container made, and the ".app" bundle, a ".vpnplugin" bundle
//     and the store metadata items renamed into it;
//   - a data container made, and the user-data items renamed into it;
//   - the legacy container removed (the marker and whatever else is left).
// For every legacy group container: a new group container made and its
// entries renamed into it, then the legacy directory removed. Then the legacy
// directory and install map are removed and the file system is flushed once,
// as the migration's installer does when it closes.
//
// No property list is read, no registry written, no icon made, nothing
// chowned or checked. Prints what it did; exit status 0, or 2 with a message
// when a step fails.
//
// With --placeholders it also does, with the same plain calls, the file work
// that the migrator's own steps fix for an application with a bundle, so
// that the distance between the two modes is what those steps cost and the
// rest of the distance to `mavrel migrate` is the services': the marker's
// directory flushed after its rename; a placeholder staged (a directory, an
// icon and an Info.plist of about the real sizes) and renamed into a bundle
// container of its own; the bundles and store metadata moved through
// "Staging/Payload", which becomes the bundle container; "Payload" and the
// placeholder's container removed.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "bench/BenchSupport.h"
#include "platform/linux/DirectoryStream.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileSystemSync.h"

namespace {

using platform::sys::DirectoryEntry;
using platform::sys::DirectoryStream;
using platform::sys::EntryType;
using platform::sys::UniqueFd;

constexpr std::string_view kMarkerName = "com.zentrel.corvane.container_migrator.plist";
constexpr std::string_view kUserDataNames[] = {"Documents", "Library", "tmp", "Pormex"};
constexpr std::string_view kMetadataNames[] = {"Manifest.plist", "SorvikArtwork",
                                               "SorvikMetadata.plist", "GeoJSON"};

// About the size of a real container record: a dictionary of five paths.
constexpr std::string_view kMarkerText =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
    "\t<key>BundleIdentifier</key>\n\t<string>com.example.application</string>\n"
    "\t<key>BundlePath</key>\n\t<string>/private/var/mobile/Applications/"
    "00000000-0000-0000-0000-000000000000/Application.app</string>\n"
    "\t<key>ContainerPath</key>\n\t<string>/private/var/mobile/Applications/"
    "00000000-0000-0000-0000-000000000000</string>\n"
    "\t<key>ContainerType</key>\n\t<string>App</string>\n</dict>\n</plist>\n";

struct Counts {
  std::size_t containers = 0;
  std::size_t groups = 0;
  std::size_t renames = 0;
  std::size_t directoriesMade = 0;
  std::size_t flushes = 0;
};

constexpr std::size_t kIconBytes = 6000;

struct Entry {
  std::string name;
  bool directory = false;
};

std::vector<Entry> listDirectory(const std::string& path) {
  DirectoryStream stream = DirectoryStream::adopt(
      platform::sys::openDirectory(path.c_str(), platform::sys::FinalLink::NotFollowed));
  if (!stream.valid()) bench::die("cannot open " + path + ": " + std::strerror(errno));
  std::vector<Entry> entries;
  DirectoryEntry entry;
  for (bool atEnd = false;;) {
    if (const int failure = stream.next(entry, atEnd); failure != 0)
      bench::die("cannot read " + path + ": " + std::strerror(failure));
    if (atEnd) break;
    entries.push_back({std::string(entry.name), entry.type == EntryType::Directory});
  }
  return entries;
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

template <std::size_t N>
bool isOneOf(std::string_view name, const std::string_view (&names)[N]) {
  for (std::string_view candidate : names)
    if (name == candidate) return true;
  return false;
}

class LowerBound {
 public:
  LowerBound(std::string root, bool placeholders)
      : root_(std::move(root)), placeholders_(placeholders) {
    home_ = root_ + "/private/var/mobile";
    bundles_ = root_ + "/private/var/containers/Bundle";
    data_ = home_ + "/Containers/Data";
    shared_ = home_ + "/Containers/Shared";
    staged_ = root_ + "/private/var/tmp/migration_lower_bound";
  }

  Counts run() {
    for (const std::string& directory :
         {root_ + "/private/var/containers", bundles_, home_ + "/Containers", data_, shared_})
      makeDirectory(directory, true);
    if (placeholders_) {
      makeDirectory(root_ + "/private/var/tmp", true);
      makeDirectory(staged_, true);
    }

    const std::string legacy = home_ + "/Applications";
    for (const Entry& entry : listDirectory(legacy)) {
      const std::string path = legacy + "/" + entry.name;
      if (entry.directory) {
        migrateContainer(path, entry.name);
      } else {
        removeFile(path);
      }
    }
    removeDirectory(legacy);
    removeFile(home_ + "/Library/Caches/com.zentrel.corvane.plist");

    const std::string groups = home_ + "/Library/GroupContainers";
    for (const Entry& entry : listDirectory(groups)) {
      if (entry.directory) migrateGroup(groups + "/" + entry.name, entry.name);
    }

    const UniqueFd rootFd(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!rootFd || platform::sys::syncFileSystemOf(rootFd.get()) != 0)
      bench::die("cannot flush the file system of " + root_);
    ++counts_.flushes;
    return counts_;
  }

 private:
  void migrateContainer(const std::string& container, const std::string& name) {
    ++counts_.containers;
    writeMarker(container);
    const std::vector<Entry> entries = listDirectory(container);

    bool hasBundle = false;
    bool hasData = false;
    for (const Entry& entry : entries) {
      hasBundle = hasBundle || endsWith(entry.name, ".app") || endsWith(entry.name, ".vpnplugin");
      hasData = hasData || isOneOf(entry.name, kUserDataNames);
    }
    const std::string bundle = bundles_ + "/" + name;
    const std::string data = data_ + "/" + name;
    if (placeholders_ && hasBundle) {
      migrateWithPlaceholder(container, name, entries, hasData ? data : std::string(), bundle);
      return;
    }
    if (hasBundle) makeDirectory(bundle, false);
    if (hasData) makeDirectory(data, false);
    for (const Entry& entry : entries) {
      const std::string from = container + "/" + entry.name;
      if (hasBundle && (endsWith(entry.name, ".app") || endsWith(entry.name, ".vpnplugin") ||
                        isOneOf(entry.name, kMetadataNames))) {
        move(from, bundle + "/" + entry.name);
      } else if (isOneOf(entry.name, kUserDataNames)) {
        move(from, data + "/" + entry.name);
      }
    }
    removeTree(container);
  }

  // The same moves, the way the migrator's steps make them; `data` is "" when
  // the container holds no user data.
  void migrateWithPlaceholder(const std::string& container, const std::string& name,
                              const std::vector<Entry>& entries, const std::string& data,
                              const std::string& bundleContainer) {
    const std::string staged = staged_ + "/" + name + ".app";
    const std::string placeholder = bundles_ + "/placeholder-" + name;
    makeDirectory(staged, false);
    writeFile(staged + "/Icon.png", std::string(kIconBytes, 'i'), /*flush=*/false);
    writeFile(staged + "/Info.plist", kMarkerText, /*flush=*/false);
    makeDirectory(placeholder, false);
    move(staged, placeholder + "/Placeholder.app");

    if (!data.empty()) makeDirectory(data, false);
    for (const Entry& entry : entries) {
      if (isOneOf(entry.name, kUserDataNames))
        move(container + "/" + entry.name, data + "/" + entry.name);
    }
    const std::string staging = container + "/Staging";
    const std::string payload = staging + "/Payload";
    makeDirectory(staging, false);
    makeDirectory(payload, false);
    std::vector<std::string> bundles;
    for (const Entry& entry : entries) {
      if (endsWith(entry.name, ".app") || endsWith(entry.name, ".vpnplugin")) {
        move(container + "/" + entry.name, payload + "/" + entry.name);
        bundles.push_back(entry.name);
      } else if (isOneOf(entry.name, kMetadataNames)) {
        move(container + "/" + entry.name, staging + "/" + entry.name);
      }
    }
    for (const std::string& bundle : bundles)
      move(payload + "/" + bundle, staging + "/" + bundle);
    move(staging, bundleContainer);
    removeDirectory(bundleContainer + "/Payload");
    removeTree(placeholder);
    removeTree(container);
  }

  void migrateGroup(const std::string& legacy, const std::string& name) {
    ++counts_.groups;
    const std::string target = shared_ + "/" + name;
    makeDirectory(target, false);
    for (const Entry& entry : listDirectory(legacy))
      move(legacy + "/" + entry.name, target + "/" + entry.name);
    removeDirectory(legacy);
  }

  // Writes the marker aside, flushes it and renames it into place.
  void writeMarker(const std::string& container) {
    const std::string aside = container + "/." + std::string(kMarkerName) + ".new";
    const std::string marker = container + "/" + std::string(kMarkerName);
    writeFile(aside, kMarkerText, /*flush=*/true);
    ++counts_.flushes;
    move(aside, marker);
    if (placeholders_) {
      const UniqueFd directory(::open(container.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (!directory || ::fsync(directory.get()) != 0)
        bench::die("cannot flush " + container + ": " + std::strerror(errno));
      ++counts_.flushes;
    }
  }

  // A file holding `text`, flushed when asked.
  static void writeFile(const std::string& path, std::string_view text, bool flush) {
    const UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd) bench::die("cannot create " + path + ": " + std::strerror(errno));
    if (::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        (flush && ::fsync(fd.get()) != 0))
      bench::die("cannot write " + path + ": " + std::strerror(errno));
  }

  void makeDirectory(const std::string& path, bool mayExist) {
    if (::mkdir(path.c_str(), 0755) == 0) {
      ++counts_.directoriesMade;
      return;
    }
    if (!(mayExist && errno == EEXIST))
      bench::die("cannot make " + path + ": " + std::strerror(errno));
  }

  void move(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) != 0)
      bench::die("cannot rename " + from + ": " + std::strerror(errno));
    ++counts_.renames;
  }

  static void removeFile(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
      bench::die("cannot remove " + path + ": " + std::strerror(errno));
  }

  static void removeDirectory(const std::string& path) {
    if (::rmdir(path.c_str()) != 0)
      bench::die("cannot remove " + path + ": " + std::strerror(errno));
  }

  static void removeTree(const std::string& path) {
    for (const Entry& entry : listDirectory(path)) {
      const std::string child = path + "/" + entry.name;
      if (entry.directory) {
        removeTree(child);
      } else {
        removeFile(child);
      }
    }
    removeDirectory(path);
  }

  std::string root_;
  std::string home_;
  std::string bundles_;
  std::string data_;
  std::string shared_;
  std::string staged_;  // where placeholders are staged
  bool placeholders_ = false;
  Counts counts_;
};

}  // namespace

int main(int argc, char** argv) {
  const bool placeholders = argc == 4 && std::string_view(argv[1]) == "--placeholders";
  if (argc != 3 + (placeholders ? 1 : 0) || std::string_view(argv[argc - 2]) != "--root") {
    std::fprintf(stderr, "usage: %s [--placeholders] --root DIR\n", argv[0]);
    return 2;
  }
  const Counts counts = LowerBound(argv[argc - 1], placeholders).run();
  std::printf("containers: %zu, groups: %zu, renames: %zu, directories made: %zu, flushes: %zu\n",
              counts.containers, counts.groups, counts.renames, counts.directoriesMade,
              counts.flushes);
  return 0;
}
