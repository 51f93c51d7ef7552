#include "host/PluginLoader.h"

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace mavrel_host {
namespace {

constexpr std::string_view kPluginSuffix = ".migrator";

void setReason(std::string* reason, std::string text) {
  if (reason != nullptr) *reason = std::move(text);
}

std::string lastLoaderError() {
  const char* text = ::dlerror();
  return text != nullptr ? text : "unknown loader error";
}

}  // namespace

std::optional<PluginModule> PluginModule::open(const std::string& path, std::string* reason) {
  ::dlerror();
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    setReason(reason, "cannot load plug-in '" + path + "': " + lastLoaderError());
    return std::nullopt;
  }
  return PluginModule(handle, path);
}

PluginModule::PluginModule(PluginModule&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), path_(std::move(other.path_)) {}

PluginModule& PluginModule::operator=(PluginModule&& other) noexcept {
  if (this != &other) {
    if (handle_ != nullptr) ::dlclose(handle_);
    handle_ = std::exchange(other.handle_, nullptr);
    path_ = std::move(other.path_);
  }
  return *this;
}

PluginModule::~PluginModule() {
  if (handle_ != nullptr) ::dlclose(handle_);
}

void* PluginModule::symbol(const char* name, std::string* reason) const {
  ::dlerror();
  void* address = ::dlsym(handle_, name);
  if (address == nullptr) {
    setReason(reason, "plug-in '" + path_ + "' does not export " + name + ": " + lastLoaderError());
    return nullptr;
  }
  return address;
}

std::string defaultPluginDirectory() {
  std::error_code error;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return "plugins";
  return (program.parent_path().parent_path() / "plugins").string();
}

std::optional<std::vector<std::string>> findPlugins(const std::string& directory,
                                                    std::string* reason) {
  std::error_code error;
  std::filesystem::directory_iterator entries(directory, error);
  if (error) {
    setReason(reason, "cannot list the plug-in directory '" + directory + "': " + error.message());
    return std::nullopt;
  }
  std::vector<std::string> paths;
  for (; entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    const std::string name = entries->path().filename().string();
    if (name.size() > kPluginSuffix.size() && name.ends_with(kPluginSuffix))
      paths.push_back(entries->path().string());
  }
  if (error) {
    setReason(reason, "cannot list the plug-in directory '" + directory + "': " + error.message());
    return std::nullopt;
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::optional<LoadedMigrator> loadMigrator(const std::string& path,
                                           const MavrelHostServices& services,
                                           std::string* reason) {
  std::optional<PluginModule> module = PluginModule::open(path, reason);
  if (!module) return std::nullopt;
  void* entry = module->symbol(kMavrelCreateMigratorSymbol, reason);
  if (entry == nullptr) return std::nullopt;
  const auto create = reinterpret_cast<MavrelCreateMigratorFunction>(entry);
  std::unique_ptr<MavrelMigrator> migrator(create(&services));
  if (!migrator) {
    setReason(reason, "plug-in '" + path + "' failed to set up its migrator");
    return std::nullopt;
  }
  return LoadedMigrator{std::move(*module), std::move(migrator)};
}

}  // namespace mavrel_host
