#include "host/RootDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/linux/DirectoriesBeneath.h"
#include "platform/linux/FileLock.h"

namespace mavrel_host {
namespace {

constexpr mode_t kIntermediateMode = 0755;

void setReason(std::string* reason, std::string text) {
  if (reason != nullptr) *reason = std::move(text);
}

std::string systemError(int code) {
  return std::strerror(code);
}

}  // namespace

std::optional<std::string> resolveRootDirectory(std::string_view path, std::string* reason) {
  const std::string given(path);
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(given.c_str(), nullptr),
                                                       &std::free);
  if (!resolved) {
    const int code = errno;
    if (code == ENOENT)
      setReason(reason, "the root '" + given + "' does not exist");
    else
      setReason(reason, "cannot resolve the root '" + given + "': " + systemError(code));
    return std::nullopt;
  }
  struct stat status {};
  if (::stat(resolved.get(), &status) != 0) {
    setReason(reason, "cannot examine the root '" + given + "': " + systemError(errno));
    return std::nullopt;
  }
  if (!S_ISDIR(status.st_mode)) {
    setReason(reason, "the root '" + given + "' is not a directory");
    return std::nullopt;
  }
  return std::string(resolved.get());
}

bool holdsDeviceImage(const std::string& root, std::string* reason) {
  const std::string base = root == "/" ? "" : root;
  struct stat status {};
  const bool home =
      ::stat((base + "/private/var/mobile").c_str(), &status) == 0 && S_ISDIR(status.st_mode);
  const bool version =
      ::stat((base + "/System/Library/CoreServices/SystemBuild.plist").c_str(), &status) == 0;
  if (home || version) return true;
  setReason(reason, "'" + root +
                        "' holds no device image: it has no private/var/mobile (the mobile "
                        "user's home) and no System/Library/CoreServices/SystemBuild.plist (the "
                        "system version)");
  return false;
}

bool registryLockIsHeld(const std::string& lockPath) {
  const UniqueFd lock(::open(lockPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  if (!lock.valid()) return false;
  // Taken and let go at once when free: closing the descriptor releases it.
  return platform::sys::lockExclusiveWithoutWaiting(lock.get()) != 0 && errno == EWOULDBLOCK;
}

UniqueFd makeDirectoryInsideRoot(const std::string& root, std::string_view relative, mode_t mode,
                                 std::string* reason) {
  std::string failedPath;
  UniqueFd made = platform::sys::makeDirectoriesBeneath(
      root, relative, mode, kIntermediateMode, &failedPath, platform::sys::MadeModes::Exact);
  if (made) return made;
  const int code = errno;
  // ELOOP or ENOTDIR: a symbolic link, which could lead out of the image, or
  // a file where a directory should be.
  if (code == ELOOP || code == ENOTDIR)
    setReason(reason, "cannot use '" + failedPath + "': it is not a directory inside the root");
  else
    setReason(reason, "cannot make '" + failedPath + "': " + systemError(code));
  return {};
}

}  // namespace mavrel_host
