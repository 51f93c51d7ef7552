// Property lists: reading XML and binary property lists into the value model,
// and writing XML property lists durably.
//
// Encoding and decoding go through libplist. Reading refuses anything that is
// not a regular file (a directory, a symbolic link, a FIFO) and files larger
// than kMaxPropertyListFileSize, so a hostile file can neither block the reader
// nor exhaust memory: each kind of file has limits of its own (see
// PropertyListLimits). Binary lists are decoded here, not by libplist, so
// that a dictionary key that is not a string is carried (see
// CVDictionary::addEntryWithNonStringKey) instead of failing the whole file.
// Every failure yields a CVError that names the file and the reason.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/FileIO.h"
#include "platform/URL.h"
#include "platform/Value.h"

namespace platform {

// What one read of a property list may cost: the file's size and its number
// of objects (every array, dictionary, key and scalar; an object a binary list
// shares counts once per use). Memory grows with both: a few hundred bytes
// per object (libplist's XML nodes and the value tree) and a few times the
// bytes, so every kind below stays well under 128 MiB per read. A file beyond
// its kind's limits is refused with a reason that names it.
struct PropertyListLimits {
  std::size_t maxFileSize;
  std::uint64_t maxObjects;
};

// No limits may exceed these.
inline constexpr std::size_t kMaxPropertyListFileSize = 8 * 1024 * 1024;
inline constexpr std::uint64_t kMaxPropertyListObjects = std::uint64_t{1} << 18;

// Per kind of file.
inline constexpr PropertyListLimits kAnyPropertyListLimits{kMaxPropertyListFileSize,
                                                           kMaxPropertyListObjects};
inline constexpr PropertyListLimits kInstallMapLimits = kAnyPropertyListLimits;
inline constexpr PropertyListLimits kHarborMapLimits{4 * 1024 * 1024, std::uint64_t{1} << 17};
inline constexpr PropertyListLimits kInfoPlistLimits{1024 * 1024, std::uint64_t{1} << 16};
inline constexpr PropertyListLimits kEntitlementsLimits{2 * 1024 * 1024, std::uint64_t{1} << 17};
inline constexpr PropertyListLimits kPreferencesLimits{1024 * 1024, std::uint64_t{1} << 16};
inline constexpr PropertyListLimits kMigrationMarkerLimits{64 * 1024, 1024};
inline constexpr PropertyListLimits kSystemVersionLimits{64 * 1024, 1024};

// Property lists with more nested arrays and dictionaries are refused, both
// when read and when written, so that no step recurses without bound.
inline constexpr std::size_t kMaxPropertyListDepth = 512;

// Parses XML or binary property-list bytes. Failure: nullopt and a
// kPlatformErrorDomain / kPlatformPropertyListReadCorruptError record.
std::optional<CVValue> parsePropertyList(std::span<const std::uint8_t> bytes, CVError* error,
                                         const PropertyListLimits& limits = kAnyPropertyListLimits);

// Reads a property-list file (XML or binary), not following a final symbolic
// link. Failure: nullopt; a missing file gives kPlatformFileReadNoSuchFileError
// and a file that cannot be read for another reason (a link, a directory, too
// large, no permission) kPlatformFileReadUnknownError, both with the POSIX
// error as underlying error; bytes that are no property list give
// kPlatformPropertyListReadCorruptError.
std::optional<CVValue> readPropertyList(const CVURL& url, CVError* error,
                                        const PropertyListLimits& limits = kAnyPropertyListLimits);

// Reads a property-list file whose root must be a dictionary; any other root is
// a failure to read.
std::optional<CVDictionary> readPropertyListDictionary(
    const CVURL& url, CVError* error, const PropertyListLimits& limits = kAnyPropertyListLimits);

// The XML encoding of `value`, without a document type declaration. Values that property lists
// cannot hold (null, sets, URLs, errors) are encoded by their nearest form: a set as an array, a
// URL as its string form, an error and null as their description. Dates keep
// whole seconds. A value nested more than kMaxPropertyListDepth deep encodes
// as the empty string.
std::string encodeXMLPropertyList(const CVValue& value);

// The binary ("bplist00") encoding of `value`, with the same substitutions and
// depth limit as encodeXMLPropertyList; empty when nested too deeply.
std::vector<std::uint8_t> encodeBinaryPropertyList(const CVValue& value);

// Writes `value` as an XML property list: written aside in the same directory,
// flushed, renamed into place, and the directory flushed. On failure the file
// at `url` is left as it was and nothing is left aside (see
// writeFileAtomically for the one exception; and for `durability`). Failure:
// a kPlatformErrorDomain / kPlatformFileWriteUnknownError record, with the
// POSIX error as underlying error when a system call failed.
bool writePropertyListAtomically(const CVValue& value, const CVURL& url, CVError* error,
                                 WriteDurability durability = WriteDurability::Flushed);

// The first half of writePropertyListAtomically (see AtomicFileWrite), for a
// caller that finishes the write elsewhere; failures as there.
std::optional<AtomicFileWrite> beginPropertyListWrite(const CVValue& value, const CVURL& url,
                                                      CVError* error);

}  // namespace platform
