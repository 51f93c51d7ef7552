// The observer the host gives each plug-in (platform/MavrelMigrator.h): it
// passes every call on to the entry recorder, writes the machine-readable
// progress stream of --progress-fd, and gives an interruption its safe points
// (before an entry begins and after it finished).
//
// The progress stream is one JSON object per line, each with "event":
//   "start"   {"tool", "toolVersion", "schemaVersion", "root"}
//   "pass"    {"migrator", "entries"} when a plug-in's pass begins
//   "entry-began" {"path", "identifier"}, "entry-step" {"path", "step"}
//   "entry"   {"path", "outcome", "failedStep", "container", "done", "total"}
//   "pass-end" {"migrator", "succeeded"}
//   "end"     {"exitCode", "succeeded", "interrupted", "error"}
// A failed write to the stream is ignored: progress never stops a migration.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/MavrelMigrator.h"

namespace mavrel_host {

class InterruptionWatch;

inline constexpr std::uint64_t kProgressSchemaVersion = 1;

// Writes progress events to a descriptor the caller keeps open (or nowhere).
class ProgressStream {
 public:
  explicit ProgressStream(std::optional<int> fd) : fd_(fd) {}
  void start(const std::string& root);
  void passBegan(const std::string& migrator, std::optional<std::uint64_t> entries);
  void entryBegan(std::string_view path, std::string_view identifier);
  void entryStep(std::string_view path, MavrelEntryStep step);
  void entryFinished(std::string_view path, const MavrelEntryResult& result);
  void passEnded(const std::string& migrator, bool succeeded);
  void end(int exitCode, const std::optional<std::string>& interrupted, const std::string& error);

 private:
  void emit(std::string line);
  std::optional<int> fd_;
  std::optional<std::uint64_t> total_;
  std::uint64_t done_ = 0;
};

class RunObserver final : public MavrelMigrationObserver {
 public:
  // `next` must outlive this; `progress` and `interruption` may be null.
  RunObserver(MavrelMigrationObserver& next, ProgressStream* progress,
              InterruptionWatch* interruption)
      : next_(next), progress_(progress), interruption_(interruption) {}

  void migrationEntryBegan(std::string_view entryPath, std::string_view identifier) override;
  void migrationEntryStep(std::string_view entryPath, MavrelEntryStep step) override;
  void migrationEntryFinished(std::string_view entryPath, const MavrelEntryResult& result) override;

 private:
  MavrelMigrationObserver& next_;
  ProgressStream* progress_;
  InterruptionWatch* interruption_;
};

// Whether `fd` is an open descriptor this process may write to.
bool isWritableDescriptor(int fd);

}  // namespace mavrel_host
