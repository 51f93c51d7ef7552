// The mavrel program run as a user runs it, on handmade device images beside a
// canary that no run may touch: `migrate` (exit codes, logs, console, report,
// refusals), `plan`, and `apps` on a sound, missing, damaged or cut-off registry.
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>
#include <regex>

#include "host/CommandLine.h"
#include "platform/linux/FileDescriptor.h"
#include "tests/host/GeneratedImage.h"
#include "tests/support/DeviceImage.h"
#include "tests/support/JSON.h"
#include "tests/support/TreeSnapshot.h"

namespace {

using namespace testing_support;
using host_test::expectContains;
using host_test::expectLacks;

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
  ProgramRun mavrel(const std::vector<std::string>& arguments) { return image_.mavrel(arguments); }
  // The one log file in Library/Logs/<name>, named "<name>-<date>-<time>.log".
  std::string onlyLog(const std::string& name) {
    const std::string directory = home("Library/Logs/" + name);
    const std::vector<std::string> names = entriesOf(directory);
    EXPECT_EQ(names.size(), 1u) << directory;
    if (names.empty()) return {};
    EXPECT_TRUE(std::regex_match(names[0], std::regex(name + R"(-\d{4}-\d\d-\d\d-\d{6}\.log)")))
        << names[0];
    return directory + "/" + names[0];
  }

  std::string registry() const { return home("Library/Corvane/ApplicationRegistry.sqlite"); }
  ProgramRun plan(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> arguments{"plan", "--root", root_};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    const ProgramRun run = mavrel(arguments);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    return run;
  }

  LegacyImage image_;
  const std::string root_ = image_.rootPath();
};

TEST_F(EndToEndTest, WithoutLegacyTreeRecordsTheSystemVersionAndWritesBothLogs) {
  const ProgramRun run = image_.migrate();
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_EQ(image_.readPlistDictionary(home("Library/Corvane/AppMigratorLastSystemVersion.plist")),
            image_.readPlistDictionary(root_ + "/System/Library/CoreServices/SystemBuild.plist"));

  // "2026-11-21 08:32:00.123 <5> MavrelHost AppMigrator.cpp:123 <function>: CVAppMigrator: ..."
  const std::regex textLine(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <\d> MavrelHost \S+\.cpp:\d+ .+: CVAppMigrator: .*)");
  const std::vector<std::string> textLines = linesOf(readFile(onlyLog("Mavrel")));
  onlyLog("Corvane");
  ASSERT_FALSE(textLines.empty());
  for (const std::string& line : textLines)
    EXPECT_TRUE(std::regex_match(line, textLine)) << line;
  expectContains(run.err, {"Migrating device image at " + root_, ": succeeded in "});
  expectLacks(run.err, {"failed"});
  // Log directories and the staging directory are made with fixed modes.
  EXPECT_EQ(std::filesystem::status(home("Library/Logs/Mavrel")).permissions(),
            std::filesystem::perms(0755));
  EXPECT_EQ(std::filesystem::status(root_ + "/private/var/tmp/mavrel").permissions(),
            std::filesystem::perms(0700));
}

TEST_F(EndToEndTest, AFailedPassExitsOneAndSaysSo) {
  // A safe harbor outside the image: the installer refuses it, so the pass
  // fails, keeps the harbor map and records no version. A bundle without its
  // executable fails too; its progress line comes all the same.
  const std::string harborMap = home() + "/Library/Corvane/SafeHarbor.plist";
  image_.writePlist(
      harborMap, CVDictionary{{"com.example.gone",
                               CVDictionary{{"HarborPathKey", image_.canary() + "/Documents"}}}});
  image_.writeApplication(home("Applications/0A1B2C3D/Example.app"), "com.example.app", {}, false);

  const ProgramRun run = image_.migrate({"--log-level", "3", "--verify"});
  EXPECT_EQ(run.exitCode, 1) << run.err;
  EXPECT_TRUE(pathExists(harborMap));
  EXPECT_FALSE(pathExists(home() + "/Library/Corvane/AppMigratorLastSystemVersion.plist"));
  const std::string migrationLog = onlyLog("Mavrel");
  expectContains(run.err, {"The migration failed, but no user data was lost",
                           "\n[1/1] com.example.app\n", ": failed (see " + migrationLog + ")"});
  // No live redraw without a terminal.
  expectLacks(run.err, {"\r", "succeeded"});
  // --log-level 3 keeps notices out of the files, failures in.
  const std::string text = readFile(migrationLog);
  expectLacks(text, {" <5> "});
  expectContains(text, {" <3> "});
  expectContains(image_.installerLog(),
                 {R"("level":3,)", "Refusing safe harbor for com.example.gone at " +
                                       image_.canary() + "/Documents"});
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
    expectContains(run.out, {shown});
  }
}

