// The one tree snapshot of the tests: every item below a directory (lstat
// fields, extended attributes, bytes, link contents, hard links), the
// differences between two snapshots, and the SHA-256 of every file.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace testing_support {

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

// Reading a link's content (as any copy must) stamps the link's access time;
// a program that reads files stamps theirs; two trees made one after the
// other differ in every time.
enum class AccessTimes { Compared, IgnoredOnLinks, Ignored, AndModificationTimesIgnored };

// The differences between two trees: lstat fields except inode, ctime, device,
// block count and a directory's size; extended attributes; bytes; link
// contents; and which paths are hard links of each other. Empty when the
// trees are equal.
std::vector<std::string> differences(const TreeSnapshot& expected, const TreeSnapshot& actual,
                                     AccessTimes accessTimes = AccessTimes::Compared);

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

// The lines of `differences`, one per indented row ("" when there are none): at most
// `limit` of them, then how many more there are.
std::string listed(const std::vector<std::string>& lines, std::size_t limit = SIZE_MAX);

// Relative path to SHA-256 of every regular file below `directory` (none when
// it does not exist).
std::map<std::string, std::string> digestsBelow(const std::string& directory);

}  // namespace testing_support
