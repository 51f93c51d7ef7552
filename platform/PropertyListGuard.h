// Checks of untrusted property-list bytes made before libplist sees them.
//
// libplist's parsers and its tree destructor recurse once per nesting level,
// and its binary parser expands an object referenced from several places into
// as many copies. A small file can therefore overflow the stack or exhaust
// memory. These checks bound nesting depth (and, for binary lists, the size of
// the expanded tree) without recursing themselves.
//
// Each returns nullopt when the bytes may be handed to libplist, or the reason
// for refusing them. Passing says nothing about validity otherwise: libplist
// still decides whether the bytes are a property list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace platform::plist_guard {

// XML: elements may nest at most `maxElementDepth` deep, start and end tags
// must match, and the text may not contain NUL bytes (which rules out the
// UTF-16 and UTF-32 encodings, which libplist does not read).
// At most `maxElements` elements (start tags) in all.
std::optional<std::string> checkXML(std::span<const std::uint8_t> bytes,
                                    std::size_t maxElementDepth, std::uint64_t maxElements);

// Binary ("bplist00"): the trailer and the offsets and references of
// containers must lie inside the bytes, containers may nest at most
// `maxContainerDepth` deep, there may be no reference cycle, and the tree with
// shared objects expanded may have at most `maxNodes` nodes.
std::optional<std::string> checkBinary(std::span<const std::uint8_t> bytes,
                                       std::size_t maxContainerDepth, std::uint64_t maxNodes);

}  // namespace platform::plist_guard
