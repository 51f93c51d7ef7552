// What the host tests share: the generated legacy images, made once per test
// program, and the checks of what a run printed.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "samplegen/LegacyImageGenerator.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace host_test {

// Each fragment is in `text` (each named when it is not).
inline void expectContains(const std::string& text, const std::vector<std::string>& fragments) {
  for (const std::string& fragment : fragments)
    EXPECT_NE(text.find(fragment), std::string::npos) << "lacks: " << fragment << "\n" << text;
}
inline void expectLacks(const std::string& text, const std::vector<std::string>& fragments) {
  for (const std::string& fragment : fragments)
    EXPECT_EQ(text.find(fragment), std::string::npos) << "has: " << fragment << "\n" << text;
}

// A plug-in directory in `directory` with the real migrator and, after it
// (plug-ins run in name order), the one that damages or interrupts on request.
inline std::string damagingPluginDirectory(const std::string& directory) {
  if (std::filesystem::exists(directory)) return directory;
  std::filesystem::create_directories(directory);
  std::filesystem::copy_file(MAVREL_BINARY_DIR "/plugins/AppMigrator.migrator",
                             directory + "/AppMigrator.migrator");
  std::filesystem::copy_file(MAVREL_BINARY_DIR "/test-plugins/DamagingMigrator.migrator",
                             directory + "/ZZDamagingMigrator.migrator");
  return directory;
}

// A legacy image at `directory` (which must not exist yet) with these
// options. Generating costs more than copying: each set of options is
// generated once per test program and every test gets its own copy (cp -a
// keeps times and attributes), with the manifest's paths moved along.
inline samplegen::ImageManifest generateImage(const std::string& directory,
                                              std::size_t applications, std::uint64_t seed,
                                              std::optional<std::size_t> vpnOnly = std::nullopt,
                                              const std::vector<std::string>& missing = {},
                                              const std::vector<std::string>& extra = {}) {
  static testing_support::TemporaryDirectory templates;
  static std::map<std::string, samplegen::ImageManifest> generated;
  std::ostringstream key;
  key << applications << "/" << seed << "/" << (vpnOnly ? std::to_string(*vpnOnly) : "default");
  for (const auto& list : {missing, extra}) {
    key << "/";
    for (const std::string& item : list)
      key << item << ",";
  }
  auto found = generated.find(key.str());
  if (found == generated.end()) {
    CVError error;
    const auto root = samplegen::prepareImageRoot(templates / std::to_string(generated.size()),
                                                  /*replace=*/false, &error);
    EXPECT_TRUE(root.has_value()) << error.description();
    const samplegen::GeneratorOptions options{.root = root.value_or(""),
                                              .applicationCount = applications,
                                              .seed = seed,
                                              .vpnOnlyCount = vpnOnly,
                                              .missingExecutable = missing,
                                              .extraItem = extra};
    auto manifest = samplegen::generateLegacyImage(options, &error);
    EXPECT_TRUE(manifest.has_value()) << error.description();
    if (!manifest) return samplegen::ImageManifest();
    found = generated.emplace(key.str(), std::move(*manifest)).first;
  }
  std::filesystem::create_directories(std::filesystem::path(directory).parent_path());
  EXPECT_EQ(testing_support::runProgram("cp", {"-a", found->second.root, directory}).exitCode, 0);
  samplegen::ImageManifest manifest = found->second;
  const std::string from = manifest.root;
  const std::string to = std::filesystem::canonical(directory).string();
  const auto move = [&](std::string& path) {
    if (path.starts_with(from)) path = to + path.substr(from.size());
  };
  for (std::string* path :
       {&manifest.root, &manifest.legacyDirectory, &manifest.installMapPath,
        &manifest.harborMapPath, &manifest.systemBuildPath, &manifest.strayNotePath})
    move(*path);
  for (auto& container : manifest.containers) {
    move(container.containerPath);
    move(container.bundlePath);
    move(container.vpnPluginPath);
  }
  for (auto& group : manifest.groupContainers)
    move(group.path);
  for (auto& harbor : manifest.harbors)
    move(harbor.path);
  for (auto& builtIn : manifest.builtIns)
    move(builtIn.bundlePath);
  return manifest;
}

}  // namespace host_test
