// What the user reads: the application lines, the live line (which says
// when a pass has stalled) and the summary, which never claims success for a
// failed pass; and the live display, which draws in place.
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
                           std::string identifier, std::uint64_t errors = 0) {
  ProgressSnapshot snapshot;
  snapshot.phase = ProgressSnapshot::Phase::Migrating;
  snapshot.applicationsBegun = begun;
  snapshot.total = total;
  snapshot.currentApplication = std::move(identifier);
  snapshot.errors = errors;
  return snapshot;
}

TEST(ProgressDisplayTest, EachLineTheUserReads) {
  ProgressSnapshot examining;
  examining.phase = ProgressSnapshot::Phase::Examining;
  examining.total = 40;
  examining.examined = 12;
  ProgressSnapshot stalled = migrating(0, 40, "com.example.big");
  stalled.observed = true;
  stalled.dealtWith = 5;
  stalled.currentStep = MavrelEntryStep::DataMove;
  ProgressSnapshot stalledWithoutStep = stalled;
  stalledWithoutStep.currentStep.reset();
  const std::string failed =
      formatSummaryLine("CVAppMigrator", false, std::chrono::duration<double>(3.2), "/logs/M.log");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {formatElapsed(seconds(0)), "0:00"},
      {formatElapsed(seconds(754)), "12:34"},
      {formatElapsed(seconds(3723)), "1:02:03"},
      {formatElapsed(seconds(-5)), "0:00"},
      {formatApplicationLine(migrating(12, 40, "com.example.app")), "[12/40] com.example.app"},
      {formatApplicationLine(migrating(3, std::nullopt, "a.b")), "[3] a.b"},
      // More begun than announced: the shown total grows rather than reading 5/4.
      {formatApplicationLine(migrating(5, 4, "a.b")), "[5/5] a.b"},
      {formatLiveLine(ProgressSnapshot(), false, seconds(1), 0), "Working  0:01"},
      {formatLiveLine(examining, false, seconds(3), 0), "Examining entries 12/40  0:03"},
      {formatLiveLine(migrating(2, 40, "com.example.app", 1), false, seconds(65), 0),
       "Migrating [2/40] com.example.app  1:05  1 error"},
      {formatLiveLine(migrating(2, 40, "com.example.app", 2), true, seconds(65), 0),
       "Finishing (40 entries dealt with)  1:05  2 errors"},
      // The last column stays free so the line never wraps.
      {formatLiveLine(migrating(2, 40, std::string(200, 'x')), false, seconds(1), 80),
       "Migrating [2/40] " + std::string(62, 'x')},
      {formatLiveLine(stalled, false, seconds(70), 0, seconds(14)),
       "[5/40] com.example.big: moving data  1:10"},
      {formatLiveLine(stalled, false, seconds(96), 0, seconds(40)),
       "[5/40] still migrating com.example.big (moving data), 40 s  1:36"},
      {formatLiveLine(stalledWithoutStep, false, seconds(96), 0, seconds(40)),
       "[5/40] still working, 40 s  1:36"},
      {formatSummaryLine("CVAppMigrator", true, std::chrono::duration<double>(3.21), "/l"),
       "CVAppMigrator: succeeded in 3.2 s"},
      {failed, "CVAppMigrator: failed (see /logs/M.log)"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got, expected);
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
  for (const char* message :
       {"CVAppMigrator: 2 items to migrate", "CVAppMigrator: Introspecting /a"})
    tracker.write(platform::LogLine{5, "f", message, {}, {}, 0});
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
