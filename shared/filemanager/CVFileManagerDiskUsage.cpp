// diskUsageForURL: the allocated size of the files below a directory.
//
// The tree is walked breadth-first with one 32 KiB buffer for the names of
// every directory and one set of the file identifiers of multiply linked
// files; nothing else is kept per file. Directories' own sizes are never
// counted; files and symbolic links count their own allocation, and a file
// with several hard links counts once within the tree.
//
// Linux does not report a directory's entry count with its other attributes,
// so an empty directory shows itself only when it is read: a directory
// reached from the queue whose reading yields no entry gets the level-7
// "skipping empty directory" line, worded from its parent (parent path and
// name). The directory given as the URL gets no such line. Either way an
// empty directory adds nothing.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "platform/Log.h"
#include "platform/linux/DirectoryBatch.h"
#include "shared/filemanager/CVFileManager.h"

namespace sys = platform::sys;

namespace {

constexpr std::string_view kFunction = "-[CVFileManager diskUsageForURL:]";
constexpr std::size_t kBatchBufferSize = 32768;

std::string childPath(const std::string& directory, const char* name) {
  std::string path = directory;
  if (path.back() != '/') path += '/';
  path += name;
  return path;
}

// Logs the level-7 line for a queued directory that held nothing, naming it
// by its parent and its own name.
void logEmptyDirectory(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  const std::string parent = slash == 0 ? "/" : path.substr(0, slash);
  platform::logInstaller(platform::kLogLevelDebug, kFunction, "skipping empty directory at %@/%s",
                         parent, path.substr(slash + 1));
}

}  // namespace

std::uint64_t CVFileManager::diskUsageForURL(const CVURL& url) {
  if (url.isNil()) {
    platform::logInstaller(platform::kLogLevelError, kFunction, "Failed to get path to url %@",
                           url);
    return 0;
  }

  std::unordered_set<std::uint64_t> multiplyLinkedFiles;
  std::deque<std::string> queue{url.path()};
  const std::unique_ptr<std::byte[]> buffer(new std::byte[kBatchBufferSize]);
  const std::span<std::byte> batch(buffer.get(), kBatchBufferSize);
  const bool traceAdmitted = platform::installerLog().admits(platform::kLogLevelDebug);
  std::uint64_t total = 0;
  bool isRoot = true;

  while (!queue.empty()) {
    const std::string path = std::move(queue.front());
    queue.pop_front();
    const bool isQueuedChild = !std::exchange(isRoot, false);

    sys::DirectoryBatchReader directory = sys::DirectoryBatchReader::open(path.c_str());
    if (!directory.valid()) {
      platform::logInstaller(platform::kLogLevelError, kFunction,
                             "Failed to open directory %@ : %s", path, std::strerror(errno));
      continue;
    }

    unsigned long long entryNumber = 0;
    bool readToTheEnd = false;
    for (;;) {
      const ssize_t length = directory.readBatch(batch);
      if (length == 0) {
        readToTheEnd = true;
        break;
      }
      if (length < 0) {
        platform::logInstaller(platform::kLogLevelError, kFunction,
                               "statbatch on entry %llu in %@ returned error %s", entryNumber, path,
                               std::strerror(errno));
        break;
      }
      sys::BatchEntry entry;
      while (directory.nextEntry(entry)) {
        const unsigned long long number = entryNumber++;
        if (entry.errorNumber != 0) {
          platform::logInstaller(platform::kLogLevelError, kFunction,
                                 "Got error %s while processing entry %llu in %@",
                                 std::strerror(errno), number, path);
          continue;
        }
        if (entry.isDirectory) {
          queue.push_back(childPath(path, entry.name));
          continue;
        }
        if (entry.linkCount == 1) {
          total += entry.allocatedBytes;
        } else if (multiplyLinkedFiles.insert(entry.fileIdentifier).second) {
          total += entry.allocatedBytes;
        } else if (traceAdmitted) {
          platform::logInstaller(platform::kLogLevelDebug, kFunction,
                                 "Skipping hardlinked file at %@/%s", path, entry.name);
        }
      }
    }
    if (readToTheEnd && entryNumber == 0 && isQueuedChild && traceAdmitted) logEmptyDirectory(path);
  }
  return total;
}
