#include "installer/ContainerLayout.h"

#include <cerrno>

#include "installer/RandomUUID.h"
#include "platform/FileIOPosix.h"

namespace mavrel_installer {

ContainerLayout::ContainerLayout(std::string root, std::string_view homeRelative)
    : root_(std::move(root)), home_(absolute(homeRelative)) {
  bundleDirectory_ = absolute("private/var/containers/Bundle");
  dataDirectory_ = home_ + "/Containers/Data";
  groupDirectory_ = home_ + "/Containers/Shared";
}

const std::string& ContainerLayout::directoryFor(ContainerClass containerClass) const {
  switch (containerClass) {
    case ContainerClass::Bundle:
      return bundleDirectory_;
    case ContainerClass::Data:
      return dataDirectory_;
    case ContainerClass::Group:
      break;
  }
  return groupDirectory_;
}

std::string ContainerLayout::absolute(std::string_view relative) const {
  if (relative.empty()) return root_;
  if (relative.front() == '/') return std::string(relative);  // stored absolute
  std::string path = root_;
  if (path != "/") path += '/';
  path += relative;
  return path;
}

std::optional<std::string> ContainerLayout::relative(std::string_view path) const {
  if (!pathIsWithin(path, root_)) return std::nullopt;
  if (root_ == "/") return std::string(path.substr(1));
  if (path.size() == root_.size()) return std::string();
  return std::string(path.substr(root_.size() + 1));
}

bool ContainerLayout::makeContainerDirectories(CVError* error) const {
  for (const std::string* directory : {&bundleDirectory_, &dataDirectory_, &groupDirectory_}) {
    if (!makeDirectoriesBelow(root_, *directory, kContainerMode, error)) return false;
  }
  return true;
}

std::optional<std::string> ContainerLayout::newContainerPath(ContainerClass containerClass) const {
  // A collision of random UUIDs is not expected; the check costs one lstat.
  for (int attempt = 0; attempt < 4; ++attempt) {
    const auto uuid = makeRandomUUIDString();
    if (!uuid) return std::nullopt;
    std::string path = directoryFor(containerClass) + "/" + *uuid;
    if (itemKindAtPath(path) == ItemKind::Missing) return path;
  }
  return std::nullopt;
}

bool makeDataContainer(const std::string& path, const ItemOwner& owner, CVError* error) {
  if (!makeOwnedDirectory(path, kContainerMode, owner, error)) return false;
  for (const std::string_view entry : kDataContainerSkeleton) {
    if (!makeOwnedDirectory(path + "/" + std::string(entry), kContainerMode, owner, error)) {
      return false;
    }
  }
  return true;
}

bool completeDataContainer(const std::string& path, const ItemOwner& owner, CVError* error) {
  // The first entry of a top-level name that mkdir makes marks the name as
  // made here; its nested entries follow only then. EEXIST settles "there"
  // without a separate lookup and never follows a link.
  std::string_view madeTop;
  for (const std::string_view entry : kDataContainerSkeleton) {
    const std::size_t slash = entry.find('/');
    const std::string entryPath = path + "/" + std::string(entry);
    if (slash != std::string_view::npos) {
      if (entry.substr(0, slash) != madeTop) continue;
      if (!makeOwnedDirectory(entryPath, kContainerMode, owner, error)) return false;
      continue;
    }
    CVError makeError;
    if (makeOwnedDirectory(entryPath, kContainerMode, owner, &makeError)) {
      madeTop = entry;
    } else if (makeError.isPOSIX(EEXIST)) {
      madeTop = {};
    } else {
      CVSetError(error, makeError);
      return false;
    }
  }
  return true;
}

}  // namespace mavrel_installer
