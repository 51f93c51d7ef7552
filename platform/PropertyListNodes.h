// Conversion between libplist trees and the value model.
//
// Reading keeps dictionary keys in their order and booleans apart from the
// integers 0 and 1. libplist keeps every integer as 64 bits plus a private
// mark for unsigned values above INT64_MAX; that mark is recovered here, so
// -1 and 18446744073709551615 stay different values. A UID (keyed archives)
// reads as the dictionary {"CF$UID" = n}, as XML property lists write it.
//
// Writing encodes what property lists cannot hold by its nearest form: a set
// as an array, a URL as its string form, null and error records as their
// description. Strings end at an embedded NUL byte.
//
// Both directions refuse trees with more than `maxDepth` nested containers,
// so that neither recurses without bound.
#pragma once

#include <plist/plist.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "platform/Value.h"

namespace platform::plist_nodes {

struct PlistFree {
  void operator()(void* node) const { plist_free(node); }
};
// Owns a libplist tree (plist_t is an untyped pointer).
using PlistNode = std::unique_ptr<void, PlistFree>;

// The value of `node`, or nullopt with `reason` set.
std::optional<CVValue> valueFromNode(plist_t node, std::size_t maxDepth, std::string& reason);

// A libplist tree for `value`; null when it is nested too deeply.
PlistNode nodeFromValue(const CVValue& value, std::size_t maxDepth);

}  // namespace platform::plist_nodes
