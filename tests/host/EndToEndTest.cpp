// The mavrel program run as a user runs it, on device images beside a canary
// that no run may touch: exit codes, what it writes inside the image (logs,
// version record, removed legacy items), what it prints, and the report.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>

#include "host/UniqueFd.h"
#include "platform/PropertyList.h"
#include "tests/support/JSON.h"
#include "tests/support/LegacyImage.h"

namespace {

using namespace testing_support;

constexpr const char* kBuild = "23A344";

std::string plist(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body +
         "\n</plist>\n";
}

std::vector<std::string> filesIn(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// Whether `text` matches `shape`, where '9' in the shape stands for any digit
// and every other character for itself.
bool hasShape(std::string_view text, std::string_view shape) {
  if (text.size() != shape.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (shape[i] == '9' ? !digit : text[i] != shape[i]) return false;
  }
  return true;
}

// "2026-11-21 08:32:00.123 <5> MavrelHost AppMigrator.cpp:123 <function>: CVAppMigrator: ..."
bool isMigrationTextLine(std::string_view line) {
  constexpr std::string_view kStamp = "9999-99-99 99:99:99.999 <9> MavrelHost ";
  if (line.size() < kStamp.size() || !hasShape(line.substr(0, kStamp.size()), kStamp)) return false;
  const std::string_view rest = line.substr(kStamp.size());
  const std::size_t place = rest.find(".cpp:");
  const std::size_t function = rest.find(' ');
  return place != std::string_view::npos && function > place &&
         rest.find(": CVAppMigrator: ", function) != std::string_view::npos;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

class EndToEndTest : public ::testing::Test {
 protected:
  std::string home(const std::string& relative = "") const { return image_.home(relative); }
  ProgramRun migrate(const std::vector<std::string>& extra = {}) { return image_.migrate(extra); }
  ProgramRun mavrel(const std::vector<std::string>& arguments) { return image_.mavrel(arguments); }
  std::string onlyLog(const std::string& subdirectory, const std::string& prefix) {
    const std::string directory = home("Library/Logs/" + subdirectory);
    const std::vector<std::string> names = filesIn(directory);
    EXPECT_EQ(names.size(), 1u) << directory;
    if (names.empty()) return {};
    EXPECT_TRUE(hasShape(names[0], prefix + "-9999-99-99-999999.log")) << names[0];
    return directory + "/" + names[0];
  }
  // An application whose bundle lacks its executable: its entry fails.
  void writeBrokenApplication(const std::string& container) {
    image_.writeApplication(home("Applications/" + container + "/Example.app"), "com.example.app",
                            {}, false);
  }

  LegacyImage image_;
  const std::string root_ = image_.rootPath();
};

TEST_F(EndToEndTest, WithoutLegacyTreeRecordsTheSystemVersionAndWritesBothLogs) {
  const ProgramRun run = migrate();
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;

  const auto recorded = platform::readPropertyListDictionary(
      CVURL::fileURLWithPath(home() + "/Library/Corvane/AppMigratorLastSystemVersion.plist", false),
      nullptr);
  const auto expected = platform::readPropertyListDictionary(
      CVURL::fileURLWithPath(root_ + "/System/Library/CoreServices/SystemBuild.plist", false),
      nullptr);
  ASSERT_TRUE(recorded);
  ASSERT_TRUE(expected);
  EXPECT_EQ(*recorded, *expected);

  const std::string migrationLog = onlyLog("Mavrel", "Mavrel");
  onlyLog("Corvane", "Corvane");
  const std::vector<std::string> textLines = linesOf(readFile(migrationLog));
  ASSERT_FALSE(textLines.empty());
  for (const std::string& line : textLines)
    EXPECT_TRUE(isMigrationTextLine(line)) << line;

  const std::string recordedMessage =
      std::string(R"("message":"CVAppMigrator: Recorded current system version as )") + kBuild +
      "\"}";
  bool found = false;
  for (const std::string& line : linesOf(image_.migrationLog())) {
    EXPECT_EQ(line.front(), '{') << line;
    EXPECT_EQ(line.back(), '}') << line;
    EXPECT_NE(line.find(R"("category":"MavrelHost")"), std::string::npos) << line;
    if (line.ends_with(recordedMessage)) {
      found = true;
      EXPECT_NE(line.find(R"("level":5,)"), std::string::npos) << line;
    }
  }
  EXPECT_TRUE(found) << image_.migrationLog();

  EXPECT_NE(run.err.find("Migrating device image at " + root_), std::string::npos) << run.err;
  EXPECT_NE(run.err.find(": succeeded in "), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("failed"), std::string::npos) << run.err;
  // Log directories and the staging directory are made with fixed modes.
  struct stat status {};
  ASSERT_EQ(::stat((home() + "/Library/Logs/Mavrel").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  ASSERT_EQ(::stat((root_ + "/private/var/tmp/mavrel").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
}

TEST_F(EndToEndTest, AFailedPassExitsOneAndSaysSo) {
  // A safe harbor outside the image: the installer refuses it, so the pass
  // fails, keeps the harbor map and records no version. A bundle without its
  // executable fails too; its progress line comes all the same.
  makeDirectories(home() + "/Library/Corvane");
  const std::string harborMap = home() + "/Library/Corvane/SafeHarbor.plist";
  writeFile(harborMap, plist("<dict><key>com.example.gone</key><dict><key>HarborPathKey</key>"
                             "<string>" +
                             image_.canary() + "/Documents</string></dict></dict>"));
  writeBrokenApplication("0A1B2C3D");

  const ProgramRun run = migrate({"--log-level", "3", "--verify"});
  EXPECT_EQ(run.exitCode, 1) << run.err << run.err;
  EXPECT_NE(run.err.find("The migration failed, but no user data was lost"), std::string::npos)
      << run.err;
  EXPECT_TRUE(pathExists(harborMap));
  EXPECT_FALSE(pathExists(home() + "/Library/Corvane/AppMigratorLastSystemVersion.plist"));
  EXPECT_NE(run.err.find("\n[1/1] com.example.app\n"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find('\r'), std::string::npos) << "no live redraw without a terminal";

  const std::string migrationLog = onlyLog("Mavrel", "Mavrel");
  EXPECT_NE(run.err.find(": failed (see " + migrationLog + ")"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("succeeded"), std::string::npos) << run.err;

  // --log-level 3 keeps notices out of the files, failures in.
  const std::string text = readFile(migrationLog);
  EXPECT_EQ(text.find(" <5> "), std::string::npos) << text;
  EXPECT_NE(text.find(" <3> "), std::string::npos) << text;
  const std::string installerJSONText = image_.installerLog();
  EXPECT_NE(installerJSONText.find(R"("level":3,)"), std::string::npos) << installerJSONText;
  EXPECT_NE(installerJSONText.find("Refusing safe harbor for com.example.gone at " +
                                   image_.canary() + "/Documents"),
            std::string::npos)
      << installerJSONText;
}

TEST_F(EndToEndTest, HelpAndVersionGoToStandardOutput) {
  for (const auto& [arguments, shown] :
       std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"--help"}, "usage: mavrel migrate --root DIR"},
           {{"migrate", "--help"}, "--installer-log-json FILE"},
           {{"apps", "--help"}, "usage: mavrel apps --root DIR [--json]"},
           {{"--version"}, "mavrel "}}) {
    const ProgramRun run = mavrel(arguments);
    EXPECT_EQ(run.exitCode, 0) << arguments.front();
    EXPECT_NE(run.out.find(shown), std::string::npos) << run.out;
  }
}

TEST_F(EndToEndTest, ALinkOutOfTheImageStopsTheRunBeforeAnythingIsWritten) {
  makeDirectories(home() + "/Library");
  makeSymlink(image_.canary(), home() + "/Library/Logs");
  const ProgramRun run = migrate();
  EXPECT_EQ(run.exitCode, 2) << run.out << run.err;
  EXPECT_NE(run.err.find(home() + "/Library/Logs"), std::string::npos) << run.err;
  EXPECT_FALSE(pathExists(image_.canary() + "/Mavrel"));
}

TEST_F(EndToEndTest, AMigratorThatCannotSetUpStopsTheRun) {
  // A regular file where the legacy directory should be cannot be listed, so
  // the migrator's set-up fails and no pass runs.
  writeFile(home() + "/Applications", "not a directory");
  const ProgramRun run = migrate();
  EXPECT_EQ(run.exitCode, 2) << run.out << run.err;
  EXPECT_NE(run.err.find("AppMigrator.migrator' failed to set up its migrator"), std::string::npos)
      << run.err;
  EXPECT_EQ(run.err.find("succeeded"), std::string::npos) << run.err;
  EXPECT_FALSE(pathExists(home() + "/Library/Corvane/AppMigratorLastSystemVersion.plist"));
}

TEST_F(EndToEndTest, EveryRefusedCommandExitsTwoBeforeAnythingIsWritten) {
  const std::string outside = image_.outside("outside");
  makeDirectories(outside + "/a-directory");
  writeFile(outside + "/target.json", "keep");
  writeFile(outside + "/plain-file", "not an image");
  makeSymlink(outside + "/target.json", outside + "/link.json");
  makeDirectories(home() + "/Library/Corvane");
  writeFile(home() + "/Library/Corvane/ApplicationRegistry.lock", "");
  const std::vector<std::string> base = {"migrate", "--root", root_};
  const auto with = [&base](std::vector<std::string> more) {
    more.insert(more.begin(), base.begin(), base.end());
    return more;
  };
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"migrate"}, "option '--root' is required"},
      {{"migrate", "--root", outside + "/plain-file"},
       "option '--root': the root '" + outside + "/plain-file' is not a directory"},
      {{"migrate", "--root", outside + "/absent"}, "does not exist"},
      {{"apps", "--root", outside + "/absent"}, "does not exist"},
      {with({"--colour"}), "unknown option '--colour'"},
      {with({"--log-json", outside + "/missing/m.json"}),
       "option '--log-json': the directory of '" + outside + "/missing/m.json' does not exist"},
      {with({"--installer-log-json", outside + "/link.json"}),
       "option '--installer-log-json': '" + outside + "/link.json' is a symbolic link"},
      {with({"--report", outside + "/link.json"}),
       "option '--report': '" + outside + "/link.json' is a symbolic link"},
      {with({"--report", outside + "/a-directory"}),
       "option '--report': '" + outside + "/a-directory' is a directory"},
      {with({"--report", outside + "/no/such/report.json"}),
       "option '--report': the directory of '" + outside + "/no/such/report.json' does not exist"},
      {with({"--log-json", "/dev/null"}), "option '--log-json': '/dev/null' is a device"},
      {with({"--plugin-dir", outside + "/nowhere"}), "option '--plugin-dir': "},
      {with({"--plugin-dir", outside + "/a-directory"}), "no plug-ins (*.migrator) found"},
      {with({"--progress-fd", "97"}),
       "option '--progress-fd': descriptor 97 is not open for writing"},
  };
  const auto before = describeTree(root_);
  for (const auto& [arguments, message] : cases) {
    const ProgramRun run = mavrel(arguments);
    EXPECT_EQ(run.exitCode, 2) << message << "\n" << run.err;
    EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    EXPECT_EQ(describeTree(root_), before) << message;
  }
  EXPECT_NE(mavrel({"migrate"}).err.find("usage: mavrel migrate --root DIR"), std::string::npos);
  EXPECT_FALSE(pathExists(outside + "/absent"));
  EXPECT_EQ(readFile(outside + "/target.json"), "keep");
  struct stat status {};
  ASSERT_EQ(::lstat((outside + "/link.json").c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode)) << "an output link must never be replaced";

  // A registry held by another installer: refused without creating or
  // changing anything, and the report says why instead of "succeeded".
  const mavrel_host::UniqueFd lock(
      ::open((home() + "/Library/Corvane/ApplicationRegistry.lock").c_str(), O_RDONLY));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), 0);
  const std::string report = outside + "/report.json";
  const ProgramRun run = mavrel({"migrate", "--root", root_, "--report", report});
  EXPECT_EQ(run.exitCode, 2) << run.err;
  EXPECT_NE(run.err.find("is in use by another installer"), std::string::npos) << run.err;
  EXPECT_EQ(describeTree(root_), before);
  const JSONValue document = parseJSON(readFile(report));
  EXPECT_FALSE(document["succeeded"].boolean);
  EXPECT_EQ(document["exitCode"].count(), 2u);
  EXPECT_NE(document["error"].string.find("is in use by another installer"), std::string::npos);
}

TEST_F(EndToEndTest, ADirectoryHoldingNoDeviceImageIsRefusedUnlessForced) {
  const std::string empty = image_.outside("typo-dir");
  makeDirectories(empty);
  for (const std::string command : {"migrate", "plan"}) {
    const ProgramRun run = mavrel({command, "--root", empty});
    EXPECT_EQ(run.exitCode, 2) << command << run.out << run.err;
    EXPECT_NE(run.err.find("holds no device image: it has no private/var/mobile"),
              std::string::npos)
        << run.err;
    EXPECT_TRUE(filesIn(empty).empty()) << command << " wrote into " << empty;
  }
  const ProgramRun refused = mavrel({"migrate", "--root", empty});
  EXPECT_NE(refused.err.find("--force"), std::string::npos) << refused.err;
  const ProgramRun forced = mavrel({"migrate", "--root", empty, "--force"});
  EXPECT_EQ(forced.exitCode, 0) << forced.err;
  EXPECT_TRUE(pathExists(empty + "/private/var/mobile/Library/Logs/Mavrel"));
}

TEST_F(EndToEndTest, ReportAndProgressGoThroughStandardOutputAndSayTheTruth) {
  // No file named "-" is made, /dev/stdout stays a link, and standard output
  // carries only JSON: the progress events, then the report.
  for (const std::string name : {"-", "/dev/stdout"}) {
    const ProgramRun run =
        mavrel({"migrate", "--root", root_, "--report", name, "--progress-fd", "1", "--quiet"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_FALSE(pathExists(image_.outside("scratch/-")));
    struct stat status {};
    ASSERT_EQ(::lstat("/dev/stdout", &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    const std::vector<std::string> lines = linesOf(run.out);
    ASSERT_GE(lines.size(), 3u) << run.out;
    const JSONValue start = parseJSON(lines.front());
    EXPECT_EQ(start["event"].string, "start");
    EXPECT_EQ(start["schemaVersion"].count(), 1u);
    EXPECT_EQ(parseJSON(lines.back())["event"].string, "end");
    const JSONValue report = parseJSON(lines[lines.size() - 2]);
    EXPECT_EQ(report["schemaVersion"].count(), 2u);
    EXPECT_FALSE(report["toolVersion"].string.empty());
    EXPECT_TRUE(report["succeeded"].boolean);
    EXPECT_TRUE(report["error"].isNull());
    EXPECT_TRUE(hasShape(report["startedAt"].string.substr(0, 19), "9999-99-99T99:99:99"))
        << report["startedAt"].string;
    // --quiet: the final line alone.
    EXPECT_EQ(run.err.find("Migrating device image"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("Nothing to migrate: " + root_), std::string::npos) << run.err;
  }
}

struct InterruptionCase {
  std::string signals;
  int exitCode;
  std::string name;
  std::string where;
};

TEST_F(EndToEndTest, AnInterruptedRunSaysSoWritesItsReportAndResumes) {
  const std::string plugins = image_.outside("plugins");
  makeDirectories(plugins);
  std::filesystem::copy_file(MAVREL_BINARY_DIR "/plugins/AppMigrator.migrator",
                             plugins + "/AppMigrator.migrator");
  std::filesystem::copy_file(MAVREL_BINARY_DIR "/test-plugins/DamagingMigrator.migrator",
                             plugins + "/ZZDamagingMigrator.migrator");
  const std::string report = image_.outside("scratch/report.json");
  for (const InterruptionCase& interruption :
       {InterruptionCase{"TERM", 143, "SIGTERM", "(between two entries)"},
        InterruptionCase{"INT,INT", 130, "SIGINT", "(in the middle of an entry)"}}) {
    writeBrokenApplication(interruption.name);
    ::setenv("MAVREL_TEST_SIGNAL", interruption.signals.c_str(), 1);
    const ProgramRun run =
        mavrel({"migrate", "--root", root_, "--plugin-dir", plugins, "--report", report});
    ::unsetenv("MAVREL_TEST_SIGNAL");
    EXPECT_EQ(run.exitCode, interruption.exitCode) << run.out << run.err;
    for (const std::string& said :
         {"interrupted by " + interruption.name + " during the pass of DamagingMigrator",
          interruption.where, std::string("run the same command again to resume")})
      EXPECT_NE(run.err.find(said), std::string::npos) << run.err;
    const JSONValue document = parseJSON(readFile(report));
    EXPECT_FALSE(document["succeeded"].boolean);
    EXPECT_EQ(document["exitCode"].count(), static_cast<std::uint64_t>(interruption.exitCode));
    EXPECT_EQ(document["interrupted"].string, interruption.name);
    // The finished pass of the real migrator is in the report.
    ASSERT_EQ(document["migrators"].array.size(), 1u);
    EXPECT_EQ(document["entries"].array.size(), 1u);
  }
  // The interrupted passes had ended with the legacy tree: the next run has
  // nothing left to do, and says so.
  const ProgramRun again = mavrel({"migrate", "--root", root_});
  EXPECT_EQ(again.exitCode, 0) << again.err;
  EXPECT_NE(again.err.find("Nothing to migrate: " + root_), std::string::npos) << again.err;
}

}  // namespace
