// The command line of `plan`, `migrate --verify` and `migrate --report`, and
// the help texts that describe every option.
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

TEST(CommandLinePlanAndReportTest, PlanForms) {
  ParsedCommand command = parse({"plan", "--root", "/images/a", "--json"});
  ASSERT_EQ(command.kind, ParsedCommand::Kind::Plan) << command.error;
  EXPECT_EQ(command.apps.root, "/images/a");
  EXPECT_TRUE(command.apps.json);
  command = parse({"plan", "--root=/images/b"});
  ASSERT_EQ(command.kind, ParsedCommand::Kind::Plan) << command.error;
  EXPECT_FALSE(command.apps.json);
  EXPECT_EQ(parse({"plan", "--help"}).kind, ParsedCommand::Kind::PlanHelp);
  EXPECT_EQ(parse({"plan", "--json", "-h"}).kind, ParsedCommand::Kind::PlanHelp);
}

TEST(CommandLinePlanAndReportTest, VerifyAndReport) {
  ParsedCommand command =
      parse({"migrate", "--root", "/images/a", "--verify", "--report", "out/report.json"});
  ASSERT_EQ(command.kind, ParsedCommand::Kind::Migrate) << command.error;
  EXPECT_TRUE(command.options.verify);
  EXPECT_EQ(command.options.reportPath, "out/report.json");
  command = parse({"migrate", "--report=r.json", "--root=/images/a"});
  ASSERT_EQ(command.kind, ParsedCommand::Kind::Migrate) << command.error;
  EXPECT_FALSE(command.options.verify);
  EXPECT_EQ(command.options.reportPath, "r.json");
}

TEST(CommandLinePlanAndReportTest, MalformedFormsNameTheOptionAtFault) {
  const std::vector<std::pair<std::vector<std::string_view>, std::string_view>> cases = {
      {{"plan"}, "option '--root' is required: the device image to plan for"},
      {{"plan", "--root", "a", "--verify"}, "unknown option '--verify'"},
      {{"plan", "--root", "a", "extra"}, "unexpected argument 'extra'"},
      {{"plan", "--root", "a", "--root", "b"}, "option '--root' given more than once"},
      {{"migrate", "--root", "a", "--verify", "--verify"},
       "option '--verify' given more than once"},
      {{"migrate", "--root", "a", "--verify=yes"}, "option '--verify' takes no value"},
      {{"migrate", "--root", "a", "--report"}, "option '--report' needs a value"},
      {{"migrate", "--root", "a", "--report="}, "option '--report' needs a non-empty value"},
      {{"migrate", "--root", "a", "--report", "x", "--report", "y"},
       "option '--report' given more than once"},
  };
  for (const auto& [words, message] : cases) {
    const ParsedCommand command = parseCommandLine(words);
    EXPECT_EQ(command.kind, ParsedCommand::Kind::Error) << message;
    EXPECT_EQ(command.error, message);
  }
}

TEST(CommandLinePlanAndReportTest, HelpDescribesEveryOption) {
  for (const char* option :
       {"--root DIR", "--log-json FILE", "--installer-log-json FILE", "--log-level N",
        "--plugin-dir DIR", "--verify", "--report FILE", "--help"}) {
    EXPECT_NE(migrateUsageText().find(option), std::string_view::npos) << option;
  }
  EXPECT_NE(migrateUsageText().find("3 when --verify"), std::string_view::npos);
  for (const char* option : {"--root DIR", "--json", "--help"})
    EXPECT_NE(planUsageText().find(option), std::string_view::npos) << option;
  for (const char* text : {"mavrel plan --root DIR", "plan ", "mavrel COMMAND --help", "--version"})
    EXPECT_NE(generalUsageText().find(text), std::string_view::npos) << text;
}

}  // namespace
}  // namespace mavrel_host
