#include "tests/filemanager/CopyTestTrees.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "platform/linux/DirectoryStream.h"
#include "platform/linux/ExtendedAttributes.h"
#include "platform/linux/FileDescriptor.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

namespace filemanager_test {

namespace sys = platform::sys;
using namespace testing_support;

namespace {

void makeDirectory(const std::string& path, mode_t mode = 0755) {
  ASSERT_EQ(::mkdir(path.c_str(), mode), 0) << path;
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;  // past the umask
}

void setAttribute(const std::string& path, const char* name, const std::string& value) {
  ASSERT_EQ(sys::setAttribute(sys::AttributeItem::link(path.c_str()), name, value), 0)
      << name << " on " << path << ": " << std::strerror(errno);
}

void changeOwner(const std::string& path, uid_t uid, gid_t gid) {
  ASSERT_EQ(::lchown(path.c_str(), uid, gid), 0) << path;
}

void changeMode(const std::string& path, mode_t mode) {
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

std::string patternBytes(std::size_t size, std::uint32_t seed) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    seed = seed * 1664525u + 1013904223u;
    bytes[i] = static_cast<char>(seed >> 24);
  }
  return bytes;
}

void makeSparseFile(const std::string& path) {
  const sys::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640));
  ASSERT_TRUE(fd) << path;
  const std::string head = patternBytes(4096, 7);
  const std::string middle = patternBytes(8192, 8);
  ASSERT_EQ(::pwrite(fd.get(), head.data(), head.size(), 0), static_cast<ssize_t>(head.size()));
  ASSERT_EQ(::pwrite(fd.get(), middle.data(), middle.size(), 4 * 1024 * 1024),
            static_cast<ssize_t>(middle.size()));
  ASSERT_EQ(::ftruncate(fd.get(), kSparseFileSize), 0);
}

// Gives every item below and including `path` its own past times, contents
// before their directory.
void setPastTimes(const std::string& path, int& counter) {
  struct stat status {};
  ASSERT_EQ(::lstat(path.c_str(), &status), 0) << path;
  if (S_ISDIR(status.st_mode)) {
    for (const auto& entry : std::filesystem::directory_iterator(path))
      setPastTimes(entry.path().string(), counter);
  }
  ++counter;
  const timespec times[2] = {
      {1000000000 + counter * 1000, 123456789 + counter},  // 2001, odd nanoseconds
      {1100000000 + counter * 1000, 987654321 - counter},
  };
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

}  // namespace

std::string posixAclValue(bool withNamedUser) {
  struct Entry {
    std::uint16_t tag;
    std::uint16_t permissions;
    std::uint32_t id;
  };
  constexpr std::uint32_t kUndefined = 0xFFFFFFFFu;
  std::vector<Entry> entries{{0x01, 7, kUndefined}};            // owner rwx
  if (withNamedUser) entries.push_back({0x02, 4, 501});         // user 501 r
  entries.push_back({0x04, 5, kUndefined});                     // group r-x
  if (withNamedUser) entries.push_back({0x10, 5, kUndefined});  // mask r-x
  entries.push_back({0x20, 0, kUndefined});                     // other ---
  std::string value(sizeof(std::uint32_t), '\0');
  const std::uint32_t version = 2;
  std::memcpy(value.data(), &version, sizeof version);
  for (const Entry& entry : entries)
    value.append(reinterpret_cast<const char*>(&entry), sizeof entry);
  return value;
}

void makeRichTree(const std::string& root, const std::string& outside) {
  makeDirectory(root);
  for (const char* directory :
       {"nested", "nested/deeper", "nested/deeper/deepest", "readonly", "closed", "sticky",
        "setgid", "acl-dir", "links", "empty-dir", "owned-by-501"})
    makeDirectory(root + "/" + directory);

  writeFile(root + "/empty", "");
  writeFile(root + "/small.txt", "hello\n");
  writeFile(root + "/name with spaces", "spaces");
  writeFile(root + "/" + kLargeFile, patternBytes(3 * 1024 * 1024 + 17, 3));
  writeFile(root + "/nested/deeper/deepest/leaf", "leaf");
  writeFile(root + "/readonly/inside", "read only");
  writeFile(root + "/closed/secret", "secret");
  writeFile(root + "/sticky/file", "sticky");
  writeFile(root + "/setgid/file", "setgid");
  writeFile(root + "/setuid-program", "#!/bin/sh\nexit 0\n");
  writeFile(root + "/no-access", "nobody may read this");
  writeFile(root + "/acl-file", "acl");
  writeFile(root + "/owned-by-501/file", "owned");
  makeSparseFile(root + "/" + kSparseFile);

  // One file with three names inside the tree, one with a name outside it.
  writeFile(root + "/nested/one", "three names");
  ASSERT_EQ(::link((root + "/nested/one").c_str(), (root + "/nested/deeper/two").c_str()), 0);
  ASSERT_EQ(::link((root + "/nested/one").c_str(), (root + "/links/three").c_str()), 0);
  writeFile(outside + "/shared", "shared with the outside");
  ASSERT_EQ(::link((outside + "/shared").c_str(), (root + "/shared-outside").c_str()), 0);

  testing_support::makeSymlink("../small.txt", root + "/links/relative");
  testing_support::makeSymlink("/etc/hostname", root + "/links/absolute");
  testing_support::makeSymlink("does/not/exist", root + "/links/dangling");
  testing_support::makeSymlink("../nested", root + "/links/to-directory");
  testing_support::makeSymlink("loop", root + "/links/loop");
  ASSERT_EQ(::mkfifo((root + "/fifo").c_str(), 0640), 0);

  setAttribute(root + "/small.txt", "user.comment", "a comment");
  setAttribute(root + "/small.txt", "user.second", std::string("bin\0ary\xff", 8));
  setAttribute(root + "/" + kLargeFile, "user.empty", "");
  setAttribute(root + "/nested", "user.directory", "on a directory");
  setAttribute(root + "/readonly", "user.big", patternBytes(3000, 11));
  setAttribute(root + "/" + kSparseFile, "user.sparse", "yes");
  setAttribute(root, "user.root", "on the root");
  setAttribute(root + "/acl-file", "system.posix_acl_access", posixAclValue(true));
  setAttribute(root + "/acl-dir", "system.posix_acl_default", posixAclValue(true));

  for (const char* path : {"owned-by-501", "owned-by-501/file", "setuid-program", "links/relative",
                           "nested/deeper", "fifo"})
    changeOwner(root + "/" + path, 501, 501);
  // Modes last: a change of owner clears the set-id bits.
  changeMode(root + "/setuid-program", 04751);
  changeMode(root + "/no-access", 0000);
  changeMode(root + "/readonly", 0555);
  changeMode(root + "/closed", 0000);
  changeMode(root + "/sticky", 01777);
  changeMode(root + "/setgid", 02775);
  changeMode(root + "/empty-dir", 0700);

  int counter = 0;
  setPastTimes(root, counter);
}

}  // namespace filemanager_test
