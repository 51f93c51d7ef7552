#include "shared/support/CVFileDigest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/Log.h"
#include "platform/linux/FileDescriptor.h"
#include "shared/support/CVFileDigestTesting.h"

namespace {

using platform::kLogLevelError;
using platform::logInstaller;

constexpr std::string_view kReaderFunction = "_ReadFile";
constexpr std::string_view kDigestFunction = "CVCreateSHA256Digest";
constexpr std::size_t kMaximumChunkSize = 64 * 1024;

std::atomic<CVReadFileObserver*> readFileObserver{nullptr};

// Releases the chunk buffer without disturbing errno, which the caller still
// has to report.
struct ErrnoKeepingFree {
  void operator()(std::uint8_t* buffer) const {
    const int savedErrno = errno;
    std::free(buffer);
    errno = savedErrno;
  }
};

// Writes a reader failure that names the system error, leaving errno as the
// failed call set it.
template <class... Args>
void logFailure(platform::FormatString<Args..., const char*> text, const Args&... args) {
  const int savedErrno = errno;
  const char* errorText = std::strerror(savedErrno);
  logInstaller<Args..., const char*>(kLogLevelError, kReaderFunction, text, args..., errorText);
  errno = savedErrno;
}

// Reads the file at `path` sequentially, up to the size it has once open, and
// hands each chunk to `consumer(bytes, count)`; stops with failure when the
// consumer answers false. Returns whether the whole size was handed on.
// The same for a file already open as `file`; `path` names it in messages.
template <class Consumer>
bool ReadOpenFile(const platform::sys::UniqueFd& file, const char* path, Consumer&& consumer) {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) {
    logFailure("failed to stat %s : %s", path);
    return false;
  }
  CVReadFileObserver* const observer = readFileObserver.load(std::memory_order_acquire);
  if (observer != nullptr) observer->afterStat(path);

  const auto size = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
  if (size == 0) return true;
  const auto chunkSize = static_cast<std::size_t>(std::min<std::uint64_t>(size, kMaximumChunkSize));
  const std::unique_ptr<std::uint8_t, ErrnoKeepingFree> buffer(
      static_cast<std::uint8_t*>(std::malloc(chunkSize)));
  if (!buffer) {
    logFailure("malloc failed for %ld bytes: %s", static_cast<long>(chunkSize));
    return false;
  }
  // Advice only; a file system that ignores it reads just as well.
  (void)::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);

  std::uint64_t handedOn = 0;
  while (handedOn < size) {
    const auto wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, size - handedOn));
    const ssize_t got = ::read(file.get(), buffer.get(), wanted);
    if (observer != nullptr) observer->afterRead(wanted, got);
    if (got < 0) {
      if (errno == EINTR) continue;  // interrupted before anything was read
      logFailure("read failed for %s : %s", path);
      return false;
    }
    if (got == 0) {
      logInstaller(kLogLevelError, kReaderFunction, "read failed for %s, got %lld bytes", path,
                   static_cast<long long>(got));
      return false;
    }
    if (!consumer(buffer.get(), static_cast<std::size_t>(got))) return false;
    handedOn += static_cast<std::uint64_t>(got);
  }
  return true;
}

template <class Consumer>
bool ReadFile(const char* path, Consumer&& consumer) {
  const platform::sys::UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) {
    logFailure("failed to open %s : %s", path);
    return false;
  }
  return ReadOpenFile(file, path, std::forward<Consumer>(consumer));
}

struct DigestContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

std::string lowercaseHex(const std::array<unsigned char, 32>& bytes) {
  static constexpr char kAlphabet[] = "0123456789abcdef";
  std::array<char, 2 * 32 + 1> text{};
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kAlphabet[bytes[i] >> 4];
    text[2 * i + 1] = kAlphabet[bytes[i] & 0x0F];
  }
  return std::string(text.data(), 2 * bytes.size());
}

}  // namespace

CVReadFileObserver* CVSetReadFileObserverForTesting(CVReadFileObserver* observer) {
  return readFileObserver.exchange(observer, std::memory_order_acq_rel);
}

namespace {

// The digest of what `read(consumer)` hands on; `path` names the file in the
// failure message.
template <class Reader>
std::optional<std::string> digestOfReading(const std::string& fileSystemPath, Reader&& read) {
  const std::unique_ptr<EVP_MD_CTX, DigestContextFree> context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return std::nullopt;

  const bool readSucceeded = read([&](const std::uint8_t* bytes, std::size_t count) {
    return EVP_DigestUpdate(context.get(), bytes, count) == 1;
  });
  const int readErrno = errno;

  std::array<unsigned char, 32> digest{};
  unsigned int digestLength = 0;
  const bool finished = EVP_DigestFinal_ex(context.get(), digest.data(), &digestLength) == 1;

  if (!readSucceeded) {
    logInstaller(kLogLevelError, kDigestFunction, "Failed to read %@ : %s", fileSystemPath,
                 std::strerror(readErrno));
    errno = readErrno;
    return std::nullopt;
  }
  if (!finished || digestLength != digest.size()) return std::nullopt;
  return lowercaseHex(digest);
}

}  // namespace

std::optional<std::string> CVCreateSHA256Digest(std::string_view path) {
  const std::string fileSystemPath(path);
  return digestOfReading(fileSystemPath, [&](auto&& consumer) {
    if (fileSystemPath.find('\0') != std::string::npos) {
      errno = EINVAL;
      return false;
    }
    return ReadFile(fileSystemPath.c_str(), consumer);
  });
}

std::optional<std::string> CVCreateSHA256DigestOfOpenFile(int fd, std::string_view name) {
  const std::string fileSystemPath(name);
  // Borrowed: the caller keeps and closes the descriptor.
  platform::sys::UniqueFd file(fd);
  auto digest = digestOfReading(fileSystemPath, [&](auto&& consumer) {
    return ReadOpenFile(file, fileSystemPath.c_str(), consumer);
  });
  file.release();
  return digest;
}
