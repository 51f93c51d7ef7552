#include "shared/filemanager/CVErrors.h"

#include <string>

#include "platform/Log.h"

CVError CreateAndLogErrorV(std::string_view function, int line, std::string_view domain, long code,
                           const CVError& underlying, const CVDictionary* userInfo,
                           std::optional<std::string_view> format,
                           std::span<const platform::FormatArg> args) {
  CVDictionary details = userInfo != nullptr ? *userInfo : CVDictionary();
  if (format) {
    std::string description = platform::vformat(*format, args);
    if (underlying) {
      platform::logInstaller(platform::kLogLevelError, function, "%d: %@ (%@)", line, description,
                             underlying);
    } else {
      platform::logInstaller(platform::kLogLevelError, function, "%d: %@", line, description);
    }
    details.set(std::string(kLocalizedDescriptionKey), std::move(description));
  }
  if (underlying) details.set(std::string(kUnderlyingErrorKey), underlying);
  details.set(std::string(CVFunctionNameErrorKey), std::string(function));
  details.set(std::string(CVSourceFileLineErrorKey), static_cast<long>(line));
  return CVError(std::string(domain), code, std::move(details));
}