// A link out of the image where the logs go stops the run before anything is
// written; a regular file where the legacy directory should be cannot be
// listed, so the migrator's set-up fails, no pass runs, and `plan` refuses too.
TEST_F(EndToEndTest, AnImageThatCannotBeWorkedOnStopsTheRun) {
  makeDirectories(home() + "/Library");
  makeSymlink(image_.canary(), home() + "/Library/Logs");
  ProgramRun run = image_.migrate();
  EXPECT_EQ(run.exitCode, 2) << run.out << run.err;
  expectContains(run.err, {home() + "/Library/Logs"});
  EXPECT_FALSE(pathExists(image_.canary() + "/Mavrel"));

  std::filesystem::remove(home() + "/Library/Logs");
  writeFile(home() + "/Applications", "not a directory");
  run = image_.migrate();
  EXPECT_EQ(run.exitCode, 2) << run.out << run.err;
  expectContains(run.err, {"AppMigrator.migrator' failed to set up its migrator"});
  expectLacks(run.err, {"succeeded"});
  EXPECT_FALSE(pathExists(home() + "/Library/Corvane/AppMigratorLastSystemVersion.plist"));
  run = mavrel({"plan", "--root", root_});
  EXPECT_EQ(run.exitCode, 2);
  expectContains(run.err, {home() + "/Applications"});
}

