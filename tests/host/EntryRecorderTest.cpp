// The recorder behind the report: outcomes come from the plug-in's calls, each
// failed entry gets the first error line of its failing step (not an earlier
// entry's), and lines and calls are passed on to the progress tracker.
#include <gtest/gtest.h>

#include "host/EntryRecorder.h"
#include "host/ProgressDisplay.h"
#include "host/ProgressTracker.h"

namespace mavrel_host {
namespace {

platform::LogLine line(int level, std::string_view message) {
  return platform::LogLine{level, "f", message, "MavrelHost", "x.cpp", 1};
}

class CountingSink final : public platform::LogSink {
 public:
  void write(const platform::LogLine&) override { ++lines; }
  int lines = 0;
};

TEST(EntryRecorderTest, OutcomesAndTheMessagesOfTheFailingSteps) {
  auto sink = std::make_shared<CountingSink>();
  ProgressTracker tracker(nullptr);
  EntryRecorder recorder(sink, &tracker);
  recorder.beginMigrator("CVAppMigrator");
  tracker.beginPass(4, /*observed=*/true);

  // Classification: an error of one entry does not stick to the next.
  recorder.write(line(5, "CVAppMigrator: Introspecting /legacy/A"));
  recorder.write(line(3, "CVAppMigrator: Could not get identifier for bundle at /legacy/A/X.app"));
  recorder.write(line(5, "CVAppMigrator: Introspecting /legacy/L"));
  recorder.write(line(3, "CVAppMigrator: Skipping container with app symlink at /legacy/L/L.app"));
  recorder.migrationEntryFinished("/legacy/L", {MavrelEntryOutcome::Left, {}, false});

  recorder.migrationEntryBegan("/legacy/A", "com.example.a");
  recorder.migrationEntryStep("/legacy/A", MavrelEntryStep::DataMove);
  recorder.write(line(3, "CVAppMigrator: an error of the data move, which succeeds"));
  recorder.migrationEntryStep("/legacy/A", MavrelEntryStep::Install);
  // The plug-in's reports reach the progress line, with the entries dealt with.
  EXPECT_EQ(formatLiveLine(tracker.snapshot(), false, std::chrono::seconds(1), 0),
            "[1/4] com.example.a: installing  0:01");
  recorder.write(line(3, "CVAppMigrator: Installation of A failed with Corvane error"));
  recorder.write(line(3, "CVAppMigrator: Failed to install /legacy/A/Staging"));
  recorder.migrationEntryStep("/legacy/A", MavrelEntryStep::Removal);
  recorder.migrationEntryFinished("/legacy/A",
                                  {MavrelEntryOutcome::Failed, MavrelEntryStep::Install, true});

  recorder.migrationEntryBegan("/legacy/B", "com.example.b");
  recorder.migrationEntryFinished("/legacy/B", {MavrelEntryOutcome::Migrated, {}, true});

  recorder.migrationEntryBegan("/legacy/C", "com.example.c");
  recorder.migrationEntryStep("/legacy/C", MavrelEntryStep::MissedItems);
  recorder.write(line(3, "CVAppMigrator: Found missed items in /legacy/C"));
  recorder.write(line(3, "CVAppMigrator: Migration of com.example.c failed"));
  recorder.migrationEntryFinished(
      "/legacy/C", {MavrelEntryOutcome::Failed, MavrelEntryStep::MissedItems, false});

  const std::vector<RecordedEntry> entries = recorder.entries();
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0].path, "/legacy/L");
  EXPECT_EQ(entries[0].identifier, "");
  EXPECT_EQ(entries[0].result.outcome, MavrelEntryOutcome::Left);
  EXPECT_EQ(entries[0].message,
            "CVAppMigrator: Skipping container with app symlink at /legacy/L/L.app");
  EXPECT_EQ(entries[1].identifier, "com.example.a");
  EXPECT_EQ(entries[1].result.failedStep, MavrelEntryStep::Install);
  EXPECT_TRUE(entries[1].result.containerRemoved);
  EXPECT_EQ(entries[1].migrator, "CVAppMigrator");
  // The removal that follows a failed install does not hide the install's error.
  EXPECT_EQ(entries[1].message, "CVAppMigrator: Installation of A failed with Corvane error");
  EXPECT_EQ(entries[2].message, "");
  EXPECT_EQ(entries[3].message, "CVAppMigrator: Found missed items in /legacy/C");

  EXPECT_EQ(sink->lines, 9);
  EXPECT_EQ(tracker.snapshot().dealtWith, 4u);
}

}  // namespace
}  // namespace mavrel_host
