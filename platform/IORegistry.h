// The I/O registry: a tree of hardware objects, each of one or more classes,
// with properties, reached through integer handles.
//
// Handles (objects and iterators) are counted references: every handle a call
// hands out must be released once with release(). Zero is never a handle.
//
// IORegistryTree is an in-memory registry that tests build by hand and that the
// Linux implementation fills from sysfs (see LoopDeviceRegistry.h).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Value.h"

namespace platform {

using IOObjectHandle = std::uint32_t;
// Result of createIterator: 0 for success, a non-zero code otherwise.
using IOReturn = std::int32_t;
inline constexpr IOReturn kIOReturnSuccess = 0;
inline constexpr IOReturn kIOReturnNotFound = static_cast<IOReturn>(0xE00002F0);
inline constexpr std::string_view kIOServicePlane = "HWService";

class IORegistry {
 public:
  virtual ~IORegistry() = default;
  // The first object conforming to `className`, or 0.
  virtual IOObjectHandle firstMatchingService(std::string_view className) = 0;
  // An iterator over the children of `entry` in `plane`, or over all its
  // descendants (depth-first, parents before children) when `recursive`.
  virtual IOReturn createIterator(IOObjectHandle entry, std::string_view plane, bool recursive,
                                  IOObjectHandle* iterator) = 0;
  // The next object of an iterator, or 0 at the end.
  virtual IOObjectHandle iteratorNext(IOObjectHandle iterator) = 0;
  virtual bool conformsTo(IOObjectHandle object, std::string_view className) = 0;
  // A property of an entry, or nullopt.
  virtual std::optional<CVValue> createProperty(IOObjectHandle entry, std::string_view key) = 0;
  virtual void release(IOObjectHandle handle) = 0;
};

class IORegistryTree final : public IORegistry {
 public:
  using NodeId = std::size_t;
  static constexpr NodeId kRoot = 0;

  IORegistryTree();
  // Adds a node under `parent` conforming to `classNames` (most specific first).
  NodeId addNode(NodeId parent, std::vector<std::string> classNames, CVDictionary properties = {});

  IOObjectHandle firstMatchingService(std::string_view className) override;
  IOReturn createIterator(IOObjectHandle entry, std::string_view plane, bool recursive,
                          IOObjectHandle* iterator) override;
  IOObjectHandle iteratorNext(IOObjectHandle iterator) override;
  bool conformsTo(IOObjectHandle object, std::string_view className) override;
  std::optional<CVValue> createProperty(IOObjectHandle entry, std::string_view key) override;
  void release(IOObjectHandle handle) override;

  // Handles handed out and not yet released: zero after correct use.
  std::size_t outstandingHandles() const;
  // When set, createIterator fails with this code.
  std::optional<IOReturn> failIterators;

 private:
  struct Node {
    std::vector<std::string> classNames;
    CVDictionary properties;
    std::vector<NodeId> children;
  };
  struct Iterator {
    std::vector<NodeId> items;
    std::size_t next = 0;
  };
  struct Handle {
    std::optional<NodeId> node;
    std::optional<Iterator> iterator;
  };
  IOObjectHandle newHandle(Handle handle);
  const Node* nodeFor(IOObjectHandle handle) const;
  void collect(NodeId node, bool recursive, std::vector<NodeId>& out) const;

  mutable std::mutex mutex_;
  std::vector<Node> nodes_;
  std::map<IOObjectHandle, Handle> handles_;
  IOObjectHandle nextHandle_ = 1;
};

}  // namespace platform
