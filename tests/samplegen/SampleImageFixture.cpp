#include "tests/samplegen/SampleImageFixture.h"

namespace samplegen_test {

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
