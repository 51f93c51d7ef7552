#include "host/LogFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mavrel_host {
namespace {

constexpr int kAppendFlags = O_WRONLY | O_CLOEXEC | O_APPEND | O_CREAT;
constexpr mode_t kLogFileMode = 0644;

}  // namespace

std::optional<AppendOnlyFile> AppendOnlyFile::open(const std::string& path, std::string* reason) {
  UniqueFd fd(::open(path.c_str(), kAppendFlags, kLogFileMode));
  if (!fd.valid()) {
    if (reason != nullptr) *reason = "cannot open '" + path + "': " + std::strerror(errno);
    return std::nullopt;
  }
  return AppendOnlyFile(std::move(fd), path);
}

std::optional<AppendOnlyFile> AppendOnlyFile::openInDirectory(int directory,
                                                              const std::string& name,
                                                              const std::string& displayPath,
                                                              std::string* reason) {
  UniqueFd fd(::openat(directory, name.c_str(), kAppendFlags | O_NOFOLLOW, kLogFileMode));
  if (!fd.valid()) {
    if (reason != nullptr) *reason = "cannot open '" + displayPath + "': " + std::strerror(errno);
    return std::nullopt;
  }
  return AppendOnlyFile(std::move(fd), displayPath);
}

bool AppendOnlyFile::write(std::string_view line) {
  while (!line.empty()) {
    const ssize_t written = ::write(fd_.get(), line.data(), line.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return fail(errno);
    }
    if (written == 0) return fail(EIO);
    line.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

bool AppendOnlyFile::sync() {
  if (::fsync(fd_.get()) != 0) return fail(errno);
  return true;
}

bool AppendOnlyFile::fail(int code) {
  if (firstError_ == 0) firstError_ = code;
  return false;
}

}  // namespace mavrel_host
