// What every fuzz target shares: a scratch device image per target, quiet
// logs, a way to put the fuzzer's bytes where the system reads them, and
// the tests' service doubles steered to accept everything.
//
// The readers under test take paths, so each input is written to the file the
// system would read in a device image and the real reader is called on it.
// Scratch images live under $TMPDIR (or /tmp) and are removed at exit.
//
// Error contract: a harness that cannot set up its scratch image has no
// meaningful result, so every helper here aborts the process on failure
// rather than letting the fuzzer report a false finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/DeviceRoot.h"
#include "platform/URL.h"
#include "platform/Value.h"
#include "tests/support/FakeServices.h"

namespace mavrel_fuzz {

// A device image of its own for one target, made at the first call: the root,
// the mobile user's home and the directories the migrator expects.
class ScratchImage {
 public:
  explicit ScratchImage(std::string_view target);
  ScratchImage(const ScratchImage&) = delete;
  ScratchImage& operator=(const ScratchImage&) = delete;

  const std::string& rootPath() const { return rootPath_; }
  const platform::DeviceRoot& root() const { return root_; }
  // "<root>/private/var/mobile/" + relative.
  std::string home(std::string_view relative) const;

 private:
  std::string rootPath_;
  platform::DeviceRoot root_;
};

// Sends both logs to a sink that drops every line, with the handle at the
// trace level so that every message is still formatted. Idempotent.
void quietLogs();

// Writes `bytes` to `path`, making missing parent directories.
void writeBytes(const std::string& path, std::span<const std::uint8_t> bytes);
void writeText(const std::string& path, std::string_view text);
void makeDirectories(const std::string& path);
// Removes `path` and everything below it, if anything is there.
void removeTree(const std::string& path);

// The tests' installer service and registry double, steered to accept every
// request: it knows no application and touches nothing on disk. It records
// the calls it gets; a harness that lives for many inputs clears them.
void acceptEveryInstall(testing_support::FakeInstallerService& services);

// The system version the migrator records: a build only.
CVDictionary fixedSystemVersion();

}  // namespace mavrel_fuzz
