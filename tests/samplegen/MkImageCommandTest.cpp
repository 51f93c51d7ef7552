// The mavrel-mkimage program: its summary, its JSON manifest, its exit codes
// and its refusals.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

class MkImageCommandTest : public ::testing::Test {
 protected:
  ProgramRun run(const std::vector<std::string>& arguments) {
    return testing_support::runProgram(MAVREL_BINARY_DIR "/bin/mavrel-mkimage", arguments,
                                       scratch_.path());
  }

  testing_support::TemporaryDirectory scratch_;
  testing_support::TemporaryDirectory images_;
};

TEST_F(MkImageCommandTest, MakesAnImageAndSummarizesIt) {
  const std::string root = images_ / "image";
  const ProgramRun made = run({"--root", root, "--apps", "8", "--seed", "4"});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  EXPECT_NE(made.out.find("Legacy device image at " + fs::canonical(root).string()),
            std::string::npos)
      << made.out;
  EXPECT_NE(made.out.find("applications: 8 "), std::string::npos) << made.out;
  EXPECT_NE(made.out.find("files: "), std::string::npos);
  EXPECT_NE(made.out.find("bytes: "), std::string::npos);
  EXPECT_TRUE(pathExists(root + "/private/var/mobile/Library/Caches/com.zentrel.corvane.plist"));
  EXPECT_TRUE(pathExists(root + "/private/var/mobile/Applications/WhereDidMyApplicationsGo.txt"));
  EXPECT_TRUE(pathExists(root + "/System/Library/CoreServices/SystemBuild.plist"));

  // The directory now holds an image: refused unless replaced.
  const ProgramRun again = run({"--root", root, "--apps", "3"});
  EXPECT_EQ(again.exitCode, 2);
  EXPECT_NE(again.err.find("not empty; --force replaces"), std::string::npos) << again.err;
  const ProgramRun replaced = run({"--root", root, "--apps", "3", "--force"});
  EXPECT_EQ(replaced.exitCode, 0) << replaced.err;
  EXPECT_NE(replaced.out.find("applications: 3 "), std::string::npos) << replaced.out;
}

TEST_F(MkImageCommandTest, PrintsAManifestAsJSON) {
  const std::string root = images_ / "image";
  const ProgramRun made = run({"--root", root, "--apps", "6", "--missing-executable", "1", "2",
                               "--extra-item", "0", "--json"});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  const std::string& json = made.out;
  ASSERT_FALSE(json.empty());
  EXPECT_EQ(json.front(), '{');
  EXPECT_EQ(json.substr(json.size() - 2), "}\n");
  for (const char* key :
       {"\"containers\"", "\"containerPath\"", "\"groups\"", "\"dataFiles\"", "\"dataBytes\"",
        "\"groupContainers\"", "\"harbors\"", "\"builtInApplications\"", "\"totals\""}) {
    EXPECT_NE(json.find(key), std::string::npos) << key;
  }
  std::size_t missing = 0;
  for (std::size_t at = json.find("\"missingExecutable\": true"); at != std::string::npos;
       at = json.find("\"missingExecutable\": true", at + 1)) {
    ++missing;
  }
  EXPECT_EQ(missing, 2u);
  EXPECT_EQ(json.find("Legacy device image at"), std::string::npos);
}

TEST_F(MkImageCommandTest, UsageErrorsExitWithTwo) {
  const std::string root = images_ / "image";
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--apps", "3"},
        std::vector<std::string>{"--root", root, "--apps", "x"},
        std::vector<std::string>{"--root", root, "--data-scale", "-1"},
        std::vector<std::string>{"--root", root, "--bogus"},
        std::vector<std::string>{"--root", root, "--missing-executable"},
        std::vector<std::string>{"--root", root, "--apps", "2", "--extra-item", "com.nope"}}) {
    const ProgramRun result = run(arguments);
    EXPECT_EQ(result.exitCode, 2) << arguments.back() << "\n" << result.err;
    EXPECT_NE(result.err.find("mavrel-mkimage: "), std::string::npos);
  }
  // A parent that does not exist is not made.
  const ProgramRun deep = run({"--root", images_ / "a/b/c"});
  EXPECT_EQ(deep.exitCode, 1) << deep.err;
  EXPECT_FALSE(pathExists(images_ / "a"));
  // A busy directory that was not made by the program is never replaced.
  writeFile(images_ / "busy/keep.txt", "keep");
  EXPECT_EQ(run({"--root", images_ / "busy", "--force"}).exitCode, 2);
  EXPECT_EQ(readFile(images_ / "busy/keep.txt"), "keep");

  const ProgramRun help = run({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("Usage: mavrel-mkimage --root DIR"), std::string::npos);
}

}  // namespace
