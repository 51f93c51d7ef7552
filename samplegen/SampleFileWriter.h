// SampleFileWriter: makes the directories and files of one sample image, every
// one of them beneath the image's root, and counts what it made.
//
// Paths are relative to the root and may not contain empty, "." or ".."
// components, so no path can name anything outside the root. Files are
// created exclusively (an existing item, a symbolic link included, is never
// followed or replaced); directories already present are taken when they are
// real directories. Files are written plainly, not flushed: an image is made
// in one go and is remade, not repaired, after a crash.
//
// One writer serves one thread; several writers may work under one root at
// once (a directory made by another writer meanwhile counts as made).
//
// Error contract: the first failure is kept (a POSIX-domain record naming the
// call and the path, or a SampleGen-domain record for a refused path) and
// every later call returns false without touching the disk, so a caller may
// check once at the end of a batch of writes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/Error.h"
#include "samplegen/SampleErrors.h"

class CVValue;

namespace samplegen {

enum class PropertyListFormat { XML, Binary };

class SampleFileWriter {
 public:
  // `root`: absolute path of an existing directory, without trailing separator.
  explicit SampleFileWriter(std::string root);

  const std::string& root() const { return root_; }
  // The absolute path of `relative` ("<root>/<relative>").
  std::string absolutePath(std::string_view relative) const;

  // Makes `relative` and every missing directory above it (mode 0755).
  bool makeDirectories(std::string_view relative);
  // Writes a new file with `bytes`; missing parent directories are made.
  bool writeFile(std::string_view relative, std::span<const std::uint8_t> bytes,
                 mode_t mode = 0644);
  bool writeFile(std::string_view relative, std::string_view text, mode_t mode = 0644);
  // Writes a new file of `size` bytes whose contents `fill` supplies chunk by
  // chunk, in order, so that large files never sit whole in memory.
  using ChunkFiller = std::function<void(std::span<std::uint8_t> chunk)>;
  bool writeGeneratedFile(std::string_view relative, std::uint64_t size, const ChunkFiller& fill,
                          mode_t mode = 0644);

  // Keeps `error` as the writer's failure unless one is kept already.
  void reportFailure(CVError error);
  bool failed() const { return !error_.isNil(); }
  const CVError& error() const { return error_; }

  std::uint64_t fileCount() const { return files_; }
  std::uint64_t directoryCount() const { return directories_; }
  std::uint64_t byteCount() const { return bytes_; }
  // Adds what `other` made to this writer's counts.
  void addCounts(const SampleFileWriter& other);

 private:
  bool checkRelative(std::string_view relative);
  bool makeParentOf(std::string_view relative);
  bool fail(CVError error);

  std::string root_;
  std::unordered_set<std::string> knownDirectories_;
  std::vector<std::uint8_t> chunk_;
  CVError error_;
  std::uint64_t files_ = 0;
  std::uint64_t directories_ = 0;
  std::uint64_t bytes_ = 0;
};

// "<directory>/<name>".
inline std::string joinPath(std::string_view directory, std::string_view name) {
  return std::string(directory) + "/" + std::string(name);
}

// Writes `value` as a new property-list file in `format` through `writer`;
// a value that cannot be encoded fails the writer with kSampleGenEncodingError.
bool writePropertyListFile(SampleFileWriter& writer, std::string_view relative,
                           const CVValue& value, PropertyListFormat format);

}  // namespace samplegen
