// Data-protection classes of open files and directories.
//
// Linux has no data-protection classes; they are kept in the extended
// attribute "user.mavrel.protection-class" of the item, a 4-byte signed
// integer in machine byte order. An item that never had a class set reads as
// class 3, the platform's default class (also on a file system without
// extended attributes).
//
// On a file system without user extended attributes there is no data
// protection: a class is accepted and kept nowhere, and every item reads as
// class 3.
//
// Error contract: both calls return 0, or -1 with the error number in errno.
// Setting a class on a symbolic link or special file fails with EPERM.
#pragma once

#include <cstdint>

namespace platform::sys {

inline constexpr const char* kProtectionClassAttributeName = "user.mavrel.protection-class";
inline constexpr std::int32_t kDefaultProtectionClass = 3;

int getProtectionClass(int fd, std::int32_t* protectionClass);
int setProtectionClass(int fd, std::int32_t protectionClass);

}  // namespace platform::sys
