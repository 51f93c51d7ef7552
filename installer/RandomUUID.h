// Random (version 4) UUIDs in their upper-case text form, as container
// directory names: "8-4-4-4-12" hexadecimal digits.
//
// Error contract: nullopt when the kernel's random generator cannot be read
// (errno set); nothing is logged.
#pragma once

#include <optional>
#include <string>

namespace mavrel_installer {

std::optional<std::string> makeRandomUUIDString();

}  // namespace mavrel_installer
