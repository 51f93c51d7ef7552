#include "platform/IORegistry.h"

#include <algorithm>

namespace platform {

IORegistryTree::IORegistryTree() {
  nodes_.push_back(Node{{"HWRegistryRoot"}, {}, {}});
}

IORegistryTree::NodeId IORegistryTree::addNode(NodeId parent, std::vector<std::string> classNames,
                                               CVDictionary properties) {
  std::lock_guard lock(mutex_);
  const NodeId id = nodes_.size();
  nodes_.push_back(Node{std::move(classNames), std::move(properties), {}});
  nodes_[parent].children.push_back(id);
  return id;
}

IOObjectHandle IORegistryTree::newHandle(Handle handle) {
  const IOObjectHandle id = nextHandle_++;
  handles_.emplace(id, std::move(handle));
  return id;
}

const IORegistryTree::Node* IORegistryTree::nodeFor(IOObjectHandle handle) const {
  const auto it = handles_.find(handle);
  if (it == handles_.end() || !it->second.node) return nullptr;
  return &nodes_[*it->second.node];
}

void IORegistryTree::collect(NodeId node, bool recursive, std::vector<NodeId>& out) const {
  for (const NodeId child : nodes_[node].children) {
    out.push_back(child);
    if (recursive) collect(child, recursive, out);
  }
}

IOObjectHandle IORegistryTree::firstMatchingService(std::string_view className) {
  std::lock_guard lock(mutex_);
  std::vector<NodeId> all;
  collect(kRoot, /*recursive=*/true, all);
  for (const NodeId id : all) {
    const auto& names = nodes_[id].classNames;
    if (std::find(names.begin(), names.end(), className) != names.end()) {
      return newHandle(Handle{id, std::nullopt});
    }
  }
  return 0;
}

IOReturn IORegistryTree::createIterator(IOObjectHandle entry, std::string_view plane,
                                        bool recursive, IOObjectHandle* iterator) {
  std::lock_guard lock(mutex_);
  if (failIterators) return *failIterators;
  const auto it = handles_.find(entry);
  if (plane != kIOServicePlane || it == handles_.end() || !it->second.node) {
    return kIOReturnNotFound;
  }
  Iterator items;
  collect(*it->second.node, recursive, items.items);
  *iterator = newHandle(Handle{std::nullopt, std::move(items)});
  return kIOReturnSuccess;
}

IOObjectHandle IORegistryTree::iteratorNext(IOObjectHandle iterator) {
  std::lock_guard lock(mutex_);
  const auto it = handles_.find(iterator);
  if (it == handles_.end() || !it->second.iterator) return 0;
  Iterator& items = *it->second.iterator;
  if (items.next >= items.items.size()) return 0;
  return newHandle(Handle{items.items[items.next++], std::nullopt});
}

bool IORegistryTree::conformsTo(IOObjectHandle object, std::string_view className) {
  std::lock_guard lock(mutex_);
  const Node* node = nodeFor(object);
  return node != nullptr && std::find(node->classNames.begin(), node->classNames.end(),
                                      className) != node->classNames.end();
}

std::optional<CVValue> IORegistryTree::createProperty(IOObjectHandle entry, std::string_view key) {
  std::lock_guard lock(mutex_);
  const Node* node = nodeFor(entry);
  if (node == nullptr) return std::nullopt;
  const CVValue* value = node->properties.find(key);
  return value ? std::optional<CVValue>(*value) : std::nullopt;
}

void IORegistryTree::release(IOObjectHandle handle) {
  std::lock_guard lock(mutex_);
  handles_.erase(handle);
}

std::size_t IORegistryTree::outstandingHandles() const {
  std::lock_guard lock(mutex_);
  return handles_.size();
}

}  // namespace platform
