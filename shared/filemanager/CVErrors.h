// The system's error records and the three functions that build them.
//
// Records of the system's own failures are in the domain
// "CVInstallerErrorDomain"; failed system calls are in the POSIX domain with
// errno as code. Every record built here carries "FunctionName" (the raising
// function's name, such as "-[CVFileManager removeItemAtURL:error:]") and
// "SourceFileLine" (the raise site's line).
//
// The builders never fail. CreateError logs nothing; CreateAndLogError writes
// the description to the installer log at level 3.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string_view>

#include "platform/Error.h"
#include "platform/Format.h"
#include "platform/Value.h"

inline constexpr std::string_view CVInstallerErrorDomain = "CVInstallerErrorDomain";

inline constexpr std::string_view CVFunctionNameErrorKey = "FunctionName";
inline constexpr std::string_view CVSourceFileLineErrorKey = "SourceFileLine";
inline constexpr std::string_view CVPathArgumentErrorKey = "PathArgument";
inline constexpr std::string_view CVLibCVSErrorNumberKey = "LibCVSErrorNumber";
// The installer's legacy error: a number or a capture-failure name.
inline constexpr std::string_view CVLegacyErrorStringKey = "LegacyErrorString";

// Codes of CVInstallerErrorDomain.
inline constexpr long kCVErrorTemporaryDirectoryOrMark = 4;
inline constexpr long kCVErrorStoreDataCapture = 24;
inline constexpr long kCVErrorInvalidSymlink = 70;

// The worker: builds a record from a format known at run time. With a format,
// the description is stored (replacing one in `userInfo`) and logged at level
// 3 as "%d: %@ (%@)" (line, description, underlying error) or "%d: %@" when
// there is no underlying error. Without one there is neither description nor
// log line. "FunctionName" and "SourceFileLine" always win over entries of the
// same name in `userInfo`.
CVError CreateAndLogErrorV(std::string_view function, int line, std::string_view domain, long code,
                           const CVError& underlying, const CVDictionary* userInfo,
                           std::optional<std::string_view> format,
                           std::span<const platform::FormatArg> args);

// A record with exactly three user-information entries: description,
// "FunctionName" and "SourceFileLine" (the line where `format` is written).
template <class... Args>
CVError CreateError(std::string_view function, std::string_view domain, long code,
                    platform::FormatString<Args...> format, const Args&... args) {
  CVDictionary userInfo;
  userInfo.set(std::string(kLocalizedDescriptionKey), platform::format<Args...>(format, args...));
  userInfo.set(std::string(CVFunctionNameErrorKey), std::string(function));
  userInfo.set(std::string(CVSourceFileLineErrorKey), static_cast<long>(format.where().line()));
  return CVError(std::string(domain), code, std::move(userInfo));
}

// A POSIX-domain record for `errnoValue`, as CreateError builds it.
template <class... Args>
CVError CreatePOSIXError(std::string_view function, int errnoValue,
                         platform::FormatString<Args...> format, const Args&... args) {
  return CreateError<Args...>(function, kPOSIXErrorDomain, errnoValue, format, args...);
}

// Builds and logs a record with an optional underlying error and user
// information; see CreateAndLogErrorV.
template <class... Args>
CVError CreateAndLogError(std::string_view function, std::string_view domain, long code,
                          const CVError& underlying, const CVDictionary* userInfo,
                          platform::FormatString<Args...> format, const Args&... args) {
  const std::array<platform::FormatArg, sizeof...(Args)> erased{platform::makeFormatArg(args)...};
  return CreateAndLogErrorV(function, static_cast<int>(format.where().line()), domain, code,
                            underlying, userInfo, format.text(), erased);
}
