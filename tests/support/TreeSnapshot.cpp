#include "tests/support/TreeSnapshot.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>

#include "platform/linux/DirectoryStream.h"
#include "platform/linux/ExtendedAttributes.h"
#include "platform/linux/FileDescriptor.h"
#include "shared/support/CVFileDigest.h"

namespace testing_support {

namespace sys = platform::sys;

namespace {

std::string readAllNoAtime(const std::string& path) {
  const sys::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NOATIME | O_CLOEXEC));
  EXPECT_TRUE(fd) << path << ": " << std::strerror(errno);
  std::string bytes;
  char buffer[65536];
  for (;;) {
    const ssize_t got = ::read(fd.get(), buffer, sizeof buffer);
    if (got <= 0) break;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
  return bytes;
}

void snapshotInto(const std::string& path, const std::string& relative, TreeSnapshot& snapshot) {
  struct stat status {};
  ASSERT_EQ(::lstat(path.c_str(), &status), 0) << path;
  ItemRecord& record = snapshot[relative];
  record.mode = status.st_mode;
  record.uid = status.st_uid;
  record.gid = status.st_gid;
  record.size = status.st_size;
  record.rdev = status.st_rdev;
  record.atime = status.st_atim;
  record.mtime = status.st_mtim;
  record.blocks = status.st_blocks;
  record.inode = status.st_ino;

  std::vector<std::string> names;
  const sys::AttributeItem item = sys::AttributeItem::link(path.c_str());
  EXPECT_EQ(sys::listAttributes(item, names), 0) << path;
  for (const std::string& name : names) {
    std::vector<char> value;
    EXPECT_EQ(sys::getAttribute(item, name.c_str(), value), 0) << name << " of " << path;
    record.attributes[name].assign(value.begin(), value.end());
  }

  if (S_ISREG(status.st_mode)) {
    record.contents = readAllNoAtime(path);
  } else if (S_ISLNK(status.st_mode)) {
    std::string content(4096, '\0');
    const ssize_t length = ::readlink(path.c_str(), content.data(), content.size());
    EXPECT_GE(length, 0) << path;
    content.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    record.contents = content;
    // Reading a link's content stamps its access time; put back what was seen.
    const timespec times[2] = {status.st_atim, {0, UTIME_OMIT}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  } else if (S_ISDIR(status.st_mode)) {
    std::vector<std::string> children;
    {
      sys::DirectoryStream stream = sys::DirectoryStream::adopt(sys::UniqueFd(
          ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NOATIME | O_CLOEXEC)));
      ASSERT_TRUE(stream.valid()) << path;
      sys::DirectoryEntry entry;
      bool atEnd = false;
      while (stream.next(entry, atEnd) == 0 && !atEnd)
        children.emplace_back(entry.name);
    }
    for (const std::string& child : children)
      snapshotInto(path + "/" + child, relative.empty() ? child : relative + "/" + child, snapshot);
  }
}

std::string describeTime(const timespec& time) {
  return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
}

// For every non-directory, the set of paths that share its inode.
std::map<std::string, std::set<std::string>> linkGroups(const TreeSnapshot& snapshot) {
  std::map<ino_t, std::set<std::string>> byInode;
  for (const auto& [path, record] : snapshot) {
    if (!S_ISDIR(record.mode)) byInode[record.inode].insert(path);
  }
  std::map<std::string, std::set<std::string>> groups;
  for (const auto& [inode, paths] : byInode) {
    for (const std::string& path : paths)
      groups[path] = paths;
  }
  return groups;
}

std::string join(const std::set<std::string>& paths) {
  std::string text;
  for (const std::string& path : paths)
    text += (text.empty() ? "" : ", ") + path;
  return text;
}

}  // namespace

TreeSnapshot snapshotTree(const std::string& root) {
  TreeSnapshot snapshot;
  snapshotInto(root, "", snapshot);
  return snapshot;
}

