// urlsForItemsInDirectoryAtURL: a flat listing of one directory.
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/Log.h"
#include "platform/linux/DirectoryStream.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"

namespace sys = platform::sys;

namespace {

// Calls `block` with each entry of `directory` (opened without following a
// final link) until it returns false. Returns 0, or the error number of the
// open or the read that failed.
template <class Block>
int IterateDirectory(const CVURL& directory, Block&& block) {
  static constexpr std::string_view kFunction = "_IterateDirectory";
  const char* path = directory.fileSystemRepresentation();

  sys::UniqueFd fd = sys::openDirectory(path, sys::FinalLink::NotFollowed);
  if (!fd) {
    const int error = errno;
    if (error != ENOENT) {
      platform::logInstaller(platform::kLogLevelError, kFunction, "open of %s failed: %s", path,
                             std::strerror(error));
    }
    return error;
  }
  sys::DirectoryStream stream = sys::DirectoryStream::adopt(std::move(fd));
  if (!stream.valid()) {
    const int error = errno;
    platform::logInstaller(platform::kLogLevelError, kFunction, "fdopendir of %s failed: %s", path,
                           std::strerror(error));
    return error;
  }

  sys::DirectoryEntry entry;
  for (;;) {
    bool atEnd = false;
    if (const int error = stream.next(entry, atEnd); error != 0) return error;
    if (atEnd || !block(entry)) return 0;
  }
}

}  // namespace

std::optional<std::vector<CVURL>> CVFileManager::urlsForItemsInDirectoryAtURL(const CVURL& url,
                                                                              bool ignoringSymlinks,
                                                                              CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]";
  // The collecting block logs under the name the compiler gives a block of this method.
  static constexpr std::string_view kBlockFunction =
      "__69-[CVFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]_block_invoke";

  std::vector<CVURL> urls;
  const int result = IterateDirectory(url, [&](const sys::DirectoryEntry& entry) {
    if (entry.type == sys::EntryType::Symlink && ignoringSymlinks) {
      platform::logInstaller(platform::kLogLevelNotice, kBlockFunction, "Ignoring symlink at %s/%s",
                             url.path(), entry.name);
      return true;
    }
    urls.push_back(
        url.URLByAppendingPathComponent(entry.name, entry.type == sys::EntryType::Directory));
    return true;
  });
  if (result != 0) {
    CVSetError(error, CreatePOSIXError(kFunction, result, "_IterateDirectory for %s returned %s",
                                       url.path(), std::strerror(result)));
    return std::nullopt;
  }
  return urls;
}
