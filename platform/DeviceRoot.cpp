#include "platform/DeviceRoot.h"

#include <memory>
#include <mutex>
#include <vector>

namespace platform {

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
