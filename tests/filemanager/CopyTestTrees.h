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

struct ItemRecord {
  mode_t mode = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  off_t size = 0;
  dev_t rdev = 0;
  timespec atime{};
  timespec mtime{};
  blkcnt_t blocks = 0;
  ino_t inode = 0;
  std::map<std::string, std::string> attributes;  // extended attributes
  std::string contents;                           // a file's bytes or a link's content
};

// Every item of the tree by its path relative to `root` ("" for the root),
// read without changing any access time (O_NOATIME; a link's access time is
// put back after its content is read) and without following links.
using TreeSnapshot = std::map<std::string, ItemRecord>;
TreeSnapshot snapshotTree(const std::string& root);

// Reading a link's content (as any copy must) stamps the link's access time.
enum class LinkAccessTimes { Compared, Ignored };

// The differences between two trees: lstat fields except inode, ctime, device,
// block count and a directory's size; extended attributes; bytes; link
// contents; and which paths are hard links of each other. Empty when the
// trees are equal.
std::vector<std::string> differences(const TreeSnapshot& expected, const TreeSnapshot& actual,
                                     LinkAccessTimes linkAccessTimes = LinkAccessTimes::Compared);

// A fresh directory on a file system other than the one holding `near`
// (/dev/shm), removed with its contents at the end. `available()` is false
// when there is no such file system.
class OtherDeviceDirectory {
 public:
  explicit OtherDeviceDirectory(const std::string& near);
  ~OtherDeviceDirectory();
  OtherDeviceDirectory(const OtherDeviceDirectory&) = delete;
  OtherDeviceDirectory& operator=(const OtherDeviceDirectory&) = delete;

  bool available() const { return !path_.empty(); }
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

}  // namespace filemanager_test
