#include "installer/InstallerFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "platform/FileIOPosix.h"
#include "platform/linux/ExtendedAttributes.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/PathResolution.h"

namespace mavrel_installer {
namespace {

bool failWith(int errnoValue, std::string_view call, const std::string& path, CVError* error) {
  CVSetError(error, platform::posixCallError(errnoValue, call, path));
  return false;
}

bool applyOwner(const std::string& path, const ItemOwner& owner, CVError* error) {
  if (!owner.apply) return true;
  if (::lchown(path.c_str(), owner.uid, owner.gid) != 0)
    return failWith(errno, "lchown", path, error);
  return true;
}

constexpr const char* kStagingOriginAttribute = "user.com.zentrel.corvaned.staging-origin";

}  // namespace

bool recordStagingOrigin(const std::string& path, std::string_view stagedName,
                         std::string_view origin, CVError* error) {
  std::string record(stagedName);
  record += '\n';
  record += origin;
  if (platform::sys::setAttribute(platform::sys::AttributeItem::link(path.c_str()),
                                  kStagingOriginAttribute, record) != 0)
    return failWith(errno, "lsetxattr", path, error);
  return true;
}

void forgetStagingOrigin(const std::string& path) {
  platform::sys::removeAttribute(platform::sys::AttributeItem::link(path.c_str()),
                                 kStagingOriginAttribute);
}

std::optional<std::string> recordedStagingOrigin(const std::string& path,
                                                 std::string_view stagedName) {
  std::vector<char> value;
  if (platform::sys::getAttribute(platform::sys::AttributeItem::link(path.c_str()),
                                  kStagingOriginAttribute, value) != 0)
    return std::nullopt;
  const std::string_view record(value.data(), value.size());
  const std::size_t end = record.find('\n');
  if (end == std::string_view::npos || record.substr(0, end) != stagedName) return std::nullopt;
  return std::string(record.substr(end + 1));
}

ItemKind itemKindAtPath(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? ItemKind::Missing : ItemKind::Unknown;
  }
  if (S_ISDIR(status.st_mode)) return ItemKind::Directory;
  if (S_ISREG(status.st_mode)) return ItemKind::Regular;
  if (S_ISLNK(status.st_mode)) return ItemKind::Symlink;
  return ItemKind::Other;
}

bool renameItem(const std::string& from, const std::string& to, CVError* error) {
  if (std::rename(from.c_str(), to.c_str()) != 0) {
    return failWith(errno, "rename to " + to, from, error);
  }
  return true;
}

bool makeOwnedDirectory(const std::string& path, mode_t mode, const ItemOwner& owner,
                        CVError* error) {
  if (::mkdir(path.c_str(), mode) != 0) return failWith(errno, "mkdir", path, error);
  // mkdir's mode passes through the umask; the container layout wants it exact.
  if (::chmod(path.c_str(), mode) != 0) return failWith(errno, "chmod", path, error);
  return applyOwner(path, owner, error);
}

bool setModeAndOwner(const std::string& path, mode_t mode, const ItemOwner& owner, CVError* error) {
  if (::chmod(path.c_str(), mode) != 0) return failWith(errno, "chmod", path, error);
  return applyOwner(path, owner, error);
}

bool makeDirectoriesBelow(const std::string& base, const std::string& path, mode_t mode,
                          CVError* error) {
  if (!pathIsWithin(path, base))
    return failWith(EINVAL, "make directories below " + base, path, error);
  std::size_t position = base.size();
  while (position < path.size()) {
    while (position < path.size() && path[position] == '/')
      ++position;
    if (position >= path.size()) break;
    std::size_t end = path.find('/', position);
    if (end == std::string::npos) end = path.size();
    const std::string prefix = path.substr(0, end);
    switch (itemKindAtPath(prefix)) {
      case ItemKind::Directory:
        break;
      case ItemKind::Missing:
        if (::mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
          return failWith(errno, "mkdir", prefix, error);
        }
        // Someone may have made something else there meanwhile.
        if (itemKindAtPath(prefix) != ItemKind::Directory) {
          return failWith(ENOTDIR, "mkdir", prefix, error);
        }
        break;
      case ItemKind::Unknown:
        return failWith(errno, "lstat", prefix, error);
      default:
        return failWith(ENOTDIR, "lstat", prefix, error);
    }
    position = end;
  }
  return true;
}

std::optional<std::string> canonicalPath(const std::string& path) {
  std::string resolved;
  if (platform::sys::resolveExistingPath(path.c_str(), &resolved) != 0) return std::nullopt;
  return resolved;
}

bool pathIsWithin(std::string_view path, std::string_view base) {
  if (base == "/") return !path.empty() && path.front() == '/';
  if (path.substr(0, base.size()) != base) return false;
  return path.size() == base.size() || path[base.size()] == '/';
}

std::optional<dev_t> deviceOfPath(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return status.st_dev;
}

}  // namespace mavrel_installer