TEST_F(EndToEndTest, EveryRefusedCommandExitsTwoBeforeAnythingIsWritten) {
  const std::string outside = image_.outside("outside");
  makeDirectories(outside + "/a-directory");
  makeDirectories(outside + "/typo-dir");
  writeFile(outside + "/target.json", "keep");
  writeFile(outside + "/plain-file", "not an image");
  makeSymlink(outside + "/target.json", outside + "/link.json");
  writeFile(home() + "/Library/Corvane/ApplicationRegistry.lock", "");
  const auto with = [this](std::vector<std::string> more) {
    more.insert(more.begin(), {"migrate", "--root", root_});
    return more;
  };
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"migrate"}, "usage: mavrel migrate --root DIR"},
      {{"migrate", "--root", outside + "/plain-file"},
       "option '--root': the root '" + outside + "/plain-file' is not a directory"},
      {{"apps", "--root", outside + "/absent"}, "does not exist"},
      {{"migrate", "--root", outside + "/typo-dir"},
       "typo-dir' holds no device image: it has no private/var/mobile (the mobile user's home) and "
       "no System/Library/CoreServices/SystemBuild.plist (the system version); nothing was "
       "written. Check the path, or add --force"},
      {{"plan", "--root", outside + "/typo-dir"},
       "holds no device image: it has no private/var/mobile"},
      {with({"--colour"}), "unknown option '--colour'"},
      {with({"--log-json", outside + "/missing/m.json"}),
       "option '--log-json': the directory of '" + outside + "/missing/m.json' does not exist"},
      {with({"--installer-log-json", outside + "/link.json"}),
       "option '--installer-log-json': '" + outside + "/link.json' is a symbolic link"},
      {with({"--report", outside + "/a-directory"}),
       "option '--report': '" + outside + "/a-directory' is a directory"},
      {with({"--log-json", "/dev/null"}), "option '--log-json': '/dev/null' is a device"},
      {with({"--plugin-dir", outside + "/nowhere"}), "option '--plugin-dir': "},
      {with({"--plugin-dir", outside + "/a-directory"}), "no plug-ins (*.migrator) found"},
      {with({"--progress-fd", "97"}),
       "option '--progress-fd': descriptor 97 is not open for writing"},
  };
  const TreeSnapshot before = snapshotTree(root_);
  for (const auto& [arguments, message] : cases) {
    const ProgramRun run = mavrel(arguments);
    EXPECT_EQ(run.exitCode, 2) << message << "\n" << run.err;
    expectContains(run.err, {message});
    EXPECT_EQ(listed(differences(before, snapshotTree(root_), AccessTimes::Ignored)), "")
        << message;
  }
  EXPECT_FALSE(pathExists(outside + "/absent"));
  EXPECT_TRUE(entriesOf(outside + "/typo-dir").empty());
  // --force makes the directory an image.
  EXPECT_EQ(mavrel({"migrate", "--root", outside + "/typo-dir", "--force"}).exitCode, 0);
  EXPECT_TRUE(pathExists(outside + "/typo-dir/private/var/mobile/Library/Logs/Mavrel"));
  EXPECT_EQ(readFile(outside + "/target.json"), "keep");
  EXPECT_TRUE(std::filesystem::is_symlink(outside + "/link.json"))
      << "an output link must never be replaced";

  // A registry held by another installer: refused without creating or
  // changing anything, and the report says why instead of "succeeded".
  const platform::sys::UniqueFd lock(
      ::open((home() + "/Library/Corvane/ApplicationRegistry.lock").c_str(), O_RDONLY));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), 0);
  const std::string report = outside + "/report.json";
  const ProgramRun run = mavrel(with({"--report", report}));
  EXPECT_EQ(run.exitCode, 2) << run.err;
  expectContains(run.err, {"is in use by another installer"});
  EXPECT_EQ(listed(differences(before, snapshotTree(root_), AccessTimes::Ignored)), "");
  const JSONValue document = parseJSON(readFile(report));
  EXPECT_FALSE(document["succeeded"].boolean);
  EXPECT_EQ(document["exitCode"].count(), 2u);
  expectContains(document["error"].string, {"is in use by another installer"});
}

