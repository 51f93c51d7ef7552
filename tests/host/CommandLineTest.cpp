// The command-line parser of mavrel: what each form means, and one table of
// every malformed command line with the message that names the word at fault
// and the short usage shown with it.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string_view>
#include <vector>

#include "host/CommandLine.h"

namespace mavrel_host {
namespace {

ParsedCommand parse(std::initializer_list<std::string_view> words) {
  return parseCommandLine(std::vector<std::string_view>(words));
}

TEST(CommandLineTest, EachFormMeansWhatItSays) {
  const ParsedCommand command = parse({"migrate", "--report=r.json", "--root=/images/a"});
  ASSERT_EQ(command.kind, ParsedCommand::Kind::Migrate) << command.error;
  EXPECT_EQ(command.options.root, "/images/a");
  EXPECT_EQ(command.options.reportPath, "r.json");
  EXPECT_FALSE(command.options.verify || command.options.force || command.options.quiet);
  EXPECT_FALSE(command.options.logLevel);  // no handle: levels 3 and 5 only
  for (const auto& [words, kind, root, json] : std::vector<
           std::tuple<std::vector<std::string_view>, ParsedCommand::Kind, std::string, bool>>{
           {{"plan", "--root", "/images/a", "--json"},
            ParsedCommand::Kind::Plan,
            "/images/a",
            true},
           {{"plan", "--root=/images/b"}, ParsedCommand::Kind::Plan, "/images/b", false},
           {{"apps", "--root", "/images/a", "--json"},
            ParsedCommand::Kind::Apps,
            "/images/a",
            true},
           {{"apps", "--root=/images/b"}, ParsedCommand::Kind::Apps, "/images/b", false}}) {
    const ParsedCommand listing = parseCommandLine(words);
    ASSERT_EQ(listing.kind, kind) << listing.error;
    EXPECT_EQ(listing.apps.root, root);
    EXPECT_EQ(listing.apps.json, json);
  }
  // Help wins over a missing --root.
  for (const auto& [words, kind] :
       std::vector<std::pair<std::vector<std::string_view>, ParsedCommand::Kind>>{
           {{"--help"}, ParsedCommand::Kind::Help},
           {{"-h"}, ParsedCommand::Kind::Help},
           {{"--version"}, ParsedCommand::Kind::Version},
           {{"-V"}, ParsedCommand::Kind::Version},
           {{"migrate", "--help"}, ParsedCommand::Kind::MigrateHelp},
           {{"migrate", "--log-level", "5", "--help"}, ParsedCommand::Kind::MigrateHelp},
           {{"plan", "--help"}, ParsedCommand::Kind::PlanHelp},
           {{"plan", "--json", "-h"}, ParsedCommand::Kind::PlanHelp},
           {{"apps", "--json", "--help"}, ParsedCommand::Kind::AppsHelp}})
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
      {{"-V", "x"}, "unexpected argument 'x'"},
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
      {{"migrate", "--root", "/a", "--log-level", "loud"}, level + "'loud'"},
      {{"migrate", "--root", "/a", "--log-level", "8"}, level + "'8'"},
      {{"migrate", "--root", "/a", "--log-level", "-1"}, level + "'-1'"},
      {{"migrate", "--root", "/a", "--log-level", "5x"}, level + "'5x'"},
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
      {{"migrate", "--root", "a", "--verify", "--verify"},
       "option '--verify' given more than once"},
      {{"migrate", "--root", "a", "--verify=yes"}, "option '--verify' takes no value"},
      {{"migrate", "--root", "a", "--report"}, "option '--report' needs a value"},
      {{"migrate", "--root", "a", "--report="}, "option '--report' needs a non-empty value"},
      {{"migrate", "--root", "a", "--report", "x", "--report", "y"},
       "option '--report' given more than once"},
      {{"plan"}, "option '--root' is required: the device image to plan for"},
      {{"plan", "--root", "a", "--verify"}, "unknown option '--verify'"},
      {{"plan", "--root", "a", "extra"}, "unexpected argument 'extra'"},
      {{"plan", "--root", "a", "--root", "b"}, "option '--root' given more than once"},
      {{"apps"}, "option '--root' is required: the device image to list"},
      {{"apps", "--root"}, "option '--root' needs a value"},
      {{"apps", "--root="}, "option '--root' needs a non-empty value"},
      {{"apps", "--root", "/a", "--root", "/b"}, "option '--root' given more than once"},
      {{"apps", "--root", "/a", "--json", "--json"}, "option '--json' given more than once"},
      {{"apps", "--root", "/a", "extra"}, "unexpected argument 'extra'"},
      {{"apps", "--colour=yes"}, "unknown option '--colour'"},
  };
  for (const auto& [words, message] : cases) {
    const ParsedCommand command = parseCommandLine(words);
    std::string shown;
    for (std::string_view word : words)
      shown += std::string(word) + " ";
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

}  // namespace
}  // namespace mavrel_host
