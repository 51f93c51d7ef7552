// CorvaneAdditions: string helpers for paths as the file system holds them.
//
// The file system's representation of a path is UTF-8 here. Decoding rejects
// what is not well-formed UTF-8: overlong forms, surrogates, code points above
// U+10FFFF, stray continuation bytes and truncated sequences. It also rejects
// a NUL byte inside the given length, since no path can contain one.
//
// Error contract: the decoders answer nullopt for bytes that do not decode
// (and for a null pointer, except with length 0, which gives ""). Nothing here
// logs or throws; every function may be called from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace CorvaneAdditions {

// Decodes exactly `length` bytes at `bytes`; no terminating NUL is needed or
// read.
std::optional<std::string> stringWithFileSystemRepresentation(const char* bytes,
                                                              std::size_t length);

// Decodes the NUL-terminated byte string at `bytes`.
std::optional<std::string> stringWithFileSystemRepresentation(const char* bytes);

// Whether one of the path's components is exactly ".." ("..." and "..a" are
// not). Components follow CVURL::pathComponents; an empty path has none.
bool containsDotDotPathComponents(std::string_view path);

}  // namespace CorvaneAdditions
