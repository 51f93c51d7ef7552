// Temporary directories and symbolic links.
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/Value.h"
#include "platform/linux/Links.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"

namespace sys = platform::sys;

namespace {
// The most of a link's content that is read; longer content is cut here.
constexpr std::size_t kLinkContentLimit = 1024;
}  // namespace

CVURL CVFileManager::createTemporaryDirectoryInDirectoryURL(const CVURL& directory,
                                                            CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager createTemporaryDirectoryInDirectoryURL:error:]";
  if (error != nullptr) *error = CVError();

  const CVURL templateURL = directory.URLByAppendingPathComponent("temp.XXXXXX", true);
  std::string path = templateURL.path();  // mkdtemp fills in the X in place
  if (sys::makeTemporaryDirectory(path.data()) != nullptr)
    return CVURL::fileURLWithPath(path, true);

  const int code = errno;
  const CVError underlying(std::string(kPOSIXErrorDomain), code);
  CVDictionary userInfo;
  userInfo.set(std::string(CVPathArgumentErrorKey), templateURL);
  CVSetError(error, CreateAndLogError(kFunction, CVInstallerErrorDomain,
                                      kCVErrorTemporaryDirectoryOrMark, underlying, &userInfo,
                                      "Failed to create temp dir at path %s", templateURL.path()));
  return CVURL();
}

bool CVFileManager::createSymbolicLinkAtURL(const CVURL& url, const CVURL& destinationURL,
                                            CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager createSymbolicLinkAtURL:withDestinationURL:error:]";
  if (sys::makeSymbolicLink(destinationURL.fileSystemRepresentation(),
                            url.fileSystemRepresentation()) == 0)
    return true;
  const int code = errno;
  CVSetError(error,
             CreatePOSIXError(kFunction, code, "Could not create symlink containing %s at %s: %s",
                              destinationURL.path(), url.path(), std::strerror(code)));
  return false;
}

CVURL CVFileManager::destinationOfSymbolicLinkAtURL(const CVURL& url, CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager destinationOfSymbolicLinkAtURL:error:]";
  char buffer[kLinkContentLimit];
  const ssize_t length = sys::readLink(url.fileSystemRepresentation(), buffer, sizeof buffer);
  if (length < 0) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kFunction, code, "Could not readlink %s : %s", url.path(),
                                       std::strerror(code)));
    return CVURL();
  }
  return CVURL::fileURLWithPath(std::string_view(buffer, static_cast<std::size_t>(length)), false);
}
