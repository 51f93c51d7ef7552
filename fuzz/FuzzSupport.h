// What every fuzz target shares: a scratch device image per target, quiet
// logs, a way to put the fuzzer's bytes where the system reads them, and
// services that accept everything and touch nothing.
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
#include "platform/InstallerService.h"
#include "platform/SystemVersion.h"
#include "platform/URL.h"
#include "platform/Value.h"

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

// An installer service and registry that accept every request and know no
// application. Nothing is installed and nothing is touched on disk.
class AcceptingServices final : public platform::InstallerService,
                                public platform::ApplicationRegistry {
 public:
  bool installApplication(const CVURL& url, const CVDictionary& options, CVError* error,
                          const platform::InstallProgressCallback& progress) override;
  bool CorvaneRegisterSafeHarborForContainerType(std::string_view path, std::string_view identifier,
                                                 int containerType,
                                                 const CVDictionary* options) override;
  bool CorvaneUpdateContainerDataProtectionForMigratorOnly(const CVDictionary& options) override;
  bool isApplicationInstalled(std::string_view identifier) override;
  std::optional<platform::BundleRecord> bundleRecordForIdentifier(
      std::string_view identifier) override;
};

class FixedSystemVersion final : public platform::SystemVersionSource {
 public:
  CVDictionary copySystemVersionDictionary() const override;
};

}  // namespace mavrel_fuzz
