// Finding, loading and setting up migrator plug-ins.
//
// A plug-in is a shared module whose name ends ".migrator", exporting the C
// entry point kMavrelCreateMigratorSymbol (platform/MavrelMigrator.h).
//
// Error contract: every function returns nullopt on failure with a one-line
// reason naming the file or directory at fault.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/MavrelMigrator.h"

namespace mavrel_host {

// A dlopen handle, closed when the object goes away.
class PluginModule {
 public:
  static std::optional<PluginModule> open(const std::string& path, std::string* reason);
  PluginModule(PluginModule&& other) noexcept;
  PluginModule& operator=(PluginModule&& other) noexcept;
  PluginModule(const PluginModule&) = delete;
  PluginModule& operator=(const PluginModule&) = delete;
  ~PluginModule();

  // The address of `name`, or null with a reason.
  void* symbol(const char* name, std::string* reason) const;
  const std::string& path() const { return path_; }

 private:
  PluginModule(void* handle, std::string path) : handle_(handle), path_(std::move(path)) {}
  void* handle_ = nullptr;
  std::string path_;
};

// A migrator together with the module its code lives in. Members are
// destroyed in reverse order: the migrator first, then the module is closed.
struct LoadedMigrator {
  PluginModule module;
  std::unique_ptr<MavrelMigrator> migrator;
};

// "<directory of the running program>/../plugins".
std::string defaultPluginDirectory();

// Paths of the "*.migrator" files in `directory`, sorted by name.
std::optional<std::vector<std::string>> findPlugins(const std::string& directory,
                                                    std::string* reason);

// Loads the module at `path` and sets its migrator up with `services`, which
// must outlive the result. A null migrator from the entry point is a failure.
std::optional<LoadedMigrator> loadMigrator(const std::string& path,
                                           const MavrelHostServices& services, std::string* reason);

}  // namespace mavrel_host
