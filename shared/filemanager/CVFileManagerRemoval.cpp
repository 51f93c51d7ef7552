// removeItemAtURL: recursive removal with error collection.
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/Log.h"
#include "platform/linux/TreeWipe.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"
#include "shared/filemanager/CVTreeWipeErrorCallback.h"

namespace sys = platform::sys;

namespace filemanager_detail {

int treewipe_error_callback(sys::TreeWipeState* state, const char* path, void* context) {
  static constexpr std::string_view kFunction = "_treewipe_error_callback";
  int errorNumber = 0;
  if (sys::treeWipeStateGetErrorNumber(state, &errorNumber) != 0) {
    platform::logInstaller(platform::kLogLevelError, kFunction,
                           "treewipe hit error for %s but we failed to get the error number", path);
    errorNumber = ENOENT;
  } else if (errorNumber != ENOENT) {
    platform::logInstaller(platform::kLogLevelError, kFunction, "treewipe hit error for %s : %s",
                           path, std::strerror(errorNumber));
  }
  // Only the first number is kept, ENOENT included: a first vanished entry
  // masks later failures of the same removal.
  auto* firstError = static_cast<int*>(context);
  if (firstError != nullptr && *firstError == 0) *firstError = errorNumber;
  return sys::kTreeWipeProceed;
}

}  // namespace filemanager_detail

bool CVFileManager::removeItemAtURL(const CVURL& url, CVError* error) {
  static constexpr std::string_view kFunction = "-[CVFileManager removeItemAtURL:error:]";
  if (url.isNil()) {
    CVSetError(error,
               CreatePOSIXError(kFunction, EFAULT, "nil url passed to -removeItemAtURL:error:"));
    return false;
  }

  int firstError = 0;
  const sys::TreeWipeStatePtr state = sys::treeWipeStateAlloc();
  if (sys::treeWipeStateSetErrorCallback(state.get(),
                                         &filemanager_detail::treewipe_error_callback) != 0) {
    platform::logInstaller(platform::kLogLevelError, kFunction,
                           "treewipe_state_set TREEWIPE_STATE_ERROR_CALLBACK failed: %s",
                           std::strerror(errno));
  }
  if (sys::treeWipeStateSetErrorContext(state.get(), &firstError) != 0) {
    platform::logInstaller(platform::kLogLevelError, kFunction,
                           "treewipe_state_set TREEWIPE_STATE_ERROR_CONTEXT failed: %s",
                           std::strerror(errno));
  }

  if (sys::treeWipe(url.fileSystemRepresentation(), state.get(), sys::kTreeWipeRecursive) != 0) {
    const int code = errno;
    if (code != ENOENT) {
      CVSetError(error, CreatePOSIXError(kFunction, code, "treewipe of %@ failed: %s", url,
                                         std::strerror(code)));
      return false;
    }
  }
  if (firstError == 0 || firstError == ENOENT) return true;
  CVSetError(error, CreatePOSIXError(kFunction, firstError, "treewipe of %@ failed: %s", url,
                                     std::strerror(firstError)));
  return false;
}
