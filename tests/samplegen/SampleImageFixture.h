// A fixture that makes sample images in a temporary directory.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "samplegen/LegacyImageGenerator.h"
#include "tests/support/TestSupport.h"

namespace samplegen_test {

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
