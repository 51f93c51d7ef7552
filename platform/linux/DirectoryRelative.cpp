#include "platform/linux/DirectoryRelative.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace platform::sys {

int linkAt(int fromDirectory, const char* fromName, int toDirectory, const char* toName) {
  return ::linkat(fromDirectory, fromName, toDirectory, toName, 0);
}

int renameNoReplaceAt(int fromDirectory, const char* fromName, int toDirectory,
                      const char* toName) {
  return ::renameat2(fromDirectory, fromName, toDirectory, toName, RENAME_NOREPLACE);
}

int flushDirectory(int fd) {
  while (::fsync(fd) != 0) {
    if (errno == EINVAL) return 0;
    if (errno != EINTR) return -1;
  }
  return 0;
}

int makeDirectoryAt(int directory, const char* name, mode_t mode) {
  return ::mkdirat(directory, name, mode);
}

UniqueFd openOrMakeDirectoryAt(int directory, const char* name, mode_t mode) {
  if (::mkdirat(directory, name, mode) != 0 && errno != EEXIST) return UniqueFd();
  return UniqueFd(::openat(directory, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

UniqueFd createNewFileAt(int directory, const char* name, int accessFlags, mode_t mode) {
  return UniqueFd(
      ::openat(directory, name, accessFlags | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
}

int statAt(int directory, const char* name, struct stat* status) {
  return ::fstatat(directory, name, status, AT_SYMLINK_NOFOLLOW);
}

int statOpen(int fd, struct stat* status) {
  return ::fstat(fd, status);
}

int removeFileAt(int directory, const char* name) {
  return ::unlinkat(directory, name, 0);
}

int removeEmptyDirectoryAt(int directory, const char* name) {
  return ::unlinkat(directory, name, AT_REMOVEDIR);
}

UniqueFd duplicateDescriptor(int fd) {
  return UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

}  // namespace platform::sys
