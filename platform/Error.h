// Error records: a domain, an integer code and a user-information dictionary.
//
// The system's conventions for fallible operations: an operation returns false
// (or an empty result) on failure and takes an optional `CVError* error` as its
// last argument. The record is stored there only on failure and only when a
// place was given; on success the place is left untouched. Nothing throws
// across a subsystem boundary.
//
// CVError is a cheap handle to an immutable record; a default-constructed
// CVError is nil (no error) and describes itself as "(null)".
#pragma once

#include <memory>
#include <string>
#include <string_view>

class CVDictionary;
class CVValue;

// The domain of failed system calls; the code is the call's errno.
inline constexpr std::string_view kPOSIXErrorDomain = "POSIXErrorDomain";
// The platform object layer's own errors (file reads and the like).
inline constexpr std::string_view kPlatformErrorDomain = "PlatformErrorDomain";
// Code of kPlatformErrorDomain: a file could not be read because it does not exist.
inline constexpr long kPlatformFileReadNoSuchFileError = 260;
// Code of kPlatformErrorDomain: a file could not be read for another reason.
inline constexpr long kPlatformFileReadUnknownError = 256;
// Code of kPlatformErrorDomain: a property list could not be parsed or had the wrong shape.
inline constexpr long kPlatformPropertyListReadCorruptError = 3840;
// Code of kPlatformErrorDomain: a file could not be written.
inline constexpr long kPlatformFileWriteUnknownError = 512;

// User-information keys the platform itself defines.
inline constexpr std::string_view kLocalizedDescriptionKey = "LocalizedDescription";
inline constexpr std::string_view kUnderlyingErrorKey = "UnderlyingError";

class CVError {
 public:
  CVError() = default;  // nil
  CVError(std::string domain, long code);
  CVError(std::string domain, long code, CVDictionary userInfo);
  // A POSIX-domain record for `errnoValue` with a description built from it.
  static CVError posix(int errnoValue, std::string description);

  bool isNil() const { return record_ == nullptr; }
  explicit operator bool() const { return !isNil(); }

  const std::string& domain() const;
  long code() const;
  const CVDictionary& userInfo() const;
  // The description stored under kLocalizedDescriptionKey, or "" when there is none.
  std::string localizedDescription() const;
  // The record stored under kUnderlyingErrorKey, or nil.
  CVError underlyingError() const;
  bool isPOSIX(int errnoValue) const;

  // Error Domain=<domain> Code=<code> "<description>" UserInfo={...}
  std::string description(int indent = 0) const;
  bool operator==(const CVError& other) const;

 private:
  struct Record;
  std::shared_ptr<const Record> record_;
};

// Stores `value` in `*error` when a place was given.
inline void CVSetError(CVError* error, CVError value) {
  if (error != nullptr) *error = std::move(value);
}
