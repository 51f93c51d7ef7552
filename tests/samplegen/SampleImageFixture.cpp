#include "tests/samplegen/SampleImageFixture.h"

#include <sys/stat.h>

#include <filesystem>

#include "shared/support/CVFileDigest.h"

namespace samplegen_test {

namespace fs = std::filesystem;

TreeSummary summarizeTree(const std::string& root) {
  TreeSummary summary;
  std::error_code status;
  for (fs::recursive_directory_iterator it(root, status), end; !status && it != end;
       it.increment(status)) {
    const fs::path& path = it->path();
    struct stat item;
    if (::lstat(path.c_str(), &item) != 0) {
      ADD_FAILURE() << "lstat " << path;
      continue;
    }
    TreeItem entry;
    entry.mode = item.st_mode & 07777;
    if (S_ISDIR(item.st_mode)) {
      entry.kind = 'd';
    } else if (S_ISLNK(item.st_mode)) {
      entry.kind = 'l';
    } else if (S_ISREG(item.st_mode)) {
      entry.kind = 'f';
      entry.size = static_cast<std::uint64_t>(item.st_size);
      entry.digest = CVCreateSHA256Digest(path.string()).value_or("unreadable");
    }
    summary.emplace(path.lexically_relative(root).string(), entry);
  }
  EXPECT_FALSE(status) << "walking " << root << ": " << status.message();
  return summary;
}

std::string describeDifferences(const TreeSummary& a, const TreeSummary& b, std::size_t limit) {
  std::string text;
  std::size_t count = 0;
  const auto note = [&](const std::string& line) {
    if (count++ < limit) text += line + "\n";
  };
  for (const auto& [path, item] : a) {
    const auto other = b.find(path);
    if (other == b.end()) {
      note("only in the first: " + path);
    } else if (!(other->second == item)) {
      note("differs: " + path);
    }
  }
  for (const auto& [path, item] : b) {
    if (!a.contains(path)) note("only in the second: " + path);
  }
  if (count > limit) text += "... " + std::to_string(count - limit) + " more\n";
  return text;
}

std::string SampleImageTest::makeRoot(const std::string& name) {
  CVError error;
  const auto root = samplegen::prepareImageRoot(temporary_ / name, false, &error);
  EXPECT_TRUE(root.has_value()) << error.description();
  return root.value_or("");
}

std::optional<samplegen::ImageManifest> SampleImageTest::generate(
    samplegen::GeneratorOptions options) {
  if (options.root.empty()) options.root = makeRoot();
  CVError error;
  auto manifest = samplegen::generateLegacyImage(options, &error);
  EXPECT_TRUE(manifest.has_value()) << error.description();
  return manifest;
}

}  // namespace samplegen_test
