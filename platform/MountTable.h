// The table of mounted file systems, in the kernel's order.
#pragma once

#include <string>
#include <vector>

namespace platform {

struct MountEntry {
  std::string mountedFrom;  // the device or source, e.g. "/dev/loop3"
  std::string mountedOn;    // the mount point
};

class MountTable {
 public:
  virtual ~MountTable() = default;
  // The mounted file systems; empty with errno set when the table cannot be read.
  virtual std::vector<MountEntry> mountedFileSystems() const = 0;
};

// Reads /proc/self/mounts.
class ProcessMountTable final : public MountTable {
 public:
  std::vector<MountEntry> mountedFileSystems() const override;
};

}  // namespace platform
