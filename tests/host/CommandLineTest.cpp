// What the host makes of its command line (each form, and every malformed one
// with its message and short usage), of --root (resolved, and directories made
// inside it with exact modes) and of --plugin-dir.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <initializer_list>
#include <string_view>
#include <vector>

#include "host/CommandLine.h"
#include "host/PluginLoader.h"
#include "host/RootDirectory.h"
#include "tests/support/TestSupport.h"

namespace mavrel_host {
namespace {

using namespace testing_support;

ParsedCommand parse(std::initializer_list<std::string_view> words) {
  return parseCommandLine(std::vector<std::string_view>(words));
}

TEST(CommandLineTest, EachFormMeansWhatItSays) {
  using enum ParsedCommand::Kind;
  const ParsedCommand command = parse({"migrate", "--report=r.json", "--root=/images/a"});
  ASSERT_EQ(command.kind, Migrate) << command.error;
  EXPECT_EQ(command.options.root, "/images/a");
  EXPECT_EQ(command.options.reportPath, "r.json");
  EXPECT_FALSE(command.options.verify || command.options.force || command.options.quiet);
  EXPECT_FALSE(command.options.logLevel);  // no handle: levels 3 and 5 only
  for (const auto& [words, kind, root, json] : std::vector<
           std::tuple<std::vector<std::string_view>, ParsedCommand::Kind, std::string, bool>>{
           {{"plan", "--root", "/images/a", "--json"}, Plan, "/images/a", true},
           {{"plan", "--root=/images/b"}, Plan, "/images/b", false},
           {{"apps", "--root", "/images/a", "--json"}, Apps, "/images/a", true},
           {{"apps", "--root=/images/b"}, Apps, "/images/b", false}}) {
    const ParsedCommand listing = parseCommandLine(words);
    ASSERT_EQ(listing.kind, kind) << listing.error;
    EXPECT_EQ(listing.apps.root, root);
    EXPECT_EQ(listing.apps.json, json);
  }
  // Help wins over a missing --root.
  for (const auto& [words, kind] :
       std::vector<std::pair<std::vector<std::string_view>, ParsedCommand::Kind>>{
           {{"--help"}, Help},
           {{"-h"}, Help},
           {{"--version"}, Version},
           {{"-V"}, Version},
           {{"migrate", "--help"}, MigrateHelp},
           {{"migrate", "--log-level", "5", "--help"}, MigrateHelp},
           {{"plan", "--help"}, PlanHelp},
           {{"plan", "--json", "-h"}, PlanHelp},
           {{"apps", "--json", "--help"}, AppsHelp}})
    EXPECT_EQ(parseCommandLine(words).kind, kind) << words.front();
}

TEST(CommandLineTest, EachMalformedCommandLineIsRefusedWithItsOwnMessage) {
  const std::string level = "option '--log-level' needs a whole number from 0 to 7, not ";
  const std::vector<std::pair<std::vector<std::string_view>, std::string>> cases = {
      {{}, "no command given"},
      {{"convert"}, "unknown command 'convert'"},
      {{"--frobnicate"}, "unknown option '--frobnicate'"},
      {{"--version", "extra"}, "unexpected argument 'extra'"},
      {{"--help", "migrate"}, "unexpected argument 'migrate'"},
      {{"migrate"}, "option '--root' is required: the device image to migrate"},
      {{"migrate", "--root"}, "option '--root' needs a value"},
      {{"migrate", "--root="}, "option '--root' needs a non-empty value"},
      {{"migrate", "--root", "/a", "--root", "/b"}, "option '--root' given more than once"},
      {{"migrate", "--root", "/a", "--log-json", "x", "--log-json", "y"},
       "option '--log-json' given more than once"},
      {{"migrate", "--root", "/a", "--installer-log-json", "x", "--installer-log-json=y"},
       "option '--installer-log-json' given more than once"},
      {{"migrate", "--root", "/a", "--plugin-dir", "x", "--plugin-dir", "y"},
       "option '--plugin-dir' given more than once"},
      {{"migrate", "--root", "/a", "--log-level", "loud"}, level + "'loud'"},
      {{"migrate", "--root", "/a", "--log-level", "8"}, level + "'8'"},
      {{"migrate", "--root", "/a", "--log-level", "-1"}, level + "'-1'"},
      {{"migrate", "--root", "/a", "--log-level", "5x"}, level + "'5x'"},
      {{"migrate", "--root", "/a", "--log-level", "3", "--log-level", "5"},
       "option '--log-level' given more than once"},
      {{"migrate", "--root", "/a", "--verbose=yes"}, "unknown option '--verbose'"},
      {{"migrate", "--root", "/a", "-x"}, "unknown option '-x'"},
      {{"migrate", "--root", "/a", "stray"}, "unexpected argument 'stray'"},
      {{"migrate", "--root", "/a", "--dry-run"},
       "'migrate' has no option '--dry-run': run 'mavrel plan --root DIR' to see what a migration "
       "would do, changing nothing"},
      {{"migrate", "--root", "/a", "--force=yes"}, "option '--force' takes no value"},
      {{"migrate", "--root", "/a", "-q", "--quiet"}, "option '--quiet' given more than once"},
      {{"migrate", "--root", "/a", "--progress-fd", "three"},
       "option '--progress-fd' needs a file descriptor number, not 'three'"},
      {{"migrate", "--root", "a", "--verify", "--verify"},
       "option '--verify' given more than once"},
      {{"migrate", "--root", "a", "--verify=yes"}, "option '--verify' takes no value"},
      {{"migrate", "--root", "a", "--report"}, "option '--report' needs a value"},
      {{"migrate", "--root", "a", "--report", "x", "--report", "y"},
       "option '--report' given more than once"},
      {{"plan"}, "option '--root' is required: the device image to plan for"},
      {{"plan", "--root", "a", "extra"}, "unexpected argument 'extra'"},
      {{"apps"}, "option '--root' is required: the device image to list"},
      {{"apps", "--root"}, "option '--root' needs a value"},
      {{"apps", "--root="}, "option '--root' needs a non-empty value"},
      {{"apps", "--root", "/a", "--root", "/b"}, "option '--root' given more than once"},
      {{"apps", "--root", "/a", "--json", "--json"}, "option '--json' given more than once"},
      {{"apps", "--colour=yes"}, "unknown option '--colour'"},
  };
  for (const auto& [words, message] : cases) {
    const ParsedCommand command = parseCommandLine(words);
    const std::string shown = ::testing::PrintToString(words);
    EXPECT_EQ(command.kind, ParsedCommand::Kind::Error) << shown;
    EXPECT_EQ(command.error, message) << shown;
    // The short usage of the command at fault, or the general one.
    if (words.empty() || (words[0] != "plan" && words[0] != "apps")) {
      EXPECT_TRUE(command.usage.starts_with(!words.empty() && words[0] == "migrate"
                                                ? "usage: mavrel migrate --root DIR"
                                                : "usage: mavrel migrate|plan|apps"))
          << shown << command.usage;
    }
  }
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

TEST(RootDirectoryTest, ResolvesTheCanonicalDirectoryOrSaysWhyNot) {
  TemporaryDirectory directory;
  makeDirectories(directory / "image/private");
  makeSymlink(directory / "image", directory / "link");
  writeFile(directory / "file", "x");
  makeSymlink(directory / "nowhere", directory / "dangling");
  std::string reason;
  const auto expected = resolveRootDirectory(directory.path() + "/image", &reason);
  ASSERT_TRUE(expected) << reason;
  for (const char* alias : {"link", "image/private/..", "image/"})
    EXPECT_EQ(resolveRootDirectory(directory / alias, &reason), expected) << alias;

  for (const auto& [given, message] : std::vector<std::pair<std::string, std::string>>{
           {directory / "dangling", "the root '" + (directory / "dangling") + "' does not exist"},
           {directory / "file/below",
            "cannot resolve the root '" + (directory / "file/below") + "': Not a directory"}}) {
    EXPECT_FALSE(resolveRootDirectory(given, &reason)) << given;
    EXPECT_EQ(reason.substr(0, message.size()), message);
  }
}

TEST(RootDirectoryTest, MakesDirectoriesWithExactModesAndNeverLeavesTheRoot) {
  TemporaryDirectory directory;
  const mode_t previousMask = ::umask(077);  // must not narrow the modes asked for
  std::string reason;
  const UniqueFd made =
      makeDirectoryInsideRoot(directory.path(), "private/var/tmp/mavrel", 0700, &reason);
  ASSERT_TRUE(made.valid()) << reason;
  EXPECT_EQ(modeOf(directory / "private"), 0755u);
  EXPECT_EQ(modeOf(directory / "private/var/tmp"), 0755u);
  EXPECT_EQ(modeOf(directory / "private/var/tmp/mavrel"), 0700u);
  // Existing directories are used as they are, modes untouched.
  ASSERT_EQ(::chmod((directory / "private/var").c_str(), 0711), 0);
  EXPECT_TRUE(makeDirectoryInsideRoot(directory.path(), "private/var/x", 0755, &reason).valid());
  EXPECT_EQ(modeOf(directory / "private/var"), 0711u);
  ::umask(previousMask);

  // A link out of the image, or a file, where a directory should be.
  makeDirectories(directory / "outside");
  makeSymlink(directory / "outside", directory / "private/var/mobile");
  writeFile(directory / "private/var/file", "not a directory");
  for (const std::string name : {"mobile", "file"}) {
    EXPECT_FALSE(makeDirectoryInsideRoot(directory.path(), "private/var/" + name + "/Library/Logs",
                                         0755, &reason)
                     .valid());
    EXPECT_EQ(reason, "cannot use '" + (directory / "private/var/") + name +
                          "': it is not a directory inside the root");
  }
  EXPECT_FALSE(pathExists(directory / "outside/Library"));
}

TEST(PluginLoaderTest, FindsMigratorModulesInNameOrderAndRefusesTheUnusable) {
  TemporaryDirectory directory;
  for (const char* name : {"b.migrator", "a.migrator", "c.migrator.bak", ".migrator", "notes.txt"})
    writeFile(directory / name, "");
  std::string reason;
  const auto found = findPlugins(directory.path(), &reason);
  ASSERT_TRUE(found) << reason;
  EXPECT_EQ(*found, (std::vector<std::string>{directory / "a.migrator", directory / "b.migrator"}));
  // A missing directory is a failure, not an empty list.
  EXPECT_FALSE(findPlugins(directory / "absent", &reason));
  EXPECT_NE(reason.find(directory / "absent"), std::string::npos) << reason;

  writeFile(directory / "broken.migrator", "not an object file");
  // A real shared module (already loaded by this program) without the entry
  // point.
  makeSymlink(MAVREL_BINARY_DIR "/lib/libmavrel_installer.so", directory / "plain.migrator");
  const MavrelHostServices services;
  for (const auto& [module, message] : std::vector<std::pair<std::string, std::string>>{
           {directory / "broken.migrator",
            "cannot load plug-in '" + (directory / "broken.migrator") + "'"},
           {directory / "plain.migrator", "does not export MavrelCreateMigrator"}}) {
    EXPECT_FALSE(loadMigrator(module, services, &reason)) << module;
    EXPECT_NE(reason.find(message), std::string::npos) << reason;
  }
}

}  // namespace
}  // namespace mavrel_host
