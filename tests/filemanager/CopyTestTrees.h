// Fixtures of the copy and move tests: a tree with every kind of item and
// attribute a copy has to carry over, an item-by-item record of a tree, and
// a scratch directory on another file system.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace filemanager_test {

// Relative paths (inside the tree) of the notable items of makeRichTree.
inline constexpr const char* kSparseFile = "sparse";
inline constexpr off_t kSparseFileSize = 8 * 1024 * 1024;
inline constexpr const char* kLargeFile = "nested/large";

// Builds below `root` (which must not exist) a tree of: nested directories
// (one read-only, one with mode 0000, one sticky, one set-group-id); files
// empty, small and large; a sparse file with a trailing hole; files with
// modes 04751 and 0000; relative, absolute, dangling and directory-pointing
// links; a FIFO; three names of one file in different directories and a file
// with a second name outside the tree (`outside` must be a directory); user
// extended attributes on files and directories; an access ACL on a file and a
// default ACL on a directory; items owned by 501:501; and times in the past
// with nanoseconds on every item, directories set after their contents.
void makeRichTree(const std::string& root, const std::string& outside);

// A POSIX ACL as the kernel stores it in "system.posix_acl_*": a version
// word, then (tag, permissions, id) entries sorted by tag and id. Owner rwx,
// group r-x, other none; `withNamedUser` adds user 501 r and a mask r-x.
std::string posixAclValue(bool withNamedUser);

}  // namespace filemanager_test
