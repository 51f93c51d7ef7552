#include "platform/linux/Landlock.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/FileIOPosix.h"
#include "platform/linux/FileDescriptor.h"

namespace platform::sys {
namespace {

// Access rights by the ABI that introduced them (stable kernel ABI; spelled
// out so that older kernel headers build too).
constexpr std::uint64_t kWriteFile = 1ULL << 1;
constexpr std::uint64_t kRemoveDir = 1ULL << 4;
constexpr std::uint64_t kRemoveFile = 1ULL << 5;
constexpr std::uint64_t kMakeChar = 1ULL << 6;
constexpr std::uint64_t kMakeDir = 1ULL << 7;
constexpr std::uint64_t kMakeReg = 1ULL << 8;
constexpr std::uint64_t kMakeSock = 1ULL << 9;
constexpr std::uint64_t kMakeFifo = 1ULL << 10;
constexpr std::uint64_t kMakeBlock = 1ULL << 11;
constexpr std::uint64_t kMakeSym = 1ULL << 12;
constexpr std::uint64_t kRefer = 1ULL << 13;     // ABI 2
constexpr std::uint64_t kTruncate = 1ULL << 14;  // ABI 3

constexpr int kMinimumABI = 2;

// Everything that changes the file system; reading and executing stay free.
std::uint64_t writeRights(int abi) {
  std::uint64_t rights = kWriteFile | kRemoveDir | kRemoveFile | kMakeChar | kMakeDir | kMakeReg |
                         kMakeSock | kMakeFifo | kMakeBlock | kMakeSym | kRefer;
  if (abi >= 3) rights |= kTruncate;
  return rights;
}

// The rights a rule on a file (not a directory) may carry.
std::uint64_t fileRights(int abi) {
  return kWriteFile | (abi >= 3 ? kTruncate : 0);
}

int createRuleset(const landlock_ruleset_attr* attributes, std::size_t size, std::uint32_t flags) {
  return static_cast<int>(::syscall(SYS_landlock_create_ruleset, attributes, size, flags));
}

}  // namespace

int landlockABIVersion() {
  const int version = createRuleset(nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  return version < 0 ? 0 : version;
}

bool isConfinementUnavailable(const CVError& error) {
  return error.domain() == kPOSIXErrorDomain &&
         (error.code() == ENOSYS || error.code() == EOPNOTSUPP);
}

bool confineWritesBeneath(std::span<const std::string> writablePaths, CVError* error) {
  const int abi = landlockABIVersion();
  if (abi < kMinimumABI) {
    CVSetError(error, posixCallError(abi == 0 ? ENOSYS : EOPNOTSUPP, "landlock_create_ruleset",
                                     abi == 0 ? "(no Landlock in this kernel)"
                                              : "(Landlock ABI " + std::to_string(abi) +
                                                    " cannot rename between directories)"));
    return false;
  }
  landlock_ruleset_attr attributes{};
  attributes.handled_access_fs = writeRights(abi);
  // Only the filesystem fields this header and the kernel both know.
  const UniqueFd ruleset(createRuleset(&attributes, sizeof(attributes.handled_access_fs), 0));
  if (!ruleset) {
    CVSetError(error, posixCallError(errno, "landlock_create_ruleset", ""));
    return false;
  }
  for (const std::string& path : writablePaths) {
    const UniqueFd target(::open(path.c_str(), O_PATH | O_CLOEXEC));
    struct stat status {};
    if (!target || ::fstat(target.get(), &status) != 0) {
      CVSetError(error, posixCallError(errno, "open", path));
      return false;
    }
    landlock_path_beneath_attr rule{};
    rule.allowed_access = S_ISDIR(status.st_mode) ? writeRights(abi) : fileRights(abi);
    rule.parent_fd = target.get();
    if (::syscall(SYS_landlock_add_rule, ruleset.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0) !=
        0) {
      CVSetError(error, posixCallError(errno, "landlock_add_rule", path));
      return false;
    }
  }
  // Required of an unprivileged caller, and harmless for root: nothing this
  // program runs needs to gain privileges.
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    CVSetError(error, posixCallError(errno, "prctl(PR_SET_NO_NEW_PRIVS)", ""));
    return false;
  }
  if (::syscall(SYS_landlock_restrict_self, ruleset.get(), 0) != 0) {
    CVSetError(error, posixCallError(errno, "landlock_restrict_self", ""));
    return false;
  }
  return true;
}

}  // namespace platform::sys
