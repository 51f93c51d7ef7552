// Records what happened to each legacy entry, for the report and the
// console summary.
//
// EntryRecorder is the observer the host gives each plug-in
// (platform/MavrelMigrator.h): outcomes, failed steps and durations come from
// the plug-in's own calls. It is also a log sink in the migration log's chain,
// passing every line on: the first error line written while an entry's
// failing step was under way becomes that entry's message (for an entry that
// did not fail, its first error line; for an entry discarded while
// classifying, the first error since its classification began). Observer
// calls are passed on to `forward` (the progress tracker).
//
// Observer calls and log lines arrive on the migrating thread; entries() may
// be called from any thread.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "platform/MavrelMigrator.h"

namespace mavrel_host {

struct RecordedEntry {
  std::string migrator;  // the plug-in's data class name
  std::string path;
  std::string identifier;  // "" for an entry discarded while classifying
  MavrelEntryResult result;
  std::string message;  // the first error line of the failing step, or ""
  double seconds = 0;   // from its beginning to its end
};

class EntryRecorder final : public platform::LogSink, public MavrelMigrationObserver {
 public:
  // `next` and `forward` may be null.
  EntryRecorder(std::shared_ptr<platform::LogSink> next, MavrelMigrationObserver* forward);

  // Entries recorded from now on belong to `name`'s pass.
  void beginMigrator(std::string name);

  void write(const platform::LogLine& line) override;
  void migrationEntryBegan(std::string_view entryPath, std::string_view identifier) override;
  void migrationEntryStep(std::string_view entryPath, MavrelEntryStep step) override;
  void migrationEntryFinished(std::string_view entryPath, const MavrelEntryResult& result) override;

  // Finished entries, in the order they finished.
  std::vector<RecordedEntry> entries() const;
  // The error lines of `migrator`'s pass that belong to no entry (a safe
  // harbor, the data-protection update, what was left over), in order.
  std::vector<std::string> errorsOutsideEntries(std::string_view migrator) const;

 private:
  using Clock = std::chrono::steady_clock;
  std::shared_ptr<platform::LogSink> next_;
  MavrelMigrationObserver* forward_;
  mutable std::mutex mutex_;
  std::string migrator_;
  std::vector<RecordedEntry> entries_;
  // The entry under way (began, not finished).
  std::optional<RecordedEntry> current_;
  Clock::time_point currentStart_{};
  std::optional<MavrelEntryStep> currentStep_;
  // The first error line of each step of the entry under way, and of all.
  std::map<MavrelEntryStep, std::string> stepMessages_;
  std::string firstMessage_;
  // Between entries: the first error line since the last classification began.
  std::string pendingMessage_;
  // Error lines written while no entry was under way, with their migrator;
  // those since the last classification began start at pendingStart_.
  std::vector<std::pair<std::string, std::string>> outsideErrors_;
  std::size_t pendingStart_ = 0;
};

}  // namespace mavrel_host
