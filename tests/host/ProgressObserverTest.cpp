// Progress from the plug-in's own reports: the count of entries dealt with
// never goes back, the live line names the application and its step, and a
// pass that has not advanced for a while says so.
#include <gtest/gtest.h>

#include "host/ProgressDisplay.h"
#include "host/ProgressTracker.h"

namespace mavrel_host {
namespace {

using std::chrono::seconds;

platform::LogLine notice(std::string_view message) {
  return platform::LogLine{platform::kLogLevelNotice, "f", message, "MavrelHost", "x.cpp", 1};
}

TEST(ProgressObserverTest, TheCountOfEntriesDealtWithOnlyGrows) {
  ProgressTracker tracker(nullptr);
  tracker.beginPass(4, /*observed=*/true);
  std::vector<std::string> lines;
  const auto draw = [&] {
    lines.push_back(formatLiveLine(tracker.snapshot(), false, seconds(1), 0));
  };
  draw();
  tracker.write(notice("CVAppMigrator: Introspecting /a"));
  tracker.migrationEntryFinished("/stray", {MavrelEntryOutcome::Removed, {}, true});
  draw();
  tracker.write(notice("CVAppMigrator: Introspecting /b"));
  tracker.write(notice("CVAppMigrator: Introspecting /c"));
  draw();
  tracker.write(notice("CVAppMigrator: Migrating com.example.b at /b/B.app"));
  tracker.migrationEntryBegan("/b", "com.example.b");
  tracker.migrationEntryStep("/b", MavrelEntryStep::DataMove);
  draw();
  tracker.migrationEntryFinished("/b", {MavrelEntryOutcome::Migrated, {}, true});
  tracker.migrationEntryBegan("/c", "com.example.c");
  tracker.migrationEntryStep("/c", MavrelEntryStep::Install);
  draw();

  EXPECT_EQ(lines, (std::vector<std::string>{
                       "[0/4] examining entries  0:01",
                       "[1/4] examining entries  0:01",
                       "[1/4] examining entries  0:01",
                       "[1/4] com.example.b: moving data  0:01",
                       "[2/4] com.example.c: installing  0:01",
                   }));
  EXPECT_EQ(tracker.snapshot().dealtWith, 2u);
}

TEST(ProgressObserverTest, AStalledPassSaysWhatItIsStillDoing) {
  ProgressSnapshot snapshot;
  snapshot.observed = true;
  snapshot.total = 40;
  snapshot.dealtWith = 5;
  snapshot.phase = ProgressSnapshot::Phase::Migrating;
  snapshot.currentApplication = "com.example.big";
  snapshot.currentStep = MavrelEntryStep::DataMove;
  EXPECT_EQ(formatLiveLine(snapshot, false, seconds(70), 0, seconds(14)),
            "[5/40] com.example.big: moving data  1:10");
  EXPECT_EQ(formatLiveLine(snapshot, false, seconds(96), 0, seconds(40)),
            "[5/40] still migrating com.example.big (moving data), 40 s  1:36");
  snapshot.currentStep.reset();
  EXPECT_EQ(formatLiveLine(snapshot, false, seconds(96), 0, seconds(40)),
            "[5/40] still working, 40 s  1:36");
}

TEST(ProgressObserverTest, EveryReportAdvancesTheClockOfTheLastAdvance) {
  ProgressTracker tracker(nullptr);
  tracker.beginPass(2, true);
  const auto start = tracker.snapshot().lastAdvance;
  EXPECT_LE(start, std::chrono::steady_clock::now());
  tracker.migrationEntryBegan("/a", "com.example.a");
  const auto began = tracker.snapshot().lastAdvance;
  EXPECT_GE(began, start);
  tracker.migrationEntryStep("/a", MavrelEntryStep::Install);
  EXPECT_GE(tracker.snapshot().lastAdvance, began);
  EXPECT_EQ(tracker.snapshot().currentStep, MavrelEntryStep::Install);
}

}  // namespace
}  // namespace mavrel_host
