#include "platform/DeviceRoot.h"

#include <array>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace platform {
namespace {

// The device's top-level links into "/private", honoured lexically.
constexpr std::array<std::pair<std::string_view, std::string_view>, 3> kPrivateAliases{{
    {"var", "private/var"},
    {"etc", "private/etc"},
    {"tmp", "private/var/tmp"},
}};

bool hasDotDotComponent(std::string_view path) {
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (path.substr(start, end - start) == "..") return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

DeviceRoot::DeviceRoot(std::string_view path) : path_(CVURL::fileURLWithPath(path, true).path()) {}

CVURL DeviceRoot::rootURL() const {
  return CVURL::fileURLWithPath(path_, true);
}

CVURL DeviceRoot::homeURL() const {
  return rootURL().URLByAppendingPathComponent("private/var/mobile", true);
}

bool DeviceRoot::contains(std::string_view path) const {
  if (path_ == "/") return !path.empty() && path.front() == '/';
  if (path.substr(0, path_.size()) != path_) return false;
  return path.size() == path_.size() || path[path_.size()] == '/';
}

std::optional<std::string> DeviceRoot::hostPathForDevicePath(std::string_view path,
                                                             std::string* problem) const {
  if (path.empty() || path.front() != '/') {
    *problem = "is not an absolute path";
    return std::nullopt;
  }
  if (hasDotDotComponent(path)) {
    *problem = "has a '..' component";
    return std::nullopt;
  }
  if (path_ == "/" || contains(path)) return std::string(path);
  std::string_view rest = path.substr(1);
  const std::size_t slash = rest.find('/');
  const std::string_view first = rest.substr(0, slash);
  std::string mapped = path_;
  for (const auto& [alias, target] : kPrivateAliases) {
    if (first != alias) continue;
    mapped.append("/").append(target);
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    break;
  }
  if (!rest.empty()) mapped.append("/").append(rest);
  while (mapped.size() > path_.size() + 1 && mapped.back() == '/')
    mapped.pop_back();
  return mapped;
}

std::optional<std::string> DeviceRoot::devicePathForHostPath(std::string_view path) const {
  if (!contains(path)) return std::nullopt;
  if (path_ == "/") return std::string(path);
  if (path.size() == path_.size()) return std::string("/");
  return std::string(path.substr(path_.size()));
}

namespace {
std::mutex rootMutex;
DeviceRoot* currentRoot = nullptr;  // leaked on purpose: read until exit
}  // namespace

const DeviceRoot& processDeviceRoot() {
  std::lock_guard lock(rootMutex);
  if (currentRoot == nullptr) currentRoot = new DeviceRoot("/");
  return *currentRoot;
}

void setProcessDeviceRoot(const DeviceRoot& root) {
  std::lock_guard lock(rootMutex);
  // Earlier roots stay alive (and reachable): references handed out remain valid.
  static auto* const retired = new std::vector<std::unique_ptr<DeviceRoot>>();
  if (currentRoot != nullptr) retired->emplace_back(currentRoot);
  currentRoot = new DeviceRoot(root);
}

}  // namespace platform
