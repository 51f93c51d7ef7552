// What the user reads of a run: the progress tracker (figures that never move
// backwards, also seen from another thread), the display's lines, the live
// display drawn in place, and the recorder behind the report.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "host/EntryRecorder.h"
#include "host/ProgressDisplay.h"
#include "host/ProgressTracker.h"
#include "platform/MavrelMigrator.h"
#include "tests/support/TestSupport.h"

namespace mavrel_host {
namespace {

using std::chrono::seconds;

class RecordingSink final : public platform::LogSink {
 public:
  void write(const platform::LogLine& line) override { messages.emplace_back(line.message); }
  std::vector<std::string> messages;
};

platform::LogLine line(int level, std::string_view message) {
  return platform::LogLine{level, "f", message, "MavrelHost", "AppMigrator.cpp", 1};
}
void feed(ProgressTracker& tracker, std::string_view message, int level = 5) {
  tracker.write(line(level, message));
}
// Phase, total, examined, applications begun, count, current application, errors.
using Figures = std::tuple<ProgressSnapshot::Phase, std::optional<std::uint64_t>, std::uint64_t,
                           std::uint64_t, std::uint64_t, std::string, std::uint64_t>;
Figures figures(const ProgressSnapshot& s) {
  return {s.phase, s.total, s.examined, s.applicationsBegun, s.count(), s.currentApplication,
          s.errors};
}

TEST(ProgressTrackerTest, ReadsOnlyTheNoticesItCounts) {
  const std::vector<std::pair<std::string, std::optional<std::string>>> identifiers = {
      {"CVAppMigrator: Migrating com.example.app at /var/mobile/Applications/A/X.app",
       "com.example.app"},
      // The first " at " ends the identifier, whatever the path holds.
      {"CVAppMigrator: Migrating a.b at /x at /y.app", "a.b"},
      {"CVAppMigrator: Migrating (null) at (null)", "(null)"},
      {"CVAppMigrator: Migrating safe harbor for com.example.app at /var/harbor", std::nullopt},
      {"CVAppMigrator: Migration of a.b at /x failed", std::nullopt},
      {"CVAppMigrator: Migrating  at /x", std::nullopt},
      {"CVAppMigrator: Migrating a.b", std::nullopt},
      {"Migrating a.b at /x", std::nullopt},
  };
  for (const auto& [message, identifier] : identifiers) {
    const auto found = migratingApplicationIdentifier(message);
    EXPECT_EQ(found ? std::optional<std::string>(std::string(*found)) : std::nullopt, identifier)
        << message;
  }
  const std::vector<std::pair<std::string, std::optional<std::uint64_t>>> counts = {
      {"CVAppMigrator: 40 items to migrate", 40},
      {"CVAppMigrator: 0 items to migrate", 0},
      {"CVAppMigrator: many items to migrate", std::nullopt},
      {"CVAppMigrator:  items to migrate", std::nullopt},
      {"CVAppMigrator: -3 items to migrate", std::nullopt},
      {"CVAppMigrator: 3 items to migrate later", std::nullopt},
  };
  for (const auto& [message, count] : counts)
    EXPECT_EQ(announcedItemCount(message), count) << message;
  EXPECT_TRUE(isIntrospectionNotice("CVAppMigrator: Introspecting /var/a"));
  EXPECT_FALSE(isIntrospectionNotice("CVAppMigrator: Introspecting "));
  EXPECT_FALSE(isIntrospectionNotice("CVAppMigrator: Found app /var/a/X.app"));
}

TEST(ProgressTrackerTest, CountsBothPhasesAndNeverMovesBack) {
  auto recorder = std::make_shared<RecordingSink>();
  ProgressTracker tracker(recorder);
  std::vector<std::string> heard;
  tracker.setApplicationListener([&](const ProgressSnapshot& snapshot) {
    // The listener may take a snapshot of its own without deadlocking.
    EXPECT_EQ(tracker.snapshot().applicationsBegun, snapshot.applicationsBegun);
    heard.push_back(std::to_string(snapshot.applicationsBegun) + " " + snapshot.currentApplication);
  });
  using enum ProgressSnapshot::Phase;
  EXPECT_EQ(figures(tracker.snapshot()), Figures(Waiting, std::nullopt, 0, 0, 0, "", 0));
  // Only notices move the figures; a failure counts as an error.
  feed(tracker, "CVAppMigrator: Introspecting /A", 3);
  feed(tracker, "CVAppMigrator: Migrating a.b at /x", 7);
  EXPECT_EQ(figures(tracker.snapshot()), Figures(Waiting, std::nullopt, 0, 0, 0, "", 1));

  feed(tracker, "CVAppMigrator: 3 items to migrate");
  feed(tracker, "CVAppMigrator: Introspecting /A");
  feed(tracker, "CVAppMigrator: Found app /A/X.app");
  feed(tracker, "CVAppMigrator: Introspecting /B");
  EXPECT_EQ(figures(tracker.snapshot()), Figures(Examining, 3, 2, 0, 2, "", 1));

  feed(tracker, "CVAppMigrator: Migrating com.example.b at /B/Y.app");
  feed(tracker, "CVAppMigrator: Migrating safe harbor for com.example.b at /h");
  feed(tracker, "CVAppMigrator: Migration of com.example.b at /B/Y.app failed", 3);
  feed(tracker, "CVAppMigrator: Migrating com.example.a at /A/X.app");
  // A late introspection notice must not take the phase back to examining,
  // and a smaller announcement must not lower the total.
  feed(tracker, "CVAppMigrator: Introspecting /late");
  feed(tracker, "CVAppMigrator: 2 items to migrate");
  EXPECT_EQ(figures(tracker.snapshot()), Figures(Migrating, 3, 3, 2, 2, "com.example.a", 2));
  EXPECT_EQ(heard, (std::vector<std::string>{"1 com.example.b", "2 com.example.a"}));
  // Every line went on to the decorated sink, in order, counted or not.
  ASSERT_EQ(recorder->messages.size(), 12u);
  EXPECT_EQ(recorder->messages[4], "CVAppMigrator: Found app /A/X.app");

  tracker.reset();
  EXPECT_EQ(figures(tracker.snapshot()), Figures(Waiting, std::nullopt, 0, 0, 0, "", 0));

  // Each pass takes the total its own migrator announced at set-up, not the next one's.
  feed(tracker, "CVAppMigrator: 9 items to migrate");
  tracker.beginPass(7);
  feed(tracker, "CVAppMigrator: Migrating a.b at /x");
  EXPECT_EQ(figures(tracker.snapshot()), Figures(Migrating, 7, 0, 1, 1, "a.b", 0));
}

TEST(ProgressTrackerTest, SnapshotsFromAnotherThreadSeeMonotonicFigures) {
  ProgressTracker tracker(nullptr);
  constexpr int kEntries = 2000;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    ProgressSnapshot previous;
    while (!done.load()) {
      const ProgressSnapshot now = tracker.snapshot();
      EXPECT_GE(static_cast<int>(now.phase), static_cast<int>(previous.phase));
      if (now.phase == previous.phase) {
        EXPECT_GE(now.count(), previous.count());
      }
      previous = now;
    }
  });
  feed(tracker, "CVAppMigrator: 2000 items to migrate");
  for (int i = 0; i < kEntries; ++i)
    feed(tracker, "CVAppMigrator: Introspecting /e");
  for (int i = 0; i < kEntries; ++i)
    feed(tracker, "CVAppMigrator: Migrating a.b at /e");
  done.store(true);
  reader.join();
  EXPECT_EQ(tracker.snapshot().applicationsBegun, static_cast<std::uint64_t>(kEntries));
}

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

TEST(EntryRecorderTest, OutcomesAndTheMessagesOfTheFailingSteps) {
  auto sink = std::make_shared<RecordingSink>();
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

  EXPECT_EQ(sink->messages.size(), 9u);
  EXPECT_EQ(tracker.snapshot().dealtWith, 4u);
}

}  // namespace
}  // namespace mavrel_host
