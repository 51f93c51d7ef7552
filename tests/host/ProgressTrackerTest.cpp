// The progress tracker: which notices it counts, the identifier it extracts,
// that its figures never move backwards (also when read from another
// thread), and that it passes every line on.
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
  EXPECT_EQ(tracker.snapshot().phase, ProgressSnapshot::Phase::Waiting);
  // Only notices move the figures; a failure counts as an error.
  feed(tracker, "CVAppMigrator: Introspecting /A", 3);
  feed(tracker, "CVAppMigrator: Migrating a.b at /x", 7);
  EXPECT_EQ(tracker.snapshot().phase, ProgressSnapshot::Phase::Waiting);
  EXPECT_EQ(tracker.snapshot().errors, 1u);

  feed(tracker, "CVAppMigrator: 3 items to migrate");
  feed(tracker, "CVAppMigrator: Introspecting /A");
  feed(tracker, "CVAppMigrator: Found app /A/X.app");
  feed(tracker, "CVAppMigrator: Introspecting /B");
  ProgressSnapshot snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.phase, ProgressSnapshot::Phase::Examining);
  EXPECT_EQ(snapshot.total, 3u);
  EXPECT_EQ(snapshot.examined, 2u);
  EXPECT_EQ(snapshot.count(), 2u);

  feed(tracker, "CVAppMigrator: Migrating com.example.b at /B/Y.app");
  feed(tracker, "CVAppMigrator: Migrating safe harbor for com.example.b at /h");
  feed(tracker, "CVAppMigrator: Migration of com.example.b at /B/Y.app failed", 3);
  feed(tracker, "CVAppMigrator: Migrating com.example.a at /A/X.app");
  // A late introspection notice must not take the phase back to examining,
  // and a smaller announcement must not lower the total.
  feed(tracker, "CVAppMigrator: Introspecting /late");
  feed(tracker, "CVAppMigrator: 2 items to migrate");
  snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.phase, ProgressSnapshot::Phase::Migrating);
  EXPECT_EQ(snapshot.applicationsBegun, 2u);
  EXPECT_EQ(snapshot.count(), 2u);
  EXPECT_EQ(snapshot.total, 3u);
  EXPECT_EQ(snapshot.currentApplication, "com.example.a");
  EXPECT_EQ(snapshot.errors, 2u);
  EXPECT_EQ(heard, (std::vector<std::string>{"1 com.example.b", "2 com.example.a"}));
  // Every line went on to the decorated sink, in order, counted or not.
  ASSERT_EQ(recorder->messages.size(), 12u);
  EXPECT_EQ(recorder->messages[4], "CVAppMigrator: Found app /A/X.app");

  tracker.reset();
  snapshot = tracker.snapshot();
  EXPECT_EQ(snapshot.phase, ProgressSnapshot::Phase::Waiting);
  EXPECT_FALSE(snapshot.total);
  EXPECT_EQ(snapshot.applicationsBegun, 0u);
  EXPECT_TRUE(snapshot.currentApplication.empty());
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

TEST(ProgressTrackerTest, APassKeepsTheTotalAnnouncedAtSetUp) {
  // As the migration log's sink: the migrator announces its count while being
  // set up, before its pass; the next migrator's set-up announces its own.
  auto tracker = std::make_shared<ProgressTracker>(nullptr);
  {
    const platform::ScopedLogSink scope(platform::migrationLog(), tracker, std::nullopt);
    platform::logMigration(5, "f", "CVAppMigrator: %ld items to migrate", 7L);
  }
  const auto announced = tracker->snapshot().total;
  EXPECT_EQ(announced, 7u);
  feed(*tracker, "CVAppMigrator: 9 items to migrate");
  tracker->beginPass(announced);
  feed(*tracker, "CVAppMigrator: Migrating a.b at /x");
  EXPECT_EQ(tracker->snapshot().total, 7u);
  EXPECT_EQ(tracker->snapshot().applicationsBegun, 1u);
  EXPECT_EQ(tracker->snapshot().currentApplication, "a.b");
}

}  // namespace
}  // namespace mavrel_host
