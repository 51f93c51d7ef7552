#include "host/LogFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/DirectoryRelative.h"

namespace mavrel_host {
namespace {

constexpr int kAppendFlags = O_WRONLY | O_CLOEXEC | O_APPEND | O_CREAT;
constexpr mode_t kLogFileMode = 0644;
// Runs started within one second share a time stamp; beyond this many a
// directory is not a log directory any more.
constexpr int kMaximumNameAttempts = 1000;

}  // namespace

std::optional<AppendOnlyFile> AppendOnlyFile::open(const std::string& path, std::string* reason) {
  UniqueFd fd(::open(path.c_str(), kAppendFlags | O_NOFOLLOW, kLogFileMode));
  if (!fd.valid()) {
    if (reason != nullptr) *reason = "cannot open '" + path + "': " + std::strerror(errno);
    return std::nullopt;
  }
  return AppendOnlyFile(std::move(fd), path);
}

std::optional<AppendOnlyFile> AppendOnlyFile::createUniqueInDirectory(
    int directory, const std::string& stem, const std::string& extension,
    const std::string& displayDirectory, std::string* reason) {
  for (int attempt = 1;; ++attempt) {
    const std::string name =
        stem + (attempt == 1 ? std::string() : "-" + std::to_string(attempt)) + extension;
    UniqueFd fd =
        platform::sys::createNewFileAt(directory, name.c_str(), kAppendFlags, kLogFileMode);
    if (fd.valid()) return AppendOnlyFile(std::move(fd), displayDirectory + "/" + name);
    if (errno != EEXIST || attempt >= kMaximumNameAttempts) {
      if (reason != nullptr)
        *reason = "cannot create '" + displayDirectory + "/" + name + "': " + std::strerror(errno);
      return std::nullopt;
    }
  }
}

std::optional<AppendOnlyFile> AppendOnlyFile::standardOutput(std::string* reason) {
  UniqueFd fd(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
  if (!fd.valid()) {
    if (reason != nullptr)
      *reason = std::string("cannot use standard output: ") + std::strerror(errno);
    return std::nullopt;
  }
  return AppendOnlyFile(std::move(fd), "standard output");
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
