// realPathForURL:ifChildOfURL: and its helpers: whether an item still lies
// inside a base directory once every symbolic link is resolved.
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Log.h"
#include "platform/linux/Links.h"
#include "platform/linux/PathResolution.h"
#include "shared/filemanager/CVFileManager.h"

namespace sys = platform::sys;

namespace {

constexpr std::string_view kPrivatePrefix = "/private";
constexpr std::size_t kLinkContentBufferSize = 1024;

// The path without its last component, as path strings have always worked
// here: "/a/l" gives "/a", "/l" gives "/", "l" gives "".
std::string deletingLastPathComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  path.resize(slash);
  return path;
}

// `path` with `component` appended after exactly one separator; an empty
// `path` gives `component` alone.
std::string appendingPathComponent(std::string path, std::string_view component) {
  if (path.empty()) return std::string(component);
  if (path.back() != '/') path += '/';
  while (!component.empty() && component.front() == '/')
    component.remove_prefix(1);
  path += component;
  return path;
}

// Components [first, last) joined with "/"; the root component "/" (only
// ever the first) becomes the leading separator.
std::string joinComponents(const std::vector<std::string>& components, std::size_t first,
                           std::size_t last) {
  std::string path;
  for (std::size_t index = first; index < last; ++index) {
    const std::string& component = components[index];
    if (component != "/" && !path.empty() && path.back() != '/') path.push_back('/');
    path.append(component);
  }
  return path;
}

// On the device several top-level directories are links into "/private";
// "/private/var/x" and "/var/x" name one place. The shorter form is used.
CVURL withoutPrivatePrefix(const CVURL& url) {
  const std::string& path = url.path();
  if (path.size() > kPrivatePrefix.size() && path.starts_with(kPrivatePrefix) &&
      path[kPrivatePrefix.size()] == '/') {
    return CVURL::fileURLWithPath(std::string_view(path).substr(kPrivatePrefix.size()), false);
  }
  return url;
}

// Where the comparison of resolved components starts: after "/" and an
// optional "private".
std::size_t firstComparedComponent(const std::vector<std::string>& components) {
  return components[1] == "private" ? 2 : 1;
}

}  // namespace

bool CVFileManager::_validateSymlink(const std::string* path, std::int32_t startingDepth,
                                     std::int32_t* endingDepth) {
  if (path == nullptr) return false;
  std::int32_t depth = startingDepth;
  for (const std::string& component : CVURL::pathComponents(*path)) {
    if (component == "..") {
      --depth;
    } else if (!component.empty() && component != "." && component != "/") {
      ++depth;
    }
    if (depth < startingDepth) return false;
  }
  if (endingDepth != nullptr) *endingDepth = depth;
  return true;
}

CVURL CVFileManager::_realPathForURL(const CVURL& url, bool allowNonExistentPathComponents) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager _realPathForURL:allowNonExistentPathComponents:]";
  const char* path = url.fileSystemRepresentation();
  std::string resolved;
  // One open names an existing item; realpath, a lookup per component, is
  // left for what does not exist, whose resolved prefix the message shows.
  if (sys::resolveExistingPath(path, &resolved) == 0 || sys::resolveRealPath(path, &resolved) == 0)
    return CVURL::fileURLWithPath(resolved, false);
  const int code = errno;
  if (code == ENOENT && allowNonExistentPathComponents)
    return _realPathWhatExistsInPath(url.path());
  platform::logInstaller(platform::kLogLevelError, kFunction, "Failed to realpath %s : %s at %s",
                         path, std::strerror(code), resolved);
  return CVURL();
}

CVURL CVFileManager::_realPathWhatExistsInPath(const std::string& path) {
  static constexpr std::string_view kFunction = "-[CVFileManager _realPathWhatExistsInPath:]";
  const std::vector<std::string> components = CVURL::pathComponents(path);
  if (components.size() <= 1) return CVURL();
  // The root alone is never tried.
  for (std::size_t length = components.size(); length >= 2; --length) {
    const CVURL prefix = CVURL::fileURLWithPath(joinComponents(components, 0, length), false);
    if (!itemExistsAtURL(prefix)) continue;
    const CVURL resolved = _realPathForURL(prefix, false);
    if (resolved.isNil()) continue;
    const std::string remainder = joinComponents(components, length, components.size());
    platform::logInstaller(platform::kLogLevelDebug, kFunction,
                           "Realpathed %@ ; appending non-existing components %@", resolved.path(),
                           remainder);
    return resolved.URLByAppendingPathComponent(remainder, false);
  }
  return CVURL();
}

