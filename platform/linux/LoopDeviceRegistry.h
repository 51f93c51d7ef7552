// The I/O registry of a Linux machine, as far as disk images go: the loop
// driver is the disk-image controller ("HWVDSKController"), each attached loop
// device (one with a backing file) is a drive ("HWVDSKHDDrive"), and the device
// and its partitions are media ("HWMedia") whose "BSD Name" is "loopN" or
// "loopNpM". Read from sysfs once, when the registry is made.
#pragma once

#include <memory>
#include <string>

#include "platform/IORegistry.h"

namespace platform {

// `sysfsRoot` is "/sys" on a running system; tests may point it at a copy.
std::unique_ptr<IORegistryTree> makeLoopDeviceRegistry(const std::string& sysfsRoot = "/sys");

}  // namespace platform
