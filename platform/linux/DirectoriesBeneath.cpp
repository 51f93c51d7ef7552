#include "platform/linux/DirectoriesBeneath.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace platform::sys {

UniqueFd makeDirectoriesBeneath(const std::string& base, std::string_view relative, mode_t mode,
                                mode_t intermediateMode, std::string* failedPath,
                                MadeModes madeModes) {
  std::string walked = base;
  const auto failAt = [&](int error) {
    if (failedPath != nullptr) *failedPath = walked;
    errno = error;
    return UniqueFd();
  };
  UniqueFd current(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!current) return failAt(errno);
  while (!relative.empty()) {
    const std::size_t slash = relative.find('/');
    const std::string component(relative.substr(0, slash));
    relative = slash == std::string_view::npos ? std::string_view() : relative.substr(slash + 1);
    if (component.empty() || component == ".") continue;
    if (walked.empty() || walked.back() != '/') walked += '/';
    walked += component;
    if (component == "..") return failAt(EINVAL);
    const mode_t componentMode =
        relative.find_first_not_of('/') == std::string_view::npos ? mode : intermediateMode;
    const bool made = ::mkdirat(current.get(), component.c_str(), componentMode) == 0;
    if (!made && errno != EEXIST) return failAt(errno);
    UniqueFd next(::openat(current.get(), component.c_str(),
                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next) return failAt(errno);
    if (made && madeModes == MadeModes::Exact && ::fchmod(next.get(), componentMode) != 0)
      return failAt(errno);
    current = std::move(next);
  }
  return current;
}

}  // namespace platform::sys
