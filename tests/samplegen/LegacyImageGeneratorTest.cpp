// The generator's promises: the same options make the same image, the options
// shape it as documented, and nothing is written outside the root.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "samplegen/LegacyImageGenerator.h"
#include "samplegen/SamplePlan.h"
#include "tests/samplegen/SampleImageFixture.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

namespace {

namespace fs = std::filesystem;
using samplegen::GeneratorOptions;
using samplegen::ImageManifest;
using namespace samplegen_test;
using namespace testing_support;

class LegacyImageGeneratorTest : public SampleImageTest {};

// The manifest without the time it took, which is the one thing allowed to differ.
std::string timelessJSON(ImageManifest manifest) {
  manifest.seconds = 0;
  return samplegen::manifestJSON(manifest);
}

TEST_F(LegacyImageGeneratorTest, SameOptionsMakeTheSameImageWhateverTheThreads) {
  GeneratorOptions options;
  options.root = makeRoot();
  options.applicationCount = 30;
  options.seed = 7;
  options.missingExecutable = {"2"};
  options.extraItem = {"4"};
  options.threads = 1;
  const auto first = generate(options);
  ASSERT_TRUE(first);
  const auto firstTree = snapshotTree(options.root);

  // Again at the same place (the maps name absolute paths), with more threads.
  fs::remove_all(options.root);
  ASSERT_TRUE(samplegen::prepareImageRoot(options.root, false, nullptr));
  options.threads = 3;
  const auto second = generate(options);
  ASSERT_TRUE(second);
  const auto secondTree = snapshotTree(options.root);

  EXPECT_EQ(listed(differences(firstTree, secondTree, AccessTimes::AndModificationTimesIgnored)),
            "");
  EXPECT_EQ(timelessJSON(*first), timelessJSON(*second));
  EXPECT_GT(firstTree.size(), 300u);
}

TEST_F(LegacyImageGeneratorTest, AnotherSeedMakesAnotherImage) {
  GeneratorOptions options;
  options.applicationCount = 10;
  options.seed = 1;
  const auto one = generate(options);
  options.seed = 2;
  options.root = makeRoot("other");
  const auto two = generate(options);
  ASSERT_TRUE(one && two);
  std::vector<std::string> first, second;
  for (const auto& c : one->containers)
    first.push_back(c.identifier);
  for (const auto& c : two->containers)
    second.push_back(c.identifier);
  EXPECT_NE(first, second);
}

TEST_F(LegacyImageGeneratorTest, CountsAndVariantsFollowTheOptions) {
  GeneratorOptions options;
  options.applicationCount = 30;
  options.vpnOnlyCount = 3;
  options.seed = 11;
  // Selections by index and by identifier; the plan knows the identifiers.
  samplegen::SamplePlanOptions planOptions;
  planOptions.seed = options.seed;
  planOptions.applicationCount = options.applicationCount;
  const auto plan = samplegen::makeSamplePlan(planOptions, nullptr);
  ASSERT_TRUE(plan);
  const std::string chosen = plan->applications[9].bundle.identifier;

  options.missingExecutable = {"0", chosen};
  options.extraItem = {"5"};
  const auto manifest = generate(options);
  ASSERT_TRUE(manifest);
  EXPECT_EQ(manifest->applicationCount(), 30u);
  EXPECT_EQ(manifest->vpnOnlyCount(), 3u);
  // The selections change only the selected containers' flags.
  for (std::size_t i = 0; i < manifest->applicationCount(); ++i) {
    const auto& container = manifest->containers[i];
    EXPECT_EQ(container.identifier, plan->applications[i].bundle.identifier);
    EXPECT_EQ(container.missingExecutable, i == 0 || i == 9) << i;
    EXPECT_EQ(container.extraItem, i == 5) << i;
    EXPECT_EQ(pathExists(container.containerPath + "/Unexpected.dat"), i == 5) << i;
  }
  // Exactly one application is the user's copy of a built-in one.
  EXPECT_EQ(std::count_if(manifest->containers.begin(), manifest->containers.end(),
                          [](const auto& c) { return c.builtInDuplicate; }),
            1);
  // Every kind of container is there.
  EXPECT_TRUE(std::any_of(manifest->containers.begin(), manifest->containers.end(),
                          [](const auto& c) { return !c.vpnPluginPath.empty(); }));
  EXPECT_TRUE(std::any_of(manifest->groupContainers.begin(), manifest->groupContainers.end(),
                          [](const auto& g) { return g.members.size() >= 2; }));
  EXPECT_FALSE(manifest->harbors.empty());
}

TEST_F(LegacyImageGeneratorTest, UnknownSelectionsAreRefused) {
  for (const std::vector<std::string>& selection :
       {std::vector<std::string>{"no.such.application"}, std::vector<std::string>{"5"}}) {
    GeneratorOptions options;
    options.root = makeRoot("refused");
    options.applicationCount = 5;
    options.extraItem = selection;
    CVError error;
    EXPECT_FALSE(samplegen::generateLegacyImage(options, &error));
    EXPECT_EQ(error.domain(), samplegen::kSampleGenErrorDomain);
    EXPECT_EQ(error.code(), samplegen::kSampleGenBadOptionError);
    EXPECT_NE(error.localizedDescription().find(selection[0]), std::string::npos);
    fs::remove_all(options.root);
  }
}

TEST_F(LegacyImageGeneratorTest, DataScaleScalesBytesNotFiles) {
  GeneratorOptions options;
  options.applicationCount = 25;
  options.dataScale = 1;
  const auto normal = generate(options);
  options.root = makeRoot("double");
  options.dataScale = 2;
  const auto doubled = generate(options);
  options.root = makeRoot("empty");
  options.dataScale = 0;
  const auto empty = generate(options);
  ASSERT_TRUE(normal && doubled && empty);

  std::uint64_t files = 0, bytes = 0, doubledBytes = 0;
  for (std::size_t i = 0; i < normal->containers.size(); ++i) {
    EXPECT_EQ(doubled->containers[i].dataFiles, normal->containers[i].dataFiles);
    EXPECT_EQ(empty->containers[i].dataFiles, normal->containers[i].dataFiles);
    files += normal->containers[i].dataFiles;
    bytes += normal->containers[i].dataBytes;
    doubledBytes += doubled->containers[i].dataBytes;
  }
  EXPECT_EQ(normal->files, empty->files);
  // Preference lists are written as they are; sizes of data files are
  // rounded each, so the doubled total is near twice the normal one.
  EXPECT_GT(doubledBytes, bytes * 19 / 10);
  EXPECT_LT(doubledBytes, bytes * 21 / 10);
  // With scale 0 only the preference lists keep bytes.
  std::uint64_t emptyBytes = 0;
  for (const auto& container : empty->containers)
    emptyBytes += container.dataBytes;
  EXPECT_LT(emptyBytes, files * 1024);
}

TEST_F(LegacyImageGeneratorTest, FileSizesAreMostlySmallWithAFewLargeOnes) {
  GeneratorOptions options;
  options.applicationCount = 120;
  options.seed = 3;
  const auto manifest = generate(options);
  ASSERT_TRUE(manifest);
  std::vector<std::uint64_t> sizes;
  for (const auto& container : manifest->containers) {
    for (const char* item : {"Documents", "Library", "tmp", "Pormex"}) {
      const std::string path = container.containerPath + "/" + item;
      if (!pathExists(path)) continue;
      for (const auto& entry : fs::recursive_directory_iterator(path)) {
        if (entry.is_regular_file()) sizes.push_back(entry.file_size());
      }
    }
  }
  ASSERT_GT(sizes.size(), 600u);
  std::sort(sizes.begin(), sizes.end());
  EXPECT_LT(sizes[sizes.size() / 2], 4096u);            // the median file is small
  EXPECT_LT(sizes[sizes.size() * 9 / 10], 32u * 1024);  // nine in ten are under 32 KB
  EXPECT_GE(sizes.back(), 1024u * 1024);                // and a few are megabytes
  EXPECT_LE(std::count_if(sizes.begin(), sizes.end(),
                          [](std::uint64_t size) { return size >= 1024 * 1024; }),
            10);
}

TEST_F(LegacyImageGeneratorTest, NothingIsWrittenOutsideTheRoot) {
  const std::string outside = temporary_ / "outside";
  makeDirectories(outside);
  GeneratorOptions options;
  options.root = makeRoot();
  options.applicationCount = 12;
  ASSERT_TRUE(generate(options));
  // The temporary directory holds the image and the untouched sibling only.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(temporary_.path())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"image", "outside"}));
  EXPECT_TRUE(fs::is_empty(outside));
  // The image has no links that could lead out of it.
  for (const auto& [path, item] : snapshotTree(options.root))
    EXPECT_FALSE(S_ISLNK(item.mode)) << path;
}

TEST_F(LegacyImageGeneratorTest, ARootThatHoldsAnythingIsRefused) {
  // A link planted in the root must not lead the generator out of it.
  const std::string outside = temporary_ / "outside";
  makeDirectories(outside);
  const std::string root = makeRoot();
  makeSymlink(outside, root + "/private");
  GeneratorOptions options;
  options.root = root;
  options.applicationCount = 3;
  CVError error;
  EXPECT_FALSE(samplegen::generateLegacyImage(options, &error));
  EXPECT_EQ(error.code(), samplegen::kSampleGenRootNotEmptyError);
  EXPECT_TRUE(fs::is_empty(outside));

  options.root = root + "/";
  EXPECT_FALSE(samplegen::generateLegacyImage(options, &error));
  EXPECT_EQ(error.code(), samplegen::kSampleGenBadPathError);
}

TEST_F(LegacyImageGeneratorTest, PreparingTheRoot) {
  CVError error;
  // An absent directory is made; its parent must exist.
  const auto made = samplegen::prepareImageRoot(temporary_ / "new", false, &error);
  ASSERT_TRUE(made) << error.description();
  EXPECT_TRUE(fs::is_directory(*made));
  EXPECT_FALSE(samplegen::prepareImageRoot(temporary_ / "missing/new", false, &error));
  EXPECT_TRUE(error.isPOSIX(ENOENT));

  // A directory with something in it is refused, with or without replacing,
  // unless it holds an image made here.
  writeFile(temporary_ / "busy/precious.txt", "keep me");
  EXPECT_FALSE(samplegen::prepareImageRoot(temporary_ / "busy", false, &error));
  EXPECT_EQ(error.code(), samplegen::kSampleGenRootNotEmptyError);
  EXPECT_FALSE(samplegen::prepareImageRoot(temporary_ / "busy", true, &error));
  EXPECT_EQ(error.code(), samplegen::kSampleGenRootNotEmptyError);
  EXPECT_TRUE(pathExists(temporary_ / "busy/precious.txt"));

  GeneratorOptions options;
  options.root = *made;
  options.applicationCount = 2;
  ASSERT_TRUE(generate(options));
  EXPECT_FALSE(samplegen::prepareImageRoot(*made, false, &error));
  const auto replaced = samplegen::prepareImageRoot(*made, true, &error);
  ASSERT_TRUE(replaced) << error.description();
  EXPECT_TRUE(fs::is_empty(*replaced));

  // Links and files are refused as roots.
  makeSymlink(temporary_ / "new", temporary_ / "link");
  EXPECT_FALSE(samplegen::prepareImageRoot(temporary_ / "link", false, &error));
  EXPECT_EQ(error.code(), samplegen::kSampleGenBadPathError);
  writeFile(temporary_ / "file", "x");
  EXPECT_FALSE(samplegen::prepareImageRoot(temporary_ / "file", false, &error));
  EXPECT_TRUE(error.isPOSIX(ENOTDIR));
}

}  // namespace
