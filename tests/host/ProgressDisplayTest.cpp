// What the user reads: the application lines, the live line and the summary,
// which must never claim success for a failed pass.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "host/ProgressDisplay.h"
#include "platform/MavrelMigrator.h"
#include "tests/support/TestSupport.h"

namespace mavrel_host {
namespace {

using std::chrono::seconds;

ProgressSnapshot migrating(std::uint64_t begun, std::optional<std::uint64_t> total,
                           std::string identifier) {
  ProgressSnapshot snapshot;
  snapshot.phase = ProgressSnapshot::Phase::Migrating;
  snapshot.applicationsBegun = begun;
  snapshot.total = total;
  snapshot.currentApplication = std::move(identifier);
  return snapshot;
}

TEST(ProgressDisplayTest, ElapsedTime) {
  EXPECT_EQ(formatElapsed(seconds(0)), "0:00");
  EXPECT_EQ(formatElapsed(seconds(7)), "0:07");
  EXPECT_EQ(formatElapsed(seconds(754)), "12:34");
  EXPECT_EQ(formatElapsed(seconds(3723)), "1:02:03");
  EXPECT_EQ(formatElapsed(seconds(-5)), "0:00");
}

TEST(ProgressDisplayTest, ApplicationLines) {
  EXPECT_EQ(formatApplicationLine(migrating(12, 40, "com.example.app")), "[12/40] com.example.app");
  EXPECT_EQ(formatApplicationLine(migrating(3, std::nullopt, "a.b")), "[3] a.b");
  // More begun than announced: the shown total grows rather than reading 5/4.
  EXPECT_EQ(formatApplicationLine(migrating(5, 4, "a.b")), "[5/5] a.b");
}

TEST(ProgressDisplayTest, LiveLineFollowsThePhases) {
  ProgressSnapshot waiting;
  EXPECT_EQ(formatLiveLine(waiting, false, seconds(1), 0), "Working  0:01");

  ProgressSnapshot examining;
  examining.phase = ProgressSnapshot::Phase::Examining;
  examining.total = 40;
  examining.examined = 12;
  EXPECT_EQ(formatLiveLine(examining, false, seconds(3), 0), "Examining entries 12/40  0:03");

  ProgressSnapshot busy = migrating(2, 40, "com.example.app");
  busy.errors = 1;
  EXPECT_EQ(formatLiveLine(busy, false, seconds(65), 0),
            "Migrating [2/40] com.example.app  1:05  1 error");
  busy.errors = 2;
  EXPECT_EQ(formatLiveLine(busy, true, seconds(65), 0),
            "Finishing (40 entries dealt with)  1:05  2 errors");
}

TEST(ProgressDisplayTest, LiveLineFitsTheTerminal) {
  const std::string line =
      formatLiveLine(migrating(2, 40, std::string(200, 'x')), false, seconds(1), 80);
  EXPECT_EQ(line.size(), 79u);  // the last column stays free so the line never wraps
  EXPECT_EQ(line.rfind("Migrating [2/40] ", 0), 0u);
}

TEST(ProgressDisplayTest, SummaryNeverClaimsSuccessForAFailedPass) {
  EXPECT_EQ(formatSummaryLine("CVAppMigrator", true, std::chrono::duration<double>(3.21), "/l"),
            "CVAppMigrator: succeeded in 3.2 s");
  const std::string failed =
      formatSummaryLine("CVAppMigrator", false, std::chrono::duration<double>(3.2), "/logs/M.log");
  EXPECT_EQ(failed, "CVAppMigrator: failed (see /logs/M.log)");
  EXPECT_EQ(failed.find("succeeded"), std::string::npos);
}

class IdleMigrator final : public MavrelMigrator {
 public:
  std::string dataClassName() const override { return "Idle"; }
  bool performMigration() override { return true; }
  float estimatedDuration() const override { return 20.0f; }
  float migrationProgress() const override { return 0.0f; }
};

TEST(ProgressDisplayTest, LiveDisplayDrawsInPlaceAndClearsItsLine) {
  testing_support::TemporaryDirectory directory;
  const std::string path = directory / "terminal";
  std::unique_ptr<std::FILE, decltype(&std::fclose)> out(std::fopen(path.c_str(), "w"),
                                                         &std::fclose);
  ASSERT_TRUE(out);
  ProgressTracker tracker(nullptr);
  tracker.write(platform::LogLine{5, "f", "CVAppMigrator: 2 items to migrate", {}, {}, 0});
  tracker.write(platform::LogLine{5, "f", "CVAppMigrator: Introspecting /a", {}, {}, 0});
  const IdleMigrator migrator;
  { const LiveProgressDisplay display(tracker, migrator, out.get()); }
  out.reset();

  const std::string text = testing_support::readFile(path);
  const std::string clear = "\r\x1b[K";
  // Every drawing starts by going back over the previous one, never with a
  // newline, and the display leaves the line empty for what follows.
  EXPECT_EQ(text.rfind(clear + "Examining entries 1/2  0:0", 0), 0u) << text;
  EXPECT_TRUE(text.ends_with(clear)) << text;
  EXPECT_EQ(text.find('\n'), std::string::npos) << text;
}

}  // namespace
}  // namespace mavrel_host
