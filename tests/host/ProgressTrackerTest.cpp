// The progress tracker: which notices it counts, the identifier it extracts,
// that its figures never move backwards, and that it passes every line on.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/ProgressTracker.h"

namespace mavrel_host {
namespace {

class RecordingSink final : public platform::LogSink {
 public:
  void write(const platform::LogLine& line) override { messages.emplace_back(line.message); }
  std::vector<std::string> messages;
};

void feed(ProgressTracker& tracker, std::string_view message, int level = 5) {
  tracker.write(platform::LogLine{level, "f", message, "MavrelHost", "AppMigrator.cpp", 1});
}

TEST(ProgressTrackerTest, ExtractsTheIdentifierOfMigratingNotices) {
  EXPECT_EQ(migratingApplicationIdentifier(
                "CVAppMigrator: Migrating com.example.app at /var/mobile/Applications/A/X.app"),
            "com.example.app");
  // The first " at " ends the identifier, whatever the path holds.
  EXPECT_EQ(migratingApplicationIdentifier("CVAppMigrator: Migrating a.b at /x at /y.app"), "a.b");
  EXPECT_EQ(migratingApplicationIdentifier("CVAppMigrator: Migrating (null) at (null)"), "(null)");
  // Not application notices.
  EXPECT_FALSE(migratingApplicationIdentifier(
      "CVAppMigrator: Migrating safe harbor for com.example.app at /var/harbor"));
  EXPECT_FALSE(migratingApplicationIdentifier("CVAppMigrator: Migration of a.b at /x failed"));
  EXPECT_FALSE(migratingApplicationIdentifier("CVAppMigrator: Migrating  at /x"));
  EXPECT_FALSE(migratingApplicationIdentifier("CVAppMigrator: Migrating a.b"));
  EXPECT_FALSE(migratingApplicationIdentifier("Migrating a.b at /x"));
}

TEST(ProgressTrackerTest, ReadsTheAnnouncedCount) {
  EXPECT_EQ(announcedItemCount("CVAppMigrator: 40 items to migrate"), 40u);
  EXPECT_EQ(announcedItemCount("CVAppMigrator: 0 items to migrate"), 0u);
  EXPECT_FALSE(announcedItemCount("CVAppMigrator: many items to migrate"));
  EXPECT_FALSE(announcedItemCount("CVAppMigrator:  items to migrate"));
  EXPECT_FALSE(announcedItemCount("CVAppMigrator: -3 items to migrate"));
  EXPECT_FALSE(announcedItemCount("CVAppMigrator: 3 items to migrate later"));
  EXPECT_TRUE(isIntrospectionNotice("CVAppMigrator: Introspecting /var/a"));
  EXPECT_FALSE(isIntrospectionNotice("CVAppMigrator: Introspecting "));
  EXPECT_FALSE(isIntrospectionNotice("CVAppMigrator: Found app /var/a/X.app"));
}

TEST(ProgressTrackerTest, CountsBothPhasesOfAPass) {
  auto recorder = std::make_shared<RecordingSink>();
  ProgressTracker tracker(recorder);
  EXPECT_EQ(tracker.snapshot().phase, ProgressSnapshot::Phase::Waiting);

  feed(tracker, "CVAppMigrator: 3 items to migrate");
  feed(tracker, "CVAppMigrator: Introspecting /A");
  feed(tracker, "CVAppMigrator: Found app /A/X.app");
  feed(tracker, "CVAppMigrator: Introspecting /B");
  ProgressSnapshot snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.phase, ProgressSnapshot::Phase::Examining);
  EXPECT_EQ(snapshot.total, 3u);
  EXPECT_EQ(snapshot.examined, 2u);
  EXPECT_EQ(snapshot.count(), 2u);

  feed(tracker, "CVAppMigrator: Introspecting /C");
  feed(tracker, "CVAppMigrator: Migrating com.example.b at /B/Y.app");
  snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.phase, ProgressSnapshot::Phase::Migrating);
  EXPECT_EQ(snapshot.applicationsBegun, 1u);
  EXPECT_EQ(snapshot.currentApplication, "com.example.b");
  EXPECT_EQ(snapshot.count(), 1u);

  feed(tracker, "CVAppMigrator: Migration of com.example.b at /B/Y.app failed", 3);
  feed(tracker, "CVAppMigrator: Migrating com.example.a at /A/X.app");
  snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.applicationsBegun, 2u);
  EXPECT_EQ(snapshot.currentApplication, "com.example.a");
  EXPECT_EQ(snapshot.errors, 1u);

  // Every line went on to the decorated sink, in order, counted or not.
  EXPECT_EQ(recorder->messages.size(), 8u);
  EXPECT_EQ(recorder->messages[2], "CVAppMigrator: Found app /A/X.app");
}

