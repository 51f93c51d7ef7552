#include "fuzz/FuzzSupport.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <utility>
#include <vector>

#include "platform/Log.h"

namespace mavrel_fuzz {
namespace {

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "fuzz harness set-up failed: %s\n", what.c_str());
  std::abort();
}

std::string makeScratchRoot(std::string_view target) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/mavrel-fuzz-" + std::string(target) + ".XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) fail("mkdtemp " + pattern);
  // The root is canonical, so that paths the system derives from it compare
  // equal to paths built here.
  std::error_code error;
  const std::filesystem::path canonical = std::filesystem::canonical(pattern, error);
  if (error) fail("canonical " + pattern);
  return canonical.string();
}

class DroppingSink final : public platform::LogSink {
 public:
  void write(const platform::LogLine& line) override { (void)line; }
};

// Removes every scratch image at exit: each target makes its image once and
// keeps it for the life of the process.
class ScratchRegistry {
 public:
  ~ScratchRegistry() {
    for (const std::string& path : paths_)
      removeTree(path);
  }
  void add(std::string path) { paths_.push_back(std::move(path)); }

 private:
  std::vector<std::string> paths_;
};

ScratchRegistry& scratchRegistry() {
  static ScratchRegistry registry;
  return registry;
}

}  // namespace

ScratchImage::ScratchImage(std::string_view target)
    : rootPath_(makeScratchRoot(target)), root_(rootPath_) {
  scratchRegistry().add(rootPath_);
  makeDirectories(home("Library/Caches"));
  makeDirectories(home("Library/Preferences"));
  makeDirectories(home("Library/Corvane"));
  makeDirectories(rootPath_ + "/tmp");
}

std::string ScratchImage::home(std::string_view relative) const {
  std::string path = rootPath_ + "/private/var/mobile";
  if (!relative.empty()) path += "/" + std::string(relative);
  return path;
}

void quietLogs() {
  static const auto scopes = [] {
    auto sink = std::make_shared<DroppingSink>();
    auto installer = std::make_unique<platform::ScopedLogSink>(platform::installerLog(), sink,
                                                               platform::kLogLevelDebug);
    auto migration = std::make_unique<platform::ScopedLogSink>(platform::migrationLog(), sink,
                                                               platform::kLogLevelDebug);
    return std::make_pair(std::move(installer), std::move(migration));
  }();
  (void)scopes;
}

void makeDirectories(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) fail("create_directories " + path + ": " + error.message());
}

void writeBytes(const std::string& path, std::span<const std::uint8_t> bytes) {
  makeDirectories(std::filesystem::path(path).parent_path().string());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) fail("write " + path);
}

void writeText(const std::string& path, std::string_view text) {
  writeBytes(path, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

void removeTree(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  if (error) fail("remove_all " + path + ": " + error.message());
}

void acceptEveryInstall(testing_support::FakeInstallerService& services) {
  services.installHandler = [](const CVURL&, const CVDictionary&, CVError*,
                               const platform::InstallProgressCallback&) { return true; };
}

CVDictionary fixedSystemVersion() {
  return CVDictionary{{std::string(platform::kSystemBuildVersionKey), "21B80"}};
}

}  // namespace mavrel_fuzz