TEST_F(EndToEndTest, ReportAndProgressGoThroughStandardOutputAndSayTheTruth) {
  // No file named "-" is made, /dev/stdout stays a link, and standard output
  // carries only JSON: the progress events, then the report.
  for (const std::string name : {"-", "/dev/stdout"}) {
    const ProgramRun run =
        mavrel({"migrate", "--root", root_, "--report", name, "--progress-fd", "1", "--quiet"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_FALSE(pathExists(image_.outside("scratch/-")));
    EXPECT_TRUE(std::filesystem::is_symlink("/dev/stdout"));
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
    EXPECT_TRUE(std::regex_match(report["startedAt"].string.substr(0, 19),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)")))
        << report["startedAt"].string;
    // --quiet: the final line alone.
    expectLacks(run.err, {"Migrating device image"});
    expectContains(run.err, {"Nothing to migrate: " + root_});
  }
}

TEST_F(EndToEndTest, AnInterruptedRunSaysSoWritesItsReportAndResumes) {
  const std::string plugins = host_test::damagingPluginDirectory(image_.outside("plugins"));
  const std::string report = image_.outside("scratch/report.json");
  for (const auto& [signals, exitCode, name, where] :
       {std::tuple{"TERM", 143u, "SIGTERM", "(between two entries)"},
        std::tuple{"INT,INT", 130u, "SIGINT", "(in the middle of an entry)"}}) {
    // An application whose bundle lacks its executable: the pass has an entry.
    image_.writeApplication(home("Applications/") + name + "/Example.app", "com.example.app", {},
                            false);
    ::setenv("MAVREL_TEST_SIGNAL", signals, 1);
    const ProgramRun run =
        mavrel({"migrate", "--root", root_, "--plugin-dir", plugins, "--report", report});
    ::unsetenv("MAVREL_TEST_SIGNAL");
    EXPECT_EQ(run.exitCode, static_cast<int>(exitCode)) << run.out << run.err;
    expectContains(run.err,
                   {std::string("interrupted by ") + name + " during the pass of DamagingMigrator",
                    where, "run the same command again to resume"});
    const JSONValue document = parseJSON(readFile(report));
    EXPECT_FALSE(document["succeeded"].boolean);
    EXPECT_EQ(document["exitCode"].count(), exitCode);
    EXPECT_EQ(document["interrupted"].string, name);
    // The finished pass of the real migrator is in the report.
    EXPECT_EQ(document["migrators"].array.size(), 1u);
    EXPECT_EQ(document["entries"].array.size(), 1u);
  }
  // The interrupted passes had ended with the legacy tree: the next run has
  // nothing left to do, and says so.
  const ProgramRun again = mavrel({"migrate", "--root", root_});
  EXPECT_EQ(again.exitCode, 0) << again.err;
  expectContains(again.err, {"Nothing to migrate: " + root_});
}

TEST_F(EndToEndTest, PlanTextSaysWhatHappensToEachEntryAndTheVerdict) {
  const std::string gone = "/private/var/mobile/Library/GroupContainers/Gone";
  image_.writeApplication(home("Applications/A") + "/Foo.app", "com.example.foo");
  writeFile(home("Applications/A") + "/Documents/notes.txt", "12345");
  makeDirectories(home("Applications/C"));
  makeSymlink("/nowhere/Bar.app", home("Applications/C") + "/Bar.app");
  image_.writePlist(home("Library/Corvane/SafeHarbor.plist"),
                    CVDictionary{{"com.example.harbored",
                                  CVDictionary{{"HarborPathKey", image_.home("Harbors/h")}}}});
  // A group container the install map names but the image lacks.
  image_.writePlist(
      image_.installMapPath(),
      CVDictionary{{"GroupContainers",
                    CVDictionary{{"group.example.gone", CVDictionary{{"Container", gone}}}}}});
  expectContains(plan().out,
                 {"1. com.example.foo  application  [registry: unknown]",
                  "user data  1 file, 5 bytes", "LEFT in place", "is a symbolic link",
                  "com.example.harbored", "registering it will fail", "same file system",
                  "group.example.gone  " + gone + " -> " + root_ + gone +
                      "  (NOT MIGRATED: it leads to nothing in the image)",
                  "The migration is predicted to FAIL"});
}

TEST_F(EndToEndTest, PlanTheVerdictSaysWhenAMigrationIsRunningOrWasInterrupted) {
  image_.writeApplication(home("Applications/A") + "/Foo.app", "com.example.foo");
  JSONValue document = parseJSON(plan({"--json"}).out);
  EXPECT_EQ(document["schemaVersion"].count(), 2u);
  EXPECT_FALSE(document["toolVersion"].string.empty());
  EXPECT_FALSE(document["migrationRunning"].boolean);
  EXPECT_FALSE(document["lastMigrationInterrupted"].boolean);
  EXPECT_TRUE(document["circumstances"].isNull());

  // A container the interrupted run had begun carries its marker.
  image_.writeApplication(home("Applications/F") + "/Gone.app", "com.example.gone");
  image_.writePlist(home("Applications/F") + "/com.zentrel.corvane.container_migrator.plist",
                    CVDictionary{{"ContainerPath", home("Applications/F")},
                                 {"BundlePath", home("Applications/F") + "/Gone.app"},
                                 {"BundleIdentifier", "com.example.gone"},
                                 {"ContainerType", "App"}});
  const std::string lockPath = image_.home("Library/Corvane/ApplicationRegistry.lock");
  writeFile(lockPath, "");
  for (const auto& [holdLock, verdict] :
       {std::pair{false, "The last migration of this image was interrupted: 1 container(s) resume"},
        std::pair{true, "A migration is running on this image now"}}) {
    const platform::sys::UniqueFd lock(::open(lockPath.c_str(), O_RDONLY));
    if (holdLock) {
      ASSERT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), 0);
    }
    expectContains(plan().out, {verdict});
    document = parseJSON(plan({"--json"}).out);
    EXPECT_EQ(document["migrationRunning"].boolean, holdLock);
    EXPECT_TRUE(document["lastMigrationInterrupted"].boolean);
    EXPECT_TRUE(document["circumstances"].string.starts_with(verdict))
        << document["circumstances"].string;
  }
}

TEST_F(EndToEndTest, AppsListsWhatAMigrationInstalledUnchangedAndExplainsAWriteCutOff) {
  // A legacy container with an application that can be installed, its user
  // data and a group; and a safe harbor waiting to be registered.
  const std::string bundle = home("Applications/0A1B2C3D/Example.app");
  image_.writeApplication(bundle, "com.example.app", {"group.example"});
  image_.writePlist(bundle + "/Info.plist", CVDictionary{{"QXBundleIdentifier", "com.example.app"},
                                                         {"QXBundleExecutable", "App"},
                                                         {"QXBundleVersion", "42"},
                                                         {"QXBundleShortVersionString", "4.2"}});
  writeFile(home("Applications/0A1B2C3D/Documents/note.txt"), "from the old layout");
  makeDirectories(home("Harbors/Gone"));
  image_.writePlist(
      home("Library/Corvane/SafeHarbor.plist"),
      CVDictionary{{"com.example.gone", CVDictionary{{"HarborPathKey", home("Harbors/Gone")}}}});
  const ProgramRun migration = mavrel({"migrate", "--root", root_});
  ASSERT_EQ(migration.exitCode, 0) << migration.out << migration.err;

  // The registry's SQLite companions, which a reader may create (and so the
  // time of the directory that holds them), are left out.
  const auto withoutCompanions = [this] {
    TreeSnapshot snapshot = snapshotTree(root_);
    std::erase_if(snapshot, [](const auto& item) {
      return item.first.ends_with(".sqlite-wal") || item.first.ends_with(".sqlite-shm") ||
             item.first.ends_with("/Library/Corvane");
    });
    return snapshot;
  };
  const TreeSnapshot before = withoutCompanions();
  const ProgramRun json = mavrel({"apps", "--json", "--root=" + root_});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  const JSONValue document = parseJSON(json.out);
  ASSERT_EQ(document["applications"].array.size(), 1u) << json.out;
  const JSONValue& application = document["applications"].array[0];
  const std::string bundleContainer = application["bundleContainer"].string;
  const std::string data = application["dataContainer"].string;
  const std::string group = application["groupContainers"]["group.example"].string;
  EXPECT_TRUE(bundleContainer.starts_with(root_ + "/private/var/containers/Bundle/")) << json.out;
  EXPECT_TRUE(pathExists(bundleContainer + "/Example.app/App"));
  EXPECT_TRUE(data.starts_with(home("Containers/Data/"))) << json.out;
  EXPECT_EQ(readFile(data + "/Documents/note.txt"), "from the old layout");
  EXPECT_TRUE(group.starts_with(home("Containers/Shared/"))) << json.out;
  EXPECT_EQ(json.out,
            "{\"tool\":\"mavrel\",\"toolVersion\":\"" + std::string(mavrel_host::toolVersion()) +
                "\",\"schemaVersion\":1,\"registry\":\"" + registry() +
                "\",\"registryExists\":true,\"pendingInstalls\":0,\"applications\":[{"
                "\"identifier\":\"com.example.app\",\"kind\":\"application\",\"version\":\"42\","
                "\"shortVersion\":\"4.2\",\"bundleContainer\":\"" +
                bundleContainer + "\",\"bundle\":\"" + bundleContainer +
                "/Example.app\",\"vpnPlugin\":null,\"vpnPluginIdentifier\":null,"
                "\"vpnPluginDataContainer\":null,\"dataContainer\":\"" +
                data + "\",\"groupContainers\":{\"group.example\":\"" + group +
                "\"}}],\"safeHarbors\":[{\"identifier\":\"com.example.gone\",\"path\":\"" +
                home("Harbors/Gone") + "\",\"containerType\":2}]}\n");
  const ProgramRun text = mavrel({"apps", "--root", root_});
  ASSERT_EQ(text.exitCode, 0) << text.err;
  EXPECT_EQ(text.out, "Application registry: " + registry() +
                          "\n\ncom.example.app  application  4.2 (42)\n  bundle container: " +
                          bundleContainer + "\n  bundle: " + bundleContainer +
                          "/Example.app\n  data container: " + data +
                          "\n  group container group.example: " + group +
                          "\n\nSafe harbors:\n  com.example.gone  " + home("Harbors/Gone") +
                          "  (container type 2)\n\n1 application(s), 1 safe harbor(s)\n");
  EXPECT_EQ(listed(differences(before, withoutCompanions(), AccessTimes::Ignored)), "")
      << "listing changed the image";

  // What a writer killed inside a commit in rollback-journal mode leaves: a
  // journal whose header was synced (no pages to put back here), naming the
  // size of the database before the write.
  const auto writeJournal = [this](std::uint32_t pagesBefore) {
    std::string header = "\xD9\xD5\x05\xF9\x20\xA1\x63\xD7";
    for (const std::uint32_t field : {0u, 0u, pagesBefore, 512u, 4096u}) {
      for (int shift = 24; shift >= 0; shift -= 8)
        header += static_cast<char>((field >> shift) & 0xFF);
    }
    header.resize(512, '\0');
    writeFile(registry() + "-journal", header);
  };
  // The very first write: nothing was ever committed, so there is nothing yet.
  writeJournal(0);
  const ProgramRun first = mavrel({"apps", "--root", root_});
  EXPECT_EQ(first.exitCode, 0) << first.err;
  expectContains(first.out, {"No application registry yet at " + registry()});

  writeJournal(static_cast<std::uint32_t>(std::filesystem::file_size(registry()) / 4096));
  const ProgramRun cut = mavrel({"apps", "--root", root_});
  EXPECT_EQ(cut.exitCode, 2);
  expectContains(cut.err, {"holds a write that was cut off before it committed",
                           "'mavrel migrate --root " + root_ + "' rolls the cut write back"});
  expectLacks(cut.err, {"readonly database"});

  ASSERT_EQ(mavrel({"migrate", "--root", root_}).exitCode, 0);
  const ProgramRun rolledBack = mavrel({"apps", "--root", root_});
  EXPECT_EQ(rolledBack.exitCode, 0) << rolledBack.err;
  expectContains(rolledBack.out, {"com.example.app"});
}

TEST_F(EndToEndTest, AppsWithoutARegistryListsBuiltInsAndADamagedOneStopsBothCommands) {
  image_.writeBundle(
      root_ + "/Applications/Weather.app",
      CVDictionary{{"QXBundleIdentifier", "com.zentrel.weather"}, {"QXBundleVersion", "500"}});
  const ProgramRun run = mavrel({"apps", "--root", root_});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  expectContains(run.out, {"No application registry yet at " + registry(),
                           "\ncom.zentrel.weather  system (500)\n  bundle: " + root_ +
                               "/Applications/Weather.app\n  data container: (none yet)\n"});
  EXPECT_FALSE(pathExists(home("Library/Corvane")));
  const ProgramRun json = mavrel({"apps", "--root", root_, "--json"});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  expectContains(json.out, {"\"registryExists\":false", "\"kind\":\"system\""});

  const std::string damaged = "not a database at all, but long enough to look like a header....";
  writeFile(registry(), damaged);
  const ProgramRun list = mavrel({"apps", "--root", root_});
  EXPECT_EQ(list.exitCode, 2);
  expectContains(list.err, {registry(), "damaged or is not a database"});
  const ProgramRun migration = mavrel({"migrate", "--root", root_});
  EXPECT_EQ(migration.exitCode, 2) << migration.out << migration.err;
  expectContains(migration.err, {"mavrel: cannot open the application registry: "});
  EXPECT_EQ(readFile(registry()), damaged);
}

}  // namespace
