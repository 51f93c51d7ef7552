// The safety net of `mavrel migrate`: what the migration's rules discard is
// kept (and only that), named in the report, listed, copied out and purged by
// `mavrel recover`; a run without the net leaves nothing (nor does a clean
// run: PlanAgainstPassTest); a run after an interrupted one takes its net
// over; and records of a crafted manifest cannot lead out of the net.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>

#include "host/SafetyNetManifest.h"
#include "tests/host/GeneratedImage.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

constexpr std::string_view kNetBase = "/private/var/mobile/Library/Mavrel/SafetyNet";
constexpr std::string_view kMavrelLibrary = "/private/var/mobile/Library/Mavrel";

class SafetyNetTest : public ::testing::Test {
 protected:
  samplegen::ImageManifest generate(const std::string& name, std::uint64_t seed) {
    samplegen::GeneratorOptions options;
    options.applicationCount = 6;
    options.seed = seed;
    options.vpnOnlyCount = 0;
    return host_test::generateImage(directory_.path() + "/" + name, options);
  }

  // Every regular file below `directory`, relative to it, with its contents.
  static std::map<std::string, std::string> filesBelow(const std::string& directory) {
    std::map<std::string, std::string> files;
    if (!fs::exists(directory)) return files;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
      if (entry.is_regular_file() && !entry.is_symlink())
        files[fs::relative(entry.path(), directory).string()] = readFile(entry.path());
    }
    return files;
  }

  // The user-data files of the legacy container at `container`, by path
  // relative to the root.
  static std::map<std::string, std::string> userData(const std::string& root,
                                                     const std::string& container) {
    std::map<std::string, std::string> files;
    for (const char* item : {"Documents", "Library", "tmp", "Pormex"}) {
      for (const auto& [path, contents] : filesBelow(container + "/" + item))
        files[fs::relative(container, root).string() + "/" + item + "/" + path] = contents;
    }
    return files;
  }

  TemporaryDirectory directory_;
};

// Two containers the rules remove (one without a bundle, one whose bundle has
// no Info.plist): their files, and nothing else, stay in the net, named by
// the report; recover copies them out under their legacy paths; purge
// removes the net. The same image without the net migrates alike.
TEST_F(SafetyNetTest, WhatTheRulesDiscardIsKeptRecoveredAndPurged) {
  std::map<std::string, std::vector<std::string>> outcomes;
  for (const bool withNet : {true, false}) {
    SCOPED_TRACE(withNet);
    const auto manifest = generate(withNet ? "net" : "plain", 51);
    const std::string root = manifest.root;
    writeFile(manifest.legacyDirectory + "/NoBundle/Documents/orphan.txt", "orphan");
    writeFile(manifest.legacyDirectory + "/NoBundle/Library/Preferences/p.plist", "prefs");
    const std::string unreadable = manifest.containers.front().containerPath;
    for (const auto& entry : fs::directory_iterator(unreadable)) {
      if (entry.path().extension() == ".app") fs::remove(entry.path() / "Info.plist");
    }
    writeFile(unreadable + "/Documents/mine.txt", "mine");
    std::map<std::string, std::string> discarded =
        userData(root, manifest.legacyDirectory + "/NoBundle");
    discarded.merge(userData(root, unreadable));

    const std::string report = directory_.path() + "/report.json";
    std::vector<std::string> arguments{"migrate", "--root", root, "--report", report};
    if (!withNet) arguments.push_back("--no-safety-net");
    const ProgramRun run = runMavrel(arguments, directory_.path());
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const auto document = parseJSON(readFile(report));
    for (const auto& entry : document["entries"].array) {
      const std::string name = entry["identifier"].string.empty()
                                   ? fs::path(entry["path"].string).filename().string()
                                   : entry["identifier"].string;
      outcomes[name].push_back(entry["outcome"].string);
    }
    if (!withNet) {
      EXPECT_TRUE(document["safetyNet"].isNull());
      EXPECT_FALSE(fs::exists(root + std::string(kMavrelLibrary)));
      continue;
    }

    const auto& net = document["safetyNet"];
    const std::string runId = net["runId"].string;
    const std::string netDirectory = root + std::string(kNetBase) + "/" + runId;
    EXPECT_EQ(net["directory"].string, netDirectory);
    EXPECT_EQ(net["keptFiles"].count(), discarded.size());
    std::set<std::string> named;
    for (const auto& entry : net["kept"].array) {
      named.insert(entry["legacyPath"].string);
      EXPECT_NE(entry["reason"].string.find("removed the container"), std::string::npos)
          << entry["reason"].string;
    }
    EXPECT_EQ(named, (std::set<std::string>{manifest.legacyDirectory + "/NoBundle", unreadable}));
    auto kept = filesBelow(netDirectory);
    EXPECT_EQ(kept.erase("SafetyNet.plist"), 1u) << "a kept net is marked complete";
    EXPECT_EQ(kept, discarded);
    EXPECT_NE(run.err.find("Safety net: kept " + std::to_string(discarded.size())),
              std::string::npos)
        << run.err;

    const ProgramRun apps = runMavrel({"apps", "--root", root}, directory_.path());
    EXPECT_NE(apps.out.find("Safety net: 1 net(s)"), std::string::npos) << apps.out;

    const std::string out = directory_.path() + "/recovered";
    const ProgramRun recover =
        runMavrel({"recover", "--root", root, "--to", out}, directory_.path());
    ASSERT_EQ(recover.exitCode, 0) << recover.out << recover.err;
    EXPECT_NE(recover.out.find("/" + discarded.begin()->first), std::string::npos) << recover.out;
    EXPECT_EQ(filesBelow(out + "/" + runId), discarded);
    EXPECT_EQ(runMavrel({"recover", "--root", root, "--to", out}, directory_.path()).exitCode, 2)
        << "a destination that is not empty is refused";

    const ProgramRun purge = runMavrel({"recover", "--root", root, "--purge"}, directory_.path());
    EXPECT_EQ(purge.exitCode, 0) << purge.out << purge.err;
    EXPECT_FALSE(fs::exists(root + std::string(kMavrelLibrary)));
    EXPECT_EQ(filesBelow(out + "/" + runId), discarded) << "purging leaves the copy alone";
  }
  for (const auto& [name, each] : outcomes) {
    ASSERT_EQ(each.size(), 2u) << name;
    EXPECT_EQ(each[0], each[1]) << name;
  }
}

