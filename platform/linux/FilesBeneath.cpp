#include "platform/linux/FilesBeneath.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/linux/DirectoryRelative.h"
#include "platform/linux/DirectoryStream.h"
#include "platform/linux/MountPoints.h"

namespace platform::sys {
namespace {

// Visits the directory open as `directory` (whose path below the root is
// `prefix`, "" or ending in "/"), one descriptor per level: the names are
// read first and the stream closed before descending.
std::uint64_t walkDirectory(UniqueFd directory, const std::string& prefix,
                            const BeneathFileVisitor& visit) {
  const UniqueFd keep = duplicateDescriptor(directory.get());
  if (!keep) return 1;
  DirectoryStream stream = DirectoryStream::adopt(std::move(directory));
  if (!stream.valid()) return 1;
  std::uint64_t unreadable = 0;
  std::vector<std::string> subdirectories;
  DirectoryEntry entry;
  for (bool atEnd = false;;) {
    if (stream.next(entry, atEnd) != 0) {
      ++unreadable;
      break;
    }
    if (atEnd) break;
    const std::string name(entry.name);
    if (entry.type == EntryType::Directory) {
      subdirectories.push_back(name);
    } else if (entry.type == EntryType::Regular) {
      struct stat status {};
      if (::fstatat(keep.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        ++unreadable;
      } else if (S_ISREG(status.st_mode)) {
        visit(prefix + name, static_cast<std::uint64_t>(status.st_size));
      }
    } else if (entry.type == EntryType::Unknown) {
      ++unreadable;
    }
  }
  stream = DirectoryStream();
  for (const std::string& name : subdirectories) {
    if (isMountRootAt(keep.get(), name.c_str()) != 0) {
      ++unreadable;
      continue;
    }
    UniqueFd child = openDirectoryAt(keep.get(), name.c_str());
    if (!child) {
      ++unreadable;
      continue;
    }
    unreadable += walkDirectory(std::move(child), prefix + name + "/", visit);
  }
  return unreadable;
}

}  // namespace

std::uint64_t walkRegularFilesBeneath(const char* root, const BeneathFileVisitor& visit) {
  UniqueFd directory = openDirectory(root, FinalLink::NotFollowed);
  // A missing root holds nothing; nor does a link or a file standing there.
  if (!directory) return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? 0 : 1;
  return walkDirectory(std::move(directory), std::string(), visit);
}

UniqueFd walkDirectoriesBeneath(int base, std::string_view relative, const ChildOpener& openChild) {
  UniqueFd current = duplicateDescriptor(base);
  while (current && !relative.empty()) {
    const std::size_t slash = relative.find('/');
    const std::string component(relative.substr(0, slash));
    relative = slash == std::string_view::npos ? std::string_view() : relative.substr(slash + 1);
    if (component.empty() || component == ".") continue;
    if (component == "..") {
      errno = EINVAL;
      return UniqueFd();
    }
    current = openChild(current.get(), component.c_str());
  }
  return current;
}

UniqueFd openRegularFileBeneath(const char* root, std::string_view relative) {
  const UniqueFd rootDirectory = openDirectory(root, FinalLink::NotFollowed);
  if (!rootDirectory) return UniqueFd();
  const std::size_t slash = relative.rfind('/');
  const UniqueFd directory = walkDirectoriesBeneath(
      rootDirectory.get(),
      slash == std::string_view::npos ? std::string_view() : relative.substr(0, slash),
      [](int parent, const char* name) {
        if (isMountRootAt(parent, name) != 0) {
          errno = EXDEV;
          return UniqueFd();
        }
        return openDirectoryAt(parent, name);
      });
  if (!directory) return UniqueFd();
  const std::string name(slash == std::string_view::npos ? relative : relative.substr(slash + 1));
  UniqueFd file(::openat(directory.get(), name.c_str(),
                         O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!file) return file;
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return UniqueFd();
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return UniqueFd();
  }
  return file;
}

}  // namespace platform::sys