CVURL CVFileManager::realPathForURL(const CVURL& suspiciousURL, const CVURL& baseURL) {
  static constexpr std::string_view kFunction = "-[CVFileManager realPathForURL:ifChildOfURL:]";
  constexpr int kError = platform::kLogLevelError;
  if (suspiciousURL.isNil() || baseURL.isNil()) {
    platform::logInstaller(kError, kFunction, "The base path %@ and/or suspicious path %@ were nil",
                           baseURL, suspiciousURL);
    return CVURL();
  }

  const CVURL base = withoutPrivatePrefix(baseURL);
  const CVURL suspicious = withoutPrivatePrefix(suspiciousURL);
  const std::string& basePath = base.path();
  const std::string& suspiciousPath = suspicious.path();

  // A plain string test: "/var/ab" passes for base "/var/a"; the component
  // comparison below settles it.
  if (!suspiciousPath.starts_with(basePath)) {
    platform::logInstaller(kError, kFunction,
                           "supiscious path %@ does not contain base path %@ as a prefix",
                           suspiciousPath, basePath);
    return CVURL();
  }
  for (const std::string& component : CVURL::pathComponents(suspiciousPath)) {
    if (component == "..") {
      platform::logInstaller(kError, kFunction,
                             "The suspicious path %@ contains '..' paths, which are invalid",
                             suspiciousPath);
      return CVURL();
    }
  }

  bool isRelativeLink = false;
  std::array<char, kLinkContentBufferSize> linkBuffer{};
  const ssize_t linkLength =
      sys::readLink(suspiciousPath.c_str(), linkBuffer.data(), linkBuffer.size());
  const int readLinkError = linkLength < 0 ? errno : 0;
  const std::string linkContent(linkBuffer.data(),
                                static_cast<std::size_t>(linkLength > 0 ? linkLength : 0));
  if (linkLength < 0) {
    // Not a link, or nothing there yet: an ordinary item.
    if (readLinkError != EINVAL && readLinkError != ENOENT) {
      platform::logInstaller(kError, kFunction, "Readlink failed: %s",
                             std::strerror(readLinkError));
      return CVURL();
    }
  } else if (linkContent.starts_with('/')) {
    platform::logInstaller(kError, kFunction,
                           "Rejecting %@ -> %s, as absolute symlinks are not allowed",
                           suspiciousPath, linkContent);
    return CVURL();
  } else {
    std::int32_t baseDepth = 0;
    if (!_validateSymlink(&basePath, 0, &baseDepth)) {
      platform::logInstaller(kError, kFunction, "Failed to retrieve depth of %@", basePath);
      return CVURL();
    }
    // The link's target relative to the base: its directory below the base
    // with the content appended. It may climb back to the base, not above.
    const std::string target = appendingPathComponent(
        deletingLastPathComponent(suspiciousPath.substr(basePath.size())), linkContent);
    if (!_validateSymlink(&target, baseDepth, nullptr)) {
      platform::logInstaller(kError, kFunction,
                             "Rejecting %@ -> %@, as it is points outside or to the base %@",
                             suspiciousPath, target, basePath);
      return CVURL();
    }
    isRelativeLink = true;
  }

  const CVURL realBase = _realPathForURL(base, false);
  if (realBase.isNil()) {
    platform::logInstaller(kError, kFunction, "Failed to retrieve realpath for base path %@ ",
                           basePath);
    return CVURL();
  }
  const CVURL realSuspicious = _realPathForURL(suspicious, true);
  if (realSuspicious.isNil()) {
    platform::logInstaller(kError, kFunction, "Failed to retrieve realpath for suspicious path %@",
                           suspiciousPath);
    return CVURL();
  }
  // A relative link was judged by its content above.
  if (isRelativeLink) return realSuspicious;

  const std::string& realBasePath = realBase.path();
  const std::string& realSuspiciousPath = realSuspicious.path();
  const std::vector<std::string> baseComponents = CVURL::pathComponents(realBasePath);
  const std::vector<std::string> childComponents = CVURL::pathComponents(realSuspiciousPath);
  if (baseComponents.size() < 2 || childComponents.size() < 2) {
    platform::logInstaller(kError, kFunction,
                           "Rejecting %@ with base %@ because real component counts don't make "
                           "sense (reals %@ ; %@)",
                           suspiciousPath, basePath, realSuspiciousPath, realBasePath);
    return CVURL();
  }
  const std::size_t baseStart = firstComparedComponent(baseComponents);
  const std::size_t childStart = firstComparedComponent(childComponents);
  if (baseComponents.size() - baseStart > childComponents.size() - childStart) {
    platform::logInstaller(kError, kFunction,
                           "Rejecting %@ with base %@ because base component count is greater "
                           "than child component count (reals %@ ; %@)",
                           suspiciousPath, basePath, realSuspiciousPath, realBasePath);
    return CVURL();
  }
  for (std::size_t offset = 0; baseStart + offset < baseComponents.size(); ++offset) {
    const std::string& baseComponent = baseComponents[baseStart + offset];
    const std::string& childComponent = childComponents[childStart + offset];
    if (baseComponent != childComponent) {
      platform::logInstaller(kError, kFunction,
                             "Rejecting %@ with base %@ (reals %@ ; %@) because components "
                             "diverge at %@ != %@",
                             suspiciousPath, basePath, realSuspiciousPath, realBasePath,
                             baseComponent, childComponent);
      return CVURL();
    }
  }
  return realSuspicious;
}