// A net without its state file is an interrupted run's: the next run takes
// it over, keeps what that run discarded (a container it removed), drops
// what is still in place and marks the net complete.
TEST_F(SafetyNetTest, AResumedRunAdoptsTheInterruptedNet) {
  const auto manifest = generate("resumed", 53);
  const std::string root = manifest.root;
  const std::string interrupted = root + std::string(kNetBase) + "/20000101-000000";
  const std::string legacyRelative = fs::relative(manifest.legacyDirectory, root).string();
  // The interrupted run linked a file of a container it then removed...
  const std::string links = interrupted + "/SafetyNet.links";
  writeFile(links + "/0", "gone");
  std::string records;
  mavrel_host::appendNetLinkRecord(records, "0", legacyRelative + "/Gone", "Documents/gone.txt");
  // ...and a file still in place, which its laying had linked twice before
  // it was cut short (the second link is in no record).
  const auto stillThere = userData(root, manifest.containers.back().containerPath);
  ASSERT_FALSE(stillThere.empty());
  const std::string linked = stillThere.begin()->first;
  fs::create_hard_link(root + "/" + linked, links + "/1");
  fs::create_hard_link(root + "/" + linked, links + "/2");
  const std::string container =
      fs::relative(manifest.containers.back().containerPath, root).string();
  mavrel_host::appendNetLinkRecord(records, "1", container, linked.substr(container.size() + 1));
  ASSERT_TRUE(mavrel_host::writeNetManifest(interrupted, {records}, nullptr));

  // Before it is settled, recover copies each linked file to its legacy path.
  const ProgramRun recovered =
      runMavrel({"recover", "--root", root, "--to", directory_.path() + "/out"}, directory_.path());
  ASSERT_EQ(recovered.exitCode, 0) << recovered.out << recovered.err;
  EXPECT_EQ(
      filesBelow(directory_.path() + "/out/20000101-000000"),
      (std::map<std::string, std::string>{{legacyRelative + "/Gone/Documents/gone.txt", "gone"},
                                          {linked, stillThere.begin()->second}}));

  const std::string report = directory_.path() + "/report.json";
  const ProgramRun run =
      runMavrel({"migrate", "--root", root, "--report", report}, directory_.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const auto net = parseJSON(readFile(report))["safetyNet"];
  EXPECT_EQ(net["runId"].string, "20000101-000000");
  EXPECT_TRUE(net["adopted"].boolean);
  EXPECT_EQ(net["keptFiles"].count(), 1u);
  ASSERT_EQ(net["kept"].array.size(), 1u);
  EXPECT_EQ(net["kept"].array[0]["legacyPath"].string, manifest.legacyDirectory + "/Gone");
  EXPECT_NE(net["kept"].array[0]["reason"].string.find("interrupted"), std::string::npos);
  EXPECT_EQ(filesBelow(interrupted),
            (std::map<std::string, std::string>{
                {legacyRelative + "/Gone/Documents/gone.txt", "gone"},
                {"SafetyNet.plist", readFile(interrupted + "/SafetyNet.plist")}}));
  EXPECT_EQ(filesBelow(root + std::string(kNetBase)).size(), 2u) << "no second net was made";
}

// The manifest is read from the image, which may be crafted: a record whose
// link name or paths could lead out of the net's directories is left out.
TEST(SafetyNetManifestTest, RecordsThatCouldLeadOutOfTheNetAreLeftOut) {
  const struct {
    std::string_view link, container, inner;
    bool kept;
  } cases[] = {
      {"7", "private/var/mobile/Applications/A", "Documents/a.txt", true},
      {"../7", "private/var/mobile/Applications/A", "Documents/a.txt", false},
      {"7x", "private/var/mobile/Applications/A", "Documents/a.txt", false},
      {"12345678901234567890", "private/A", "a", false},
      {"7", "../../outside", "a.txt", false},
      {"7", "/private/var/mobile/Applications/A", "a.txt", false},
      {"7", "private/var/mobile/Applications/A", "Documents/../../../a.txt", false},
      {"7", "private/var/mobile/Applications/A", "Documents//a.txt", false},
      {"7", "private/var/mobile/Applications/A", ".", false},
  };
  for (const auto& c : cases) {
    std::string manifest;
    mavrel_host::appendNetLinkRecord(manifest, c.link, c.container, c.inner);
    EXPECT_EQ(mavrel_host::parseNetManifest(manifest).size(), c.kept ? 1u : 0u)
        << c.link << " " << c.container << " " << c.inner;
  }
  // A record cut short is left out; the one before it stays.
  std::string manifest;
  mavrel_host::appendNetLinkRecord(manifest, "1", "private/A", "a");
  constexpr char kCut[] = "2\0private/B\0b";
  manifest.append(kCut, sizeof kCut - 1);
  const auto records = mavrel_host::parseNetManifest(manifest);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].legacyRelative(), "private/A/a");
}

}  // namespace
