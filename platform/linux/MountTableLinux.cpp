// The mount table from /proc/self/mounts, through the C library's mount-table
// interface.
#include <mntent.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "platform/MountTable.h"

namespace platform {

std::vector<MountEntry> ProcessMountTable::mountedFileSystems() const {
  std::vector<MountEntry> entries;
  const std::unique_ptr<FILE, int (*)(FILE*)> table(::setmntent("/proc/self/mounts", "re"),
                                                    ::endmntent);
  if (!table) return entries;
  struct mntent entry;
  char buffer[8192];
  while (::getmntent_r(table.get(), &entry, buffer, sizeof buffer) != nullptr) {
    entries.push_back(MountEntry{entry.mnt_fsname, entry.mnt_dir});
  }
  if (entries.empty()) errno = ENOENT;
  return entries;
}

}  // namespace platform
