#include "host/OutputPath.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace mavrel_host {
namespace {

constexpr std::array<std::string_view, 4> kStandardOutputNames = {"-", "/dev/stdout", "/dev/fd/1",
                                                                  "/proc/self/fd/1"};

std::string_view kindName(mode_t mode) {
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  if (S_ISFIFO(mode)) return "a named pipe";
  if (S_ISSOCK(mode)) return "a socket";
  return "not a regular file";
}

}  // namespace

std::optional<OutputPath> checkOutputPath(std::string_view option, const std::string& path,
                                          std::string* reason) {
  const std::string prefix = "option '" + std::string(option) + "': '" + path + "' ";
  for (const std::string_view name : kStandardOutputNames) {
    if (path == name) return OutputPath{true, path};
  }
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) {
    if (S_ISREG(status.st_mode)) return OutputPath{false, path};
    *reason = prefix + "is " + std::string(kindName(status.st_mode)) +
              "; name a regular file or a new file in an existing directory ('-' for standard "
              "output)";
    return std::nullopt;
  }
  if (errno != ENOENT) {
    *reason = prefix + "cannot be examined: " + std::strerror(errno);
    return std::nullopt;
  }
  std::string directory = std::filesystem::path(path).parent_path().string();
  if (directory.empty()) directory = ".";
  if (::stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    *reason =
        "option '" + std::string(option) + "': the directory of '" + path + "' does not exist";
    return std::nullopt;
  }
  return OutputPath{false, path};
}

}  // namespace mavrel_host
