// The mavrel-mkimage program: its summary, its JSON manifest, its exit codes
// and its refusals.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

class MkImageCommandTest : public ::testing::Test {
 protected:
  ProgramRun run(const std::vector<std::string>& arguments) {
    return runProgram(MAVREL_BINARY_DIR "/bin/mavrel-mkimage", arguments, scratch_.path());
  }

  TemporaryDirectory scratch_;
  TemporaryDirectory images_;
};

TEST_F(MkImageCommandTest, MakesAnImageSummarizesItAndReplacesOnlyItsOwn) {
  const std::string root = images_ / "image";
  const ProgramRun made = run({"--root", root, "--apps", "8", "--seed", "4"});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  EXPECT_NE(made.out.find("Legacy device image at " + std::filesystem::canonical(root).string()),
            std::string::npos)
      << made.out;
  EXPECT_NE(made.out.find("applications: 8 "), std::string::npos) << made.out;
  EXPECT_TRUE(pathExists(root + "/private/var/mobile/Library/Caches/com.zentrel.corvane.plist"));
  EXPECT_TRUE(pathExists(root + "/System/Library/CoreServices/SystemBuild.plist"));

  // The directory now holds an image: refused unless replaced.
  const ProgramRun again = run({"--root", root, "--apps", "3"});
  EXPECT_EQ(again.exitCode, 2);
  EXPECT_NE(again.err.find("not empty; --force replaces"), std::string::npos) << again.err;
  const ProgramRun json = run({"--root", root, "--apps", "6", "--missing-executable", "1", "2",
                               "--extra-item", "0", "--json", "--force"});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  EXPECT_EQ(json.out.front(), '{');
  EXPECT_TRUE(json.out.ends_with("}\n"));
  for (const char* key : {"\"containers\"", "\"groupContainers\"", "\"harbors\"",
                          "\"builtInApplications\"", "\"totals\""})
    EXPECT_NE(json.out.find(key), std::string::npos) << key;
  std::size_t missing = 0;
  for (std::size_t at = json.out.find("\"missingExecutable\": true"); at != std::string::npos;
       at = json.out.find("\"missingExecutable\": true", at + 1))
    ++missing;
  EXPECT_EQ(missing, 2u);
}

TEST_F(MkImageCommandTest, UsageErrorsExitWithTwo) {
  const std::string root = images_ / "image";
  writeFile(images_ / "busy/keep.txt", "keep");
  const std::vector<std::pair<std::vector<std::string>, int>> cases = {
      {{"--apps", "3"}, 2},
      {{"--root", root, "--apps", "x"}, 2},
      {{"--root", root, "--data-scale", "-1"}, 2},
      {{"--root", root, "--bogus"}, 2},
      {{"--root", root, "--missing-executable"}, 2},
      {{"--root", root, "--apps", "2", "--extra-item", "com.nope"}, 2},
      {{"--root", root, "--apps", "2", "--missing-executable", "2"}, 2},
      // A busy directory not made by the program is never replaced.
      {{"--root", images_ / "busy", "--force"}, 2},
      // A parent that does not exist is not made.
      {{"--root", images_ / "a/b/c"}, 1},
  };
  for (const auto& [arguments, exitCode] : cases) {
    const ProgramRun result = run(arguments);
    EXPECT_EQ(result.exitCode, exitCode) << arguments.back() << "\n" << result.err;
    EXPECT_NE(result.err.find("mavrel-mkimage: "), std::string::npos) << result.err;
  }
  EXPECT_FALSE(pathExists(images_ / "a"));
  EXPECT_EQ(readFile(images_ / "busy/keep.txt"), "keep");
  const ProgramRun help = run({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("Usage: mavrel-mkimage --root DIR"), std::string::npos);
}

}  // namespace
