// A fixture that makes sample images in a temporary directory, and a summary
// of a tree (every item's relative path, kind, mode, size and content digest)
// to compare images by.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "samplegen/LegacyImageGenerator.h"
#include "tests/support/TestSupport.h"

namespace samplegen_test {

struct TreeItem {
  char kind = '?';  // 'd' directory, 'f' regular file, 'l' link, '?' other
  unsigned mode = 0;
  std::uint64_t size = 0;
  std::string digest;  // SHA-256 of a file's contents
  bool operator==(const TreeItem&) const = default;
};
using TreeSummary = std::map<std::string, TreeItem>;

// Every item below `root`, keyed by its path relative to `root`; links are
// listed, not followed.
TreeSummary summarizeTree(const std::string& root);

// The relative paths on which two summaries differ (at most `limit` of them).
std::string describeDifferences(const TreeSummary& a, const TreeSummary& b, std::size_t limit = 10);

class SampleImageTest : public ::testing::Test {
 protected:
  // A fresh, empty image root "<temporary>/<name>", canonical.
  std::string makeRoot(const std::string& name = "image");
  // Generates with `options` into `options.root`, or into a fresh root when
  // it is empty; fails the test (and returns nullopt) when generation fails.
  std::optional<samplegen::ImageManifest> generate(samplegen::GeneratorOptions options);

  testing_support::TemporaryDirectory temporary_;
};

}  // namespace samplegen_test