TEST(ProgressTrackerTest, OnlyNoticesMoveTheFigures) {
  ProgressTracker tracker(nullptr);
  feed(tracker, "CVAppMigrator: Introspecting /A", 3);
  feed(tracker, "CVAppMigrator: Migrating a.b at /x", 7);
  feed(tracker, "CVAppMigrator: Migrating safe harbor for a.b at /h");
  const ProgressSnapshot snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.examined, 0u);
  EXPECT_EQ(snapshot.applicationsBegun, 0u);
  EXPECT_EQ(snapshot.phase, ProgressSnapshot::Phase::Waiting);
  EXPECT_EQ(snapshot.errors, 1u);
}

TEST(ProgressTrackerTest, FiguresNeverMoveBackwards) {
  ProgressTracker tracker(nullptr);
  feed(tracker, "CVAppMigrator: 5 items to migrate");
  feed(tracker, "CVAppMigrator: Migrating a.b at /x");
  // A late introspection notice must not take the phase back to examining,
  // and a smaller announcement must not lower the total.
  feed(tracker, "CVAppMigrator: Introspecting /late");
  feed(tracker, "CVAppMigrator: 2 items to migrate");
  const ProgressSnapshot snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.phase, ProgressSnapshot::Phase::Migrating);
  EXPECT_EQ(snapshot.count(), 1u);
  EXPECT_EQ(snapshot.total, 5u);
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

TEST(ProgressTrackerTest, ListenerHearsEachApplicationOnce) {
  ProgressTracker tracker(nullptr);
  std::vector<std::string> heard;
  tracker.setApplicationListener([&](const ProgressSnapshot& snapshot) {
    // The listener may take a snapshot of its own without deadlocking.
    EXPECT_EQ(tracker.snapshot().applicationsBegun, snapshot.applicationsBegun);
    heard.push_back(std::to_string(snapshot.applicationsBegun) + " " + snapshot.currentApplication);
  });
  feed(tracker, "CVAppMigrator: Introspecting /A");
  feed(tracker, "CVAppMigrator: Migrating a.one at /A/X.app");
  feed(tracker, "CVAppMigrator: Migrating safe harbor for a.one at /h");
  feed(tracker, "CVAppMigrator: Migrating a.two at /B/Y.app");
  EXPECT_EQ(heard, (std::vector<std::string>{"1 a.one", "2 a.two"}));
}

TEST(ProgressTrackerTest, ResetStartsOverForTheNextMigrator) {
  ProgressTracker tracker(nullptr);
  feed(tracker, "CVAppMigrator: 2 items to migrate");
  feed(tracker, "CVAppMigrator: Migrating a.b at /x");
  tracker.reset();
  const ProgressSnapshot snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.phase, ProgressSnapshot::Phase::Waiting);
  EXPECT_FALSE(snapshot.total);
  EXPECT_EQ(snapshot.applicationsBegun, 0u);
  EXPECT_TRUE(snapshot.currentApplication.empty());
}

TEST(ProgressTrackerTest, APassKeepsTheTotalAnnouncedAtSetUp) {
  // The migrator announces its count while being set up, before its pass.
  ProgressTracker tracker(nullptr);
  feed(tracker, "CVAppMigrator: 7 items to migrate");
  const auto announced = tracker.snapshot().total;
  feed(tracker, "CVAppMigrator: 9 items to migrate");  // the next migrator's set-up
  tracker.beginPass(announced);
  feed(tracker, "CVAppMigrator: Migrating a.b at /x");
  const ProgressSnapshot snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.total, 7u);
  EXPECT_EQ(snapshot.applicationsBegun, 1u);
}

TEST(ProgressTrackerTest, WorksAsTheMigrationLogSink) {
  auto tracker = std::make_shared<ProgressTracker>(nullptr);
  {
    const platform::ScopedLogSink scope(platform::migrationLog(), tracker, std::nullopt);
    platform::logMigration(5, "f", "CVAppMigrator: %ld items to migrate", 4L);
    platform::logMigration(5, "f", "CVAppMigrator: Migrating %@ at %@", std::string("a.b"),
                           std::string("/x"));
  }
  EXPECT_EQ(tracker->snapshot().total, 4u);
  EXPECT_EQ(tracker->snapshot().currentApplication, "a.b");
}

}  // namespace
}  // namespace mavrel_host
