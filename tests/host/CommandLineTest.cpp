// The command-line parser: what each form means, and that every malformed
// command line is refused with a message naming the option or word at fault.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string_view>
#include <vector>

#include "host/CommandLine.h"

namespace mavrel_host {
namespace {

ParsedCommand parse(std::initializer_list<std::string_view> words) {
  const std::vector<std::string_view> arguments(words);
  return parseCommandLine(arguments);
}

TEST(CommandLineTest, MigrateWithEveryOption) {
  const ParsedCommand command =
      parse({"migrate", "--root", "/images/a", "--log-json", "m.json", "--installer-log-json",
             "i.json", "--log-level", "7", "--plugin-dir", "/opt/plugins"});
  ASSERT_EQ(command.kind, ParsedCommand::Kind::Migrate) << command.error;
  EXPECT_EQ(command.options.root, "/images/a");
  EXPECT_EQ(command.options.migrationLogJSON, "m.json");
  EXPECT_EQ(command.options.installerLogJSON, "i.json");
  EXPECT_EQ(command.options.logLevel, 7);
  EXPECT_EQ(command.options.pluginDirectory, "/opt/plugins");
}

TEST(CommandLineTest, MigrateWithRootOnlyLeavesTheRestUnset) {
  const ParsedCommand command = parse({"migrate", "--root=/images/a"});
  ASSERT_EQ(command.kind, ParsedCommand::Kind::Migrate) << command.error;
  EXPECT_EQ(command.options.root, "/images/a");
  EXPECT_FALSE(command.options.migrationLogJSON);
  EXPECT_FALSE(command.options.installerLogJSON);
  EXPECT_FALSE(command.options.logLevel);  // no handle: levels 3 and 5 only
  EXPECT_FALSE(command.options.pluginDirectory);
}

TEST(CommandLineTest, HelpAndVersionForms) {
  EXPECT_EQ(parse({"--help"}).kind, ParsedCommand::Kind::Help);
  EXPECT_EQ(parse({"-h"}).kind, ParsedCommand::Kind::Help);
  EXPECT_EQ(parse({"--version"}).kind, ParsedCommand::Kind::Version);
  EXPECT_EQ(parse({"-V"}).kind, ParsedCommand::Kind::Version);
  const ParsedCommand quiet =
      parse({"migrate", "--root", "/a", "--force", "-q", "--progress-fd=3"});
  ASSERT_EQ(quiet.kind, ParsedCommand::Kind::Migrate) << quiet.error;
  EXPECT_TRUE(quiet.options.force);
  EXPECT_TRUE(quiet.options.quiet);
  EXPECT_EQ(quiet.options.progressFD, 3);
  EXPECT_EQ(parse({"migrate", "--help"}).kind, ParsedCommand::Kind::MigrateHelp);
  // Help wins over a missing --root.
  EXPECT_EQ(parse({"migrate", "--log-level", "5", "--help"}).kind,
            ParsedCommand::Kind::MigrateHelp);
  EXPECT_NE(versionText().find("mavrel "), std::string::npos);
  EXPECT_NE(migrateUsageText().find("--root DIR"), std::string::npos);
}

struct RefusedCase {
  std::vector<std::string_view> words;
  std::string_view message;
};

TEST(CommandLineTest, EachMalformedCommandLineIsRefusedWithItsOwnMessage) {
  const std::vector<RefusedCase> cases = {
      {{}, "no command given"},
      {{"convert"}, "unknown command 'convert'"},
      {{"--frobnicate"}, "unknown option '--frobnicate'"},
      {{"--version", "extra"}, "unexpected argument 'extra'"},
      {{"--help", "migrate"}, "unexpected argument 'migrate'"},
      {{"migrate"}, "option '--root' is required: the device image to migrate"},
      {{"migrate", "--log-level", "5"}, "option '--root' is required: the device image to migrate"},
      {{"migrate", "--root"}, "option '--root' needs a value"},
      {{"migrate", "--root="}, "option '--root' needs a non-empty value"},
      {{"migrate", "--root", "/a", "--root", "/b"}, "option '--root' given more than once"},
      {{"migrate", "--root", "/a", "--log-json"}, "option '--log-json' needs a value"},
      {{"migrate", "--root", "/a", "--log-json", "x", "--log-json", "y"},
       "option '--log-json' given more than once"},
      {{"migrate", "--root", "/a", "--installer-log-json"},
       "option '--installer-log-json' needs a value"},
      {{"migrate", "--root", "/a", "--installer-log-json", "x", "--installer-log-json=y"},
       "option '--installer-log-json' given more than once"},
      {{"migrate", "--root", "/a", "--plugin-dir"}, "option '--plugin-dir' needs a value"},
      {{"migrate", "--root", "/a", "--plugin-dir", "x", "--plugin-dir", "y"},
       "option '--plugin-dir' given more than once"},
      {{"migrate", "--root", "/a", "--log-level"}, "option '--log-level' needs a value"},
      {{"migrate", "--root", "/a", "--log-level", "loud"},
       "option '--log-level' needs a whole number from 0 to 7, not 'loud'"},
      {{"migrate", "--root", "/a", "--log-level", "8"},
       "option '--log-level' needs a whole number from 0 to 7, not '8'"},
      {{"migrate", "--root", "/a", "--log-level", "-1"},
       "option '--log-level' needs a whole number from 0 to 7, not '-1'"},
      {{"migrate", "--root", "/a", "--log-level", "5x"},
       "option '--log-level' needs a whole number from 0 to 7, not '5x'"},
      {{"migrate", "--root", "/a", "--log-level", "3", "--log-level", "5"},
       "option '--log-level' given more than once"},
      {{"migrate", "--root", "/a", "--verbose"}, "unknown option '--verbose'"},
      {{"migrate", "--root", "/a", "--verbose=yes"}, "unknown option '--verbose'"},
      {{"migrate", "--root", "/a", "-x"}, "unknown option '-x'"},
      {{"migrate", "--root", "/a", "stray"}, "unexpected argument 'stray'"},
      {{"migrate", "--root", "/a", "--dry-run"},
       "'migrate' has no option '--dry-run': run 'mavrel plan --root DIR' to see what a "
       "migration would do, changing nothing"},
      {{"migrate", "--root", "/a", "--force=yes"}, "option '--force' takes no value"},
      {{"migrate", "--root", "/a", "-q", "--quiet"}, "option '--quiet' given more than once"},
      {{"migrate", "--root", "/a", "--progress-fd", "three"},
       "option '--progress-fd' needs a file descriptor number, not 'three'"},
      {{"-V", "x"}, "unexpected argument 'x'"},
  };
  for (const RefusedCase& refused : cases) {
    const ParsedCommand command = parseCommandLine(refused.words);
    std::string shown;
    for (std::string_view word : refused.words)
      shown += std::string(word) + " ";
    EXPECT_EQ(command.kind, ParsedCommand::Kind::Error) << shown;
    EXPECT_EQ(command.error, refused.message) << shown;
    // The short usage of the command at fault, or the general one.
    const std::string_view usage = !refused.words.empty() && refused.words[0] == "migrate"
                                       ? "usage: mavrel migrate --root DIR"
                                       : "usage: mavrel migrate|plan|apps";
    EXPECT_TRUE(command.usage.starts_with(usage)) << shown << command.usage;
  }
}

}  // namespace
}  // namespace mavrel_host
