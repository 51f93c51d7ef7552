#include "samplegen/SampleFileWriter.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>

#include "platform/FileIOPosix.h"
#include "platform/PropertyList.h"
#include "platform/Value.h"
#include "platform/linux/Paths.h"

namespace samplegen {
namespace {

constexpr std::size_t kChunkSize = 64 * 1024;

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

std::string_view parentOf(std::string_view relative) {
  const auto slash = relative.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : relative.substr(0, slash);
}

}  // namespace

SampleFileWriter::SampleFileWriter(std::string root) : root_(std::move(root)) {}

std::string SampleFileWriter::absolutePath(std::string_view relative) const {
  std::string path = root_;
  if (!relative.empty()) {
    if (path != "/") path += '/';
    path += relative;
  }
  return path;
}

void SampleFileWriter::addCounts(const SampleFileWriter& other) {
  files_ += other.files_;
  directories_ += other.directories_;
  bytes_ += other.bytes_;
}

void SampleFileWriter::reportFailure(CVError error) {
  fail(std::move(error));
}

bool SampleFileWriter::fail(CVError error) {
  if (error_.isNil()) error_ = std::move(error);
  return false;
}

bool SampleFileWriter::checkRelative(std::string_view relative) {
  if (failed()) return false;
  std::size_t start = 0;
  while (start <= relative.size()) {
    const auto end = std::min(relative.find('/', start), relative.size());
    const std::string_view component = relative.substr(start, end - start);
    if (component.empty() || component == "." || component == "..") {
      return fail(sampleGenError(kSampleGenBadPathError,
                                 "Refusing the path \"" + std::string(relative) +
                                     "\": it is not a plain path inside the image root"));
    }
    start = end + 1;
  }
  return true;
}

bool SampleFileWriter::makeDirectories(std::string_view relative) {
  if (!checkRelative(relative)) return false;
  if (knownDirectories_.contains(std::string(relative))) return true;
  const std::string_view parent = parentOf(relative);
  if (!parent.empty() && !makeDirectories(parent)) return false;

  const std::string path = absolutePath(relative);
  if (platform::sys::makeDirectory(path.c_str(), 0755) == 0) {
    ++directories_;
  } else {
    const int mkdirError = errno;
    struct stat status;
    if (mkdirError != EEXIST) {
      return fail(platform::posixCallError(mkdirError, "mkdir", path));
    }
    // Only a real directory is taken; a link there could lead out of the root.
    if (platform::sys::lstatPath(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
      return fail(platform::posixCallError(ENOTDIR, "mkdir", path));
    }
  }
  knownDirectories_.insert(std::string(relative));
  return true;
}

bool SampleFileWriter::makeParentOf(std::string_view relative) {
  if (!checkRelative(relative)) return false;
  const std::string_view parent = parentOf(relative);
  return parent.empty() || makeDirectories(parent);
}

bool SampleFileWriter::writeFile(std::string_view relative, std::span<const std::uint8_t> bytes,
                                 mode_t mode) {
  return writeGeneratedFile(
      relative, bytes.size(),
      [bytes, offset = std::size_t{0}](std::span<std::uint8_t> chunk) mutable {
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), chunk.size(),
                    chunk.begin());
        offset += chunk.size();
      },
      mode);
}

bool SampleFileWriter::writeFile(std::string_view relative, std::string_view text, mode_t mode) {
  const auto* data = reinterpret_cast<const std::uint8_t*>(text.data());
  return writeFile(relative, std::span(data, text.size()), mode);
}

bool SampleFileWriter::writeGeneratedFile(std::string_view relative, std::uint64_t size,
                                          const ChunkFiller& fill, mode_t mode) {
  if (!makeParentOf(relative)) return false;
  const std::string path = absolutePath(relative);
  // "x": O_EXCL, so an item already there (a link included) is an error.
  UniqueFile file(std::fopen(path.c_str(), "wbx"));
  if (!file) return fail(platform::posixCallError(errno, "open", path));

  if (chunk_.size() < kChunkSize) chunk_.resize(kChunkSize);
  std::uint64_t remaining = size;
  while (remaining > 0) {
    const std::size_t length =
        static_cast<std::size_t>(std::min<std::uint64_t>(remaining, kChunkSize));
    const std::span<std::uint8_t> chunk(chunk_.data(), length);
    fill(chunk);
    if (std::fwrite(chunk.data(), 1, chunk.size(), file.get()) != chunk.size()) {
      return fail(platform::posixCallError(errno, "write", path));
    }
    remaining -= length;
  }
  if (std::fclose(file.release()) != 0) return fail(platform::posixCallError(errno, "close", path));

  if (mode != 0644) {
    std::error_code status;
    std::filesystem::permissions(path, static_cast<std::filesystem::perms>(mode),
                                 std::filesystem::perm_options::replace, status);
    if (status) return fail(platform::posixCallError(status.value(), "chmod", path));
  }
  ++files_;
  bytes_ += size;
  return true;
}

bool writePropertyListFile(SampleFileWriter& writer, std::string_view relative,
                           const CVValue& value, PropertyListFormat format) {
  if (format == PropertyListFormat::Binary) {
    const std::vector<std::uint8_t> bytes = platform::encodeBinaryPropertyList(value);
    if (!bytes.empty()) return writer.writeFile(relative, bytes);
  } else {
    const std::string text = platform::encodeXMLPropertyList(value);
    if (!text.empty()) return writer.writeFile(relative, text);
  }
  writer.reportFailure(sampleGenError(
      kSampleGenEncodingError,
      "The property list for \"" + writer.absolutePath(relative) + "\" could not be encoded"));
  return false;
}

}  // namespace samplegen
