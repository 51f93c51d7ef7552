// Helpers for the host tests that run on generated legacy images: making an
// image, a snapshot of everything below a directory (to prove that nothing
// changed), and the JSON documents of `mavrel plan` and `--report`.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/linux/ExtendedAttributes.h"
#include "samplegen/LegacyImageGenerator.h"
#include "shared/support/CVFileDigest.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/JSON.h"
#include "tests/support/TestSupport.h"

namespace host_test {

// Generates a legacy image in `directory` (which must not exist yet).
inline samplegen::ImageManifest generateImage(const std::string& directory,
                                              samplegen::GeneratorOptions options) {
  CVError error;
  const auto root = samplegen::prepareImageRoot(directory, /*replace=*/false, &error);
  EXPECT_TRUE(root.has_value()) << error.description();
  options.root = root.value_or("");
  auto manifest = samplegen::generateLegacyImage(options, &error);
  EXPECT_TRUE(manifest.has_value()) << error.description();
  return manifest.value_or(samplegen::ImageManifest());
}

// Every item below `directory`, the directory itself included: kind and mode,
// size, modification time, contents (by digest) and extended attributes.
inline std::map<std::string, std::string> snapshotTree(const std::string& directory) {
  std::map<std::string, std::string> items;
  const auto describe = [&items](const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return;
    std::ostringstream text;
    text << std::oct << status.st_mode << std::dec << " " << status.st_size << " "
         << status.st_mtim.tv_sec << "." << status.st_mtim.tv_nsec;
    if (S_ISREG(status.st_mode)) text << " " << CVCreateSHA256Digest(path).value_or("unreadable");
    if (S_ISLNK(status.st_mode)) text << " -> " << std::filesystem::read_symlink(path).string();
    std::vector<std::string> names;
    const auto item = platform::sys::AttributeItem::link(path.c_str());
    if (platform::sys::listAttributes(item, names) == 0) {
      for (const std::string& name : names) {
        std::vector<char> value;
        platform::sys::getAttribute(item, name.c_str(), value);
        text << " [" << name << "=" << std::string(value.begin(), value.end()) << "]";
      }
    }
    items[path] = text.str();
  };
  describe(directory);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory))
    describe(entry.path().string());
  return items;
}

}  // namespace host_test
