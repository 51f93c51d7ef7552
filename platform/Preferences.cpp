#include "platform/Preferences.h"

#include "platform/FileIOPosix.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"

namespace platform {
namespace {

constexpr std::string_view kCopyFunction = "PreferencesStore::copyValue";
constexpr std::string_view kSetFunction = "PreferencesStore::setValue";

bool isKept(std::string_view user, std::string_view host) {
  return user == kPreferencesCurrentUser && host == kPreferencesCurrentHost;
}

// A domain names one file directly inside the preferences directory.
bool isValidDomain(std::string_view domain) {
  return !domain.empty() && domain != "." && domain != ".." &&
         domain.find('/') == std::string_view::npos && domain.find('\0') == std::string_view::npos;
}

enum class DomainRead { Read, Absent, Unreadable };

// Reads a domain's file; an absent file reads as an empty dictionary.
DomainRead readDomain(const CVURL& url, CVDictionary& contents, CVError& error) {
  auto dictionary = readPropertyListDictionary(url, &error, kPreferencesLimits);
  if (dictionary) {
    contents = std::move(*dictionary);
    return DomainRead::Read;
  }
  contents = CVDictionary();
  return error.domain() == kPlatformErrorDomain && error.code() == kPlatformFileReadNoSuchFileError
             ? DomainRead::Absent
             : DomainRead::Unreadable;
}

}  // namespace

PreferencesStore::PreferencesStore(CVURL home)
    : preferencesDirectory_(home.URLByAppendingPathComponent("Library/Preferences", true)) {}

CVURL PreferencesStore::fileURLForDomain(std::string_view domain) const {
  return preferencesDirectory_.URLByAppendingPathComponent(std::string(domain) + ".plist", false);
}

std::optional<CVValue> PreferencesStore::copyValue(std::string_view key, std::string_view domain,
                                                   std::string_view user,
                                                   std::string_view host) const {
  if (!isKept(user, host) || !isValidDomain(domain)) return std::nullopt;
  const CVURL url = fileURLForDomain(domain);
  CVDictionary contents;
  CVError error;
  DomainRead outcome;
  {
    const std::lock_guard lock(mutex_);
    outcome = readDomain(url, contents, error);
  }
  if (outcome == DomainRead::Unreadable) {
    logInstaller(kLogLevelError, kCopyFunction, "Failed to read preferences from %@ : %@",
                 url.path(), error);
    return std::nullopt;
  }
  const CVValue* value = contents.find(key);
  if (value == nullptr) return std::nullopt;
  return *value;
}

bool PreferencesStore::setValue(std::string_view key, std::optional<CVValue> value,
                                std::string_view domain, std::string_view user,
                                std::string_view host) {
  if (!isKept(user, host)) {
    logInstaller(kLogLevelError, kSetFunction,
                 "Not setting %@ in %@: preferences of user %@ and host %@ are not kept", key,
                 domain, user, host);
    return false;
  }
  if (!isValidDomain(domain)) {
    logInstaller(kLogLevelError, kSetFunction, "Not setting %@: \"%@\" is not a valid domain", key,
                 domain);
    return false;
  }
  const CVURL url = fileURLForDomain(domain);
  const std::lock_guard lock(mutex_);

  CVDictionary contents;
  CVError error;
  const DomainRead outcome = readDomain(url, contents, error);
  if (outcome == DomainRead::Unreadable) {
    // Writing now would replace whatever the file holds with this one key.
    logInstaller(kLogLevelError, kSetFunction,
                 "Not setting %@: the preferences file %@ could not be read and is left as it "
                 "is rather than replaced: %@",
                 key, url.path(), error);
    return false;
  }
  if (value) {
    contents.set(std::string(key), std::move(*value));
  } else if (!contents.remove(key)) {
    return true;  // nothing stored, nothing to write
  }

  if (!makeDirectoryPath(preferencesDirectory_.path(), 0755, &error)) {
    logInstaller(kLogLevelError, kSetFunction, "Failed to create preferences directory %@: %@",
                 preferencesDirectory_.path(), error);
    return false;
  }
  if (!writePropertyListAtomically(CVValue(std::move(contents)), url, &error)) {
    logInstaller(kLogLevelError, kSetFunction, "Failed to write preferences to %@: %@", url.path(),
                 error);
    return false;
  }
  return true;
}

}  // namespace platform
