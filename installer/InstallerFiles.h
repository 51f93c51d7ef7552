// The few file-system calls the installer makes itself: looking at a path
// without following a final link, renaming, making directories with an owner,
// and resolving a path.
//
// Error contract: functions returning bool give false on failure and store a
// POSIX-domain record (code errno, the call and the path in the description)
// in `*error` when a place was given. Nothing here follows a final symbolic
// link except canonicalPath, whose job is to resolve every link.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace mavrel_installer {

// Who owns what the installer makes. When `apply` is false (an unprivileged
// process cannot give files away) items keep the process's own owner.
struct ItemOwner {
  uid_t uid = 0;
  gid_t gid = 0;
  bool apply = false;
};

enum class ItemKind { Missing, Directory, Regular, Symlink, Other, Unknown };

// What is at `path`, without following a final link. Unknown: lstat failed
// for another reason than ENOENT/ENOTDIR (errno is kept).
ItemKind itemKindAtPath(const std::string& path);
inline bool itemExists(const std::string& path) {
  const ItemKind kind = itemKindAtPath(path);
  return kind != ItemKind::Missing;
}

// The record a staging directory carries when an install takes it into the
// staging root: the name it is given there and where it came from (relative
// to the device root), in an extended attribute of the directory itself, so
// that it travels with the rename. An install cut short before its
// registration is put back from it at the next opening. A record made for
// another name is an earlier install's and means nothing.
bool recordStagingOrigin(const std::string& path, std::string_view stagedName,
                         std::string_view origin, CVError* error);
// Removes the record from a staging directory given back, as far as it can:
// a record left behind names a name the directory no longer has.
void forgetStagingOrigin(const std::string& path);
// The origin recorded on `path` for the name `stagedName`; nullopt when there
// is no such record or it cannot be read.
std::optional<std::string> recordedStagingOrigin(const std::string& path,
                                                 std::string_view stagedName);

// rename(2).
bool renameItem(const std::string& from, const std::string& to, CVError* error);

// mkdir with exactly `mode` (umask notwithstanding), then the owner. The
// parent must exist; an existing item fails with EEXIST.
bool makeOwnedDirectory(const std::string& path, mode_t mode, const ItemOwner& owner,
                        CVError* error);

// Gives an existing directory exactly `mode` and the owner.
bool setModeAndOwner(const std::string& path, mode_t mode, const ItemOwner& owner, CVError* error);

// Makes `path` and any missing directories above it, starting below `base`
// (which must exist), one component at a time. An existing component must be a
// real directory: a symbolic link (or anything else) on the way fails with
// ENOTDIR, so nothing is ever made outside `base` through a link.
bool makeDirectoriesBelow(const std::string& base, const std::string& path, mode_t mode,
                          CVError* error);

// realpath(3): the absolute path with every link resolved; nullopt (errno
// set) when the path does not exist.
std::optional<std::string> canonicalPath(const std::string& path);

// Whether `path` is `base` or lies beneath it (both already resolved).
bool pathIsWithin(std::string_view path, std::string_view base);

// The device number of the file system holding `path` (links followed), or
// nullopt.
std::optional<dev_t> deviceOfPath(const std::string& path);

}  // namespace mavrel_installer