std::vector<std::string> differences(const TreeSnapshot& expected, const TreeSnapshot& actual,
                                     AccessTimes accessTimes) {
  std::vector<std::string> found;
  auto report = [&found](const std::string& path, const std::string& what, const auto& want,
                         const auto& got) {
    std::ostringstream text;
    text << "'" << path << "' " << what << ": expected " << want << ", got " << got;
    found.push_back(text.str());
  };
  for (const auto& [path, want] : expected) {
    const auto other = actual.find(path);
    if (other == actual.end()) {
      found.push_back("'" + path + "' is missing");
      continue;
    }
    const ItemRecord& got = other->second;
    if (want.mode != got.mode) report(path, "mode", want.mode, got.mode);
    if (want.uid != got.uid) report(path, "uid", want.uid, got.uid);
    if (want.gid != got.gid) report(path, "gid", want.gid, got.gid);
    // A directory's size is the file system's business.
    if (want.size != got.size && !S_ISDIR(want.mode)) report(path, "size", want.size, got.size);
    if (want.rdev != got.rdev) report(path, "rdev", want.rdev, got.rdev);
    const bool compareAtime = accessTimes == AccessTimes::Compared ||
                              (accessTimes == AccessTimes::IgnoredOnLinks && !S_ISLNK(want.mode));
    if (compareAtime && describeTime(want.atime) != describeTime(got.atime))
      report(path, "atime", describeTime(want.atime), describeTime(got.atime));
    if (accessTimes != AccessTimes::AndModificationTimesIgnored &&
        describeTime(want.mtime) != describeTime(got.mtime))
      report(path, "mtime", describeTime(want.mtime), describeTime(got.mtime));
    if (want.attributes != got.attributes) {
      std::string wantNames;
      std::string gotNames;
      for (const auto& [name, value] : want.attributes)
        wantNames += name + "(" + std::to_string(value.size()) + ") ";
      for (const auto& [name, value] : got.attributes)
        gotNames += name + "(" + std::to_string(value.size()) + ") ";
      report(path, "extended attributes", wantNames, gotNames);
    }
    if (want.contents != got.contents)
      report(path, "contents", want.contents.size(), got.contents.size());
  }
  for (const auto& [path, record] : actual) {
    if (expected.find(path) == expected.end()) found.push_back("'" + path + "' is extra");
  }
  const auto wantGroups = linkGroups(expected);
  const auto gotGroups = linkGroups(actual);
  for (const auto& [path, group] : wantGroups) {
    const auto other = gotGroups.find(path);
    if (other != gotGroups.end() && other->second != group)
      report(path, "hard links", join(group), join(other->second));
  }
  return found;
}

OtherDeviceDirectory::OtherDeviceDirectory(const std::string& near) {
  struct stat nearStatus {};
  struct stat shmStatus {};
  if (::stat(near.c_str(), &nearStatus) != 0 || ::stat("/dev/shm", &shmStatus) != 0 ||
      nearStatus.st_dev == shmStatus.st_dev)
    return;
  std::string pattern = "/dev/shm/mavrel-test.XXXXXX";
  if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
}

OtherDeviceDirectory::~OtherDeviceDirectory() {
  if (path_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string listed(const std::vector<std::string>& lines, std::size_t limit) {
  std::string text;
  for (std::size_t i = 0; i < lines.size() && i < limit; ++i)
    text += "  " + lines[i] + "\n";
  if (lines.size() > limit) text += "  ... and " + std::to_string(lines.size() - limit) + " more\n";
  return text;
}

std::map<std::string, std::string> digestsBelow(const std::string& directory) {
  std::map<std::string, std::string> digests;
  std::error_code error;
  if (!std::filesystem::exists(std::filesystem::symlink_status(directory, error))) return digests;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (entry.is_symlink() || !entry.is_regular_file()) continue;
    digests[std::filesystem::relative(entry.path(), directory).string()] =
        CVCreateSHA256Digest(entry.path().string()).value_or("unreadable");
  }
  return digests;
}

}  // namespace testing_support
