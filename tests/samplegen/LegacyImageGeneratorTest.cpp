// The generator's promises (the same options make the same image whatever the
// threads, its maps hold device paths, nothing is written outside the root)
// and the mavrel-mkimage program.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "platform/PropertyList.h"
#include "samplegen/DeterministicRandom.h"
#include "samplegen/LegacyImageGenerator.h"
#include "samplegen/SamplePlan.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/JSON.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

namespace {

namespace fs = std::filesystem;
using samplegen::GeneratorOptions;
using samplegen::ImageManifest;
using namespace testing_support;

class LegacyImageGeneratorTest : public ::testing::Test {
 protected:
  // A fresh, empty image root "<temporary>/<name>", canonical.
  std::string makeRoot(const std::string& name = "image") {
    CVError error;
    const auto root = samplegen::prepareImageRoot(temporary_ / name, false, &error);
    EXPECT_TRUE(root.has_value()) << error.description();
    return root.value_or("");
  }
  std::optional<ImageManifest> generate(GeneratorOptions options) {
    if (options.root.empty()) options.root = makeRoot();
    CVError error;
    auto manifest = samplegen::generateLegacyImage(options, &error);
    EXPECT_TRUE(manifest.has_value()) << error.description();
    return manifest;
  }

  TemporaryDirectory temporary_;
};

TEST_F(LegacyImageGeneratorTest, SameOptionsMakeTheSameImageWhateverTheThreadsShapedAsAsked) {
  samplegen::DeterministicRandom random(1);
  EXPECT_EQ(random.next(), 12966619160104079557ULL);
  EXPECT_EQ(random.next(), 9600361134598540522ULL);
  EXPECT_EQ(samplegen::DeterministicRandom::stream(1, 2, 3).uuid(),
            "3C114613-9A96-4F1E-A85A-2B4FB95D867E");

  // Selections by index and by identifier; the plan knows the identifiers.
  samplegen::SamplePlanOptions planOptions;
  planOptions.seed = 11;
  planOptions.applicationCount = 30;
  const auto plan = samplegen::makeSamplePlan(planOptions, nullptr);
  ASSERT_TRUE(plan);
  GeneratorOptions options{.root = makeRoot(),
                           .applicationCount = 30,
                           .seed = 11,
                           .vpnOnlyCount = 3,
                           .missingExecutable = {"0", plan->applications[9].bundle.identifier},
                           .extraItem = {"5"},
                           .threads = 1};
  auto first = generate(options);
  ASSERT_TRUE(first);
  const auto firstTree = snapshotTree(options.root);
  // Again at the same place (the maps name absolute paths), with more threads.
  fs::remove_all(options.root);
  ASSERT_TRUE(samplegen::prepareImageRoot(options.root, false, nullptr));
  options.threads = 3;
  const auto manifest = generate(options);
  ASSERT_TRUE(manifest);
  EXPECT_EQ(listed(differences(firstTree, snapshotTree(options.root),
                               AccessTimes::AndModificationTimesIgnored)),
            "");
  first->seconds = manifest->seconds;  // the time it took may differ, and nothing else
  EXPECT_EQ(samplegen::manifestJSON(*first), samplegen::manifestJSON(*manifest));
  EXPECT_GT(firstTree.size(), 300u);

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
  EXPECT_EQ(std::count_if(manifest->containers.begin(), manifest->containers.end(),
                          [](const auto& c) { return c.builtInDuplicate; }),
            1);
  EXPECT_TRUE(std::any_of(manifest->groupContainers.begin(), manifest->groupContainers.end(),
                          [](const auto& g) { return g.members.size() >= 2; }));
  ASSERT_FALSE(manifest->harbors.empty());
  // Data files look like what their names say: each picture starts with the
  // PNG signature.
  std::size_t pictures = 0;
  for (const auto& container : manifest->containers) {
    for (const auto& entry : fs::recursive_directory_iterator(container.containerPath)) {
      if (entry.path().extension() != ".png" || entry.file_size() < 8) continue;
      ++pictures;
      EXPECT_EQ(readFile(entry.path()).substr(0, 8), "\x89PNG\r\n\x1A\n") << entry.path();
    }
  }
  EXPECT_GT(pictures, 0u);

  // The maps hold device paths as a device writes them: "/private/var/..." in
  // the install map, "/var/..." in the harbor map.
  const auto read = [](const std::string& path) {
    return platform::readPropertyListDictionary(CVURL::fileURLWithPath(path, false), nullptr)
        .value_or(CVDictionary());
  };
  const CVDictionary installMap = read(manifest->installMapPath);
  for (const auto& container : manifest->containers) {
    const CVDictionary* entry =
        installMap.findDictionary("User")->findDictionary(container.identifier);
    ASSERT_NE(entry, nullptr) << container.identifier;
    EXPECT_EQ(*entry->findString("Container"),
              container.containerPath.substr(manifest->root.size()));
  }
  const CVDictionary harborMap = read(manifest->harborMapPath);
  const std::size_t hostPrivate = (manifest->root + "/private").size();
  for (const auto& harbor : manifest->harbors)
    EXPECT_EQ(*harborMap.findDictionary(harbor.identifier)->findString("HarborPathKey"),
              harbor.path.substr(hostPrivate));

  // No link that could lead out of the image; an image made here may be
  // replaced, and only with --force.
  for (const auto& [path, item] : firstTree)
    EXPECT_FALSE(S_ISLNK(item.mode)) << path << ": a link could lead out of the image";
  EXPECT_FALSE(samplegen::prepareImageRoot(options.root, false, nullptr));
  CVError error;
  const auto replaced = samplegen::prepareImageRoot(options.root, true, &error);
  ASSERT_TRUE(replaced) << error.description();
  EXPECT_TRUE(fs::is_empty(*replaced));
}

TEST_F(LegacyImageGeneratorTest, BadRootsAreRefusedWithoutWritingOutside) {
  const std::string outside = temporary_ / "outside";
  makeDirectories(outside);
  // A link planted in the root must not lead the generator out of it.
  const std::string root = makeRoot();
  makeSymlink(outside, root + "/private");
  GeneratorOptions options;
  options.root = root;
  options.applicationCount = 3;
  CVError error;
  EXPECT_FALSE(samplegen::generateLegacyImage(options, &error));
  EXPECT_EQ(error.code(), samplegen::kSampleGenRootNotEmptyError);
  options.root = root + "/";
  EXPECT_FALSE(samplegen::generateLegacyImage(options, &error));
  EXPECT_EQ(error.code(), samplegen::kSampleGenBadPathError);
  EXPECT_TRUE(fs::is_empty(outside));

  // Preparing a root: an absent directory is made (its parent must exist); a
  // busy one is refused, with or without replacing, unless it holds an image
  // made here; links and files are no roots.
  writeFile(temporary_ / "busy/precious.txt", "keep me");
  makeSymlink(outside, temporary_ / "link");
  writeFile(temporary_ / "file", "x");
  const struct {
    std::string path;
    bool replace;
    int code;  // a SampleGen code, or an errno with the POSIX domain
    bool posix;
  } refused[] = {
      {temporary_ / "missing/new", false, ENOENT, true},
      {temporary_ / "busy", false, samplegen::kSampleGenRootNotEmptyError, false},
      {temporary_ / "busy", true, samplegen::kSampleGenRootNotEmptyError, false},
      {temporary_ / "link", false, samplegen::kSampleGenBadPathError, false},
      {temporary_ / "file", false, ENOTDIR, true},
  };
  for (const auto& c : refused) {
    CVError failure;
    EXPECT_FALSE(samplegen::prepareImageRoot(c.path, c.replace, &failure)) << c.path;
    EXPECT_EQ(failure.code(), c.code) << c.path << ": " << failure.description();
    EXPECT_EQ(failure.isPOSIX(c.code), c.posix) << c.path;
  }
  EXPECT_TRUE(pathExists(temporary_ / "busy/precious.txt"));
  EXPECT_FALSE(pathExists(temporary_ / "missing"));
}

// mavrel-mkimage: its summary and JSON manifest, and its refusals, each with
// its exit code and a line naming the program.
TEST_F(LegacyImageGeneratorTest, TheMkImageProgramMakesSummarizesAndRefuses) {
  const std::string scratch = makeRoot("scratch");
  const auto mkimage = [&scratch](const std::vector<std::string>& arguments) {
    return runProgram(MAVREL_BINARY_DIR "/bin/mavrel-mkimage", arguments, scratch);
  };
  const std::string root = temporary_ / "image";
  const ProgramRun made = mkimage({"--root", root, "--apps", "8", "--seed", "4"});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  for (const std::string& said :
       {"Legacy device image at " + fs::canonical(root).string(), std::string("applications: 8 ")})
    EXPECT_NE(made.out.find(said), std::string::npos) << made.out;
  EXPECT_TRUE(pathExists(root + "/private/var/mobile/Library/Caches/com.zentrel.corvane.plist"));
  EXPECT_TRUE(pathExists(root + "/System/Library/CoreServices/SystemBuild.plist"));

  // The directory now holds an image: refused unless replaced.
  writeFile(temporary_ / "busy/keep.txt", "keep");
  const std::string fresh = temporary_ / "fresh";
  const std::vector<std::pair<std::vector<std::string>, int>> refused = {
      {{"--root", root, "--apps", "3"}, 2},
      {{"--apps", "3"}, 2},
      {{"--root", fresh, "--apps", "x"}, 2},
      {{"--root", fresh, "--data-scale", "-1"}, 2},
      {{"--root", fresh, "--bogus"}, 2},
      {{"--root", fresh, "--missing-executable"}, 2},
      {{"--root", fresh, "--apps", "2", "--extra-item", "com.nope"}, 2},
      {{"--root", fresh, "--apps", "2", "--missing-executable", "2"}, 2},
      // A busy directory not made by the program is never replaced.
      {{"--root", temporary_ / "busy", "--force"}, 2},
      // A parent that does not exist is not made.
      {{"--root", temporary_ / "a/b/c"}, 1},
  };
  for (const auto& [arguments, exitCode] : refused) {
    const ProgramRun result = mkimage(arguments);
    EXPECT_EQ(result.exitCode, exitCode) << arguments.back() << "\n" << result.err;
    EXPECT_NE(result.err.find("mavrel-mkimage: "), std::string::npos) << result.err;
  }
  EXPECT_NE(mkimage({"--root", root}).err.find("not empty; --force replaces"), std::string::npos);
  EXPECT_FALSE(pathExists(temporary_ / "a"));
  EXPECT_EQ(readFile(temporary_ / "busy/keep.txt"), "keep");
  const ProgramRun help = mkimage({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("Usage: mavrel-mkimage --root DIR"), std::string::npos);

  const ProgramRun json = mkimage({"--root", root, "--apps", "6", "--missing-executable", "1", "2",
                                   "--extra-item", "0", "--json", "--force"});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  const JSONValue manifest = parseJSON(json.out);
  for (const char* key : {"groupContainers", "harbors", "builtInApplications", "totals"})
    EXPECT_TRUE(manifest.has(key)) << key;
  const std::vector<JSONValue>& containers = manifest["containers"].array;
  ASSERT_GE(containers.size(), 6u);
  for (std::size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(containers[i]["missingExecutable"].boolean, i == 1 || i == 2) << i;
    EXPECT_EQ(containers[i]["extraItem"].boolean, i == 0) << i;
  }
}

}  // namespace
