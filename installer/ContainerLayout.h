// Where containers live under the device root, and how they are made.
//
//   <root>/private/var/containers/Bundle/<UUID>/   bundle containers
//   <home>/Containers/Data/<UUID>/                 data containers
//   <home>/Containers/Shared/<UUID>/               group containers
//
// The registry stores every path relative to the device root (without a
// leading "/"), so that an image keeps its registry when it is moved;
// absolute() and relative() convert. The one exception, a built-in
// application on a disk image mounted outside the root, is stored absolute.
//
// Error contract: functions returning bool give false and store a record in
// `*error` (POSIX domain from InstallerFiles.h, or a "CVInstallerErrorDomain"
// record for a path outside the root); nullopt results say the same without a
// record.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "installer/InstallerFiles.h"

namespace mavrel_installer {

enum class ContainerClass { Bundle, Data, Group };

inline constexpr mode_t kContainerMode = 0755;

class ContainerLayout {
 public:
  // `root` is the resolved device root; `homeRelative` the mobile user's home
  // relative to it ("private/var/mobile").
  ContainerLayout(std::string root, std::string_view homeRelative);

  const std::string& root() const { return root_; }
  const std::string& home() const { return home_; }
  const std::string& directoryFor(ContainerClass containerClass) const;

  std::string absolute(std::string_view relative) const;
  // `path` relative to the root; nullopt when it is not beneath the root.
  std::optional<std::string> relative(std::string_view path) const;

  // Makes the three container directories where they are missing, refusing
  // any link on the way.
  bool makeContainerDirectories(CVError* error) const;

  // A fresh path "<directory of the class>/<UUID>" where nothing is yet.
  std::optional<std::string> newContainerPath(ContainerClass containerClass) const;

 private:
  std::string root_;
  std::string home_;
  std::string bundleDirectory_;
  std::string dataDirectory_;
  std::string groupDirectory_;
};

// The entries of a new data container, made in this order below it.
inline constexpr std::string_view kDataContainerSkeleton[] = {
    "Documents", "Library", "Library/Caches", "Library/Preferences", "tmp"};

// Makes `path` (its parent must exist) as a data container: the directory and
// its skeleton, all with kContainerMode and `owner`.
bool makeDataContainer(const std::string& path, const ItemOwner& owner, CVError* error);

// Gives the existing data container `path` the top-level skeleton entries it
// lacks ("Documents", "Library", "tmp"), each made whole ("Library" with its
// "Caches" and "Preferences"). An entry that is there, whatever it is, is
// left as it is and nothing is made inside it: the result is the container a
// full skeleton would have given once the items present had replaced theirs.
bool completeDataContainer(const std::string& path, const ItemOwner& owner, CVError* error);

}  // namespace mavrel_installer
