#include "platform/linux/Links.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/linux/LinksTesting.h"

namespace platform::sys {

namespace {
std::atomic<int> renameFault{0};
}  // namespace

int makeSymbolicLink(const char* content, const char* linkPath) {
  return ::symlink(content, linkPath);
}

ssize_t readLink(const char* path, char* buffer, std::size_t size) {
  return ::readlink(path, buffer, size);
}

int renamePath(const char* from, const char* to) {
  if (const int fault = renameFault.load(std::memory_order_relaxed); fault != 0) {
    errno = fault;
    return -1;
  }
  return std::rename(from, to);
}

char* makeTemporaryDirectory(char* pathTemplate) {
  return ::mkdtemp(pathTemplate);
}

int setRenameFaultForTesting(int errorNumber) {
  return renameFault.exchange(errorNumber);
}

}  // namespace platform::sys
