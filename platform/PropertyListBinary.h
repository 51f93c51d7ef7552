// Decoding of binary ("bplist00") property lists into the value model.
//
// Unlike libplist, the decoder keeps dictionaries whose keys are not strings:
// such entries are carried as entries with a non-string key (see
// CVDictionary::addEntryWithNonStringKey), so that one odd key does not make a
// whole file unreadable. The values read as the XML reader reads them: dates
// as seconds since 1970, UIDs as {"CF$UID" = n}, sets as arrays, UTF-16
// strings as UTF-8, integers of 16 bytes whose high half is zero as unsigned.
//
// The bytes must have passed plist_guard::checkBinary (offsets, references,
// depth, cycles and expanded size); every scalar is still bounds-checked here.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/Value.h"

namespace platform::plist_binary {

// The root value, or nullopt with `reason` set.
std::optional<CVValue> decode(std::span<const std::uint8_t> bytes, std::string& reason);

}  // namespace platform::plist_binary
