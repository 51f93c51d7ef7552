// Follows a migration by watching the migrator's notices on the migration log.
//
// ProgressTracker is a log sink that passes every line on to the sink it
// decorates, then reads three kinds of notice:
//   "CVAppMigrator: <N> items to migrate"          the number of legacy entries
//   "CVAppMigrator: Introspecting <path>"           one entry examined
//   "CVAppMigrator: Migrating <identifier> at <path>" one application begun
// The log calls write() under its own lock on the logging thread; snapshot()
// may be called from any other thread at the same time.
//
// It is also the migrator's observer (platform/MavrelMigrator.h): a plug-in
// that reports its entries gives the count of entries dealt with, the
// application under way and its step, and the time of the last advance, so
// that a pass that has stalled can be told from one that is working.
//
// The figures only grow and the phase only advances (Waiting, Examining,
// Migrating), so a display built from snapshots never moves backwards.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Log.h"
#include "platform/MavrelMigrator.h"

namespace mavrel_host {

struct ProgressSnapshot {
  enum class Phase { Waiting, Examining, Migrating };
  Phase phase = Phase::Waiting;
  std::optional<std::uint64_t> total;   // legacy entries, once announced
  std::uint64_t examined = 0;           // entries examined so far
  std::uint64_t applicationsBegun = 0;  // applications whose migration has begun
  std::string currentApplication;       // identifier of the latest one
  std::uint64_t errors = 0;             // level-3 lines seen
  // From the observer: whether the plug-in reports its entries, how many it
  // has finished, and the step of the application under way.
  bool observed = false;
  std::uint64_t dealtWith = 0;
  std::optional<MavrelEntryStep> currentStep;
  // When any figure last changed (the start of the pass before that).
  std::chrono::steady_clock::time_point lastAdvance{};

  // The count of the current phase: entries examined, then applications begun.
  std::uint64_t count() const { return phase == Phase::Migrating ? applicationsBegun : examined; }
};

class ProgressTracker final : public platform::LogSink, public MavrelMigrationObserver {
 public:
  // Called on the logging thread each time an application's migration begins,
  // after the snapshot has been updated.
  using ApplicationListener = std::function<void(const ProgressSnapshot&)>;

  // `next` may be null: lines are then only observed.
  explicit ProgressTracker(std::shared_ptr<platform::LogSink> next);

  void write(const platform::LogLine& line) override;
  void migrationEntryBegan(std::string_view entryPath, std::string_view identifier) override;
  void migrationEntryStep(std::string_view entryPath, MavrelEntryStep step) override;
  void migrationEntryFinished(std::string_view entryPath, const MavrelEntryResult& result) override;
  ProgressSnapshot snapshot() const;
  // Starts over, for the next migrator.
  void reset();
  // Starts over for a pass whose migrator announced `total` at set-up (the
  // announcement comes before the pass begins). `observed`: the migrator was
  // given this tracker as its observer, so the count of entries dealt with is
  // shown from the start.
  void beginPass(std::optional<std::uint64_t> total, bool observed = false);
  void setApplicationListener(ApplicationListener listener);

 private:
  std::shared_ptr<platform::LogSink> next_;
  mutable std::mutex mutex_;
  ProgressSnapshot state_;
  ApplicationListener listener_;
};

// The identifier of a "CVAppMigrator: Migrating <identifier> at <path>" notice
// (the text between "Migrating " and the first " at "), or nullopt when the
// message is not one. Other "Migrating ..." notices, such as safe harbors,
// do not count: an identifier holds no spaces.
std::optional<std::string_view> migratingApplicationIdentifier(std::string_view message);

// N of "CVAppMigrator: N items to migrate", or nullopt.
std::optional<std::uint64_t> announcedItemCount(std::string_view message);

// Whether the message is "CVAppMigrator: Introspecting <path>".
bool isIntrospectionNotice(std::string_view message);

}  // namespace mavrel_host
