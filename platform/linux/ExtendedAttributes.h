// Extended attributes of one item: listing, reading, writing, and copying all
// of them from one item to another.
//
// An item is named either by an open descriptor or, for items that cannot be
// opened without following them (symbolic links, devices, sockets), by a path
// whose final symbolic link is not followed.
//
// Error contract: functions returning int give 0, or -1 with the failing
// call's error number in errno. listAttributes treats a file system without
// extended attributes (ENOTSUP) as an item without any.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace platform::sys {

// An open descriptor (fd >= 0) or a path looked at without following a
// final link.
struct AttributeItem {
  int fd = -1;
  const char* path = nullptr;

  static AttributeItem descriptor(int fd) { return AttributeItem{fd, nullptr}; }
  static AttributeItem link(const char* path) { return AttributeItem{-1, path}; }
};

// Every attribute name the process may see on `item`, in the order the file
// system lists them.
int listAttributes(AttributeItem item, std::vector<std::string>& names);

// The value of `name`; ENODATA when the item has no such attribute.
int getAttribute(AttributeItem item, const char* name, std::vector<char>& value);

// Creates or replaces `name` with `value`.
int setAttribute(AttributeItem item, const char* name, std::string_view value);

// Removes `name`; ENODATA when the item has no such attribute.
int removeAttribute(AttributeItem item, const char* name);

// Copies every attribute of `from` that the process can read to `to`,
// "system.posix_acl_*" included; the buffers are kept between calls. An
// attribute that vanishes or cannot be read is passed over, and so is a
// "security.*" label that the destination refuses (the security module owns
// those). Any other failure to write stops the copy. With `dropOtherAcls`, an
// access or default ACL of `to` that `from` does not have (one inherited from
// the directory `to` was made in) is removed as well.
class AttributeCopier {
 public:
  int copy(AttributeItem from, AttributeItem to, bool dropOtherAcls = false);

 private:
  std::vector<char> names_;
  std::vector<char> value_;
};

}  // namespace platform::sys
