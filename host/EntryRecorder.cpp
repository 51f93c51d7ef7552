#include "host/EntryRecorder.h"

#include <algorithm>

#include "host/ProgressTracker.h"

namespace mavrel_host {

EntryRecorder::EntryRecorder(std::shared_ptr<platform::LogSink> next,
                             MavrelMigrationObserver* forward)
    : next_(std::move(next)), forward_(forward) {}

void EntryRecorder::beginMigrator(std::string name) {
  std::lock_guard lock(mutex_);
  migrator_ = std::move(name);
  current_.reset();
  currentStep_.reset();
  stepMessages_.clear();
  firstMessage_.clear();
  pendingMessage_.clear();
}

void EntryRecorder::write(const platform::LogLine& line) {
  if (next_) next_->write(line);
  std::lock_guard lock(mutex_);
  // A new entry's classification starts: what came before was another's.
  if (isIntrospectionNotice(line.message)) {
    pendingMessage_.clear();
    pendingStart_ = outsideErrors_.size();
  }
  if (line.level > platform::kLogLevelError) return;
  if (!current_) {
    if (pendingMessage_.empty()) pendingMessage_ = std::string(line.message);
    outsideErrors_.emplace_back(migrator_, std::string(line.message));
    return;
  }
  if (firstMessage_.empty()) firstMessage_ = std::string(line.message);
  if (currentStep_) {
    std::string& message = stepMessages_[*currentStep_];
    if (message.empty()) message = std::string(line.message);
  }
}

void EntryRecorder::migrationEntryBegan(std::string_view entryPath, std::string_view identifier) {
  {
    std::lock_guard lock(mutex_);
    RecordedEntry entry;
    entry.migrator = migrator_;
    entry.path = std::string(entryPath);
    entry.identifier = std::string(identifier);
    current_ = std::move(entry);
    currentStart_ = Clock::now();
    currentStep_.reset();
    stepMessages_.clear();
    firstMessage_.clear();
  }
  if (forward_ != nullptr) forward_->migrationEntryBegan(entryPath, identifier);
}

void EntryRecorder::migrationEntryStep(std::string_view entryPath, MavrelEntryStep step) {
  {
    std::lock_guard lock(mutex_);
    currentStep_ = step;
  }
  if (forward_ != nullptr) forward_->migrationEntryStep(entryPath, step);
}

void EntryRecorder::migrationEntryFinished(std::string_view entryPath,
                                           const MavrelEntryResult& result) {
  {
    std::lock_guard lock(mutex_);
    RecordedEntry entry;
    if (current_ && current_->path == entryPath) {
      entry = std::move(*current_);
      entry.seconds = std::chrono::duration<double>(Clock::now() - currentStart_).count();
      const auto failing = stepMessages_.find(result.failedStep);
      entry.message = result.outcome == MavrelEntryOutcome::Failed && failing != stepMessages_.end()
                          ? failing->second
                          : firstMessage_;
    } else {
      entry.migrator = migrator_;
      entry.path = std::string(entryPath);
      entry.message = pendingMessage_;
      // Those lines were the discarded entry's own.
      outsideErrors_.resize(std::min(pendingStart_, outsideErrors_.size()));
    }
    pendingStart_ = outsideErrors_.size();
    current_.reset();
    currentStep_.reset();
    stepMessages_.clear();
    firstMessage_.clear();
    pendingMessage_.clear();
    entry.result = result;
    entries_.push_back(std::move(entry));
  }
  if (forward_ != nullptr) forward_->migrationEntryFinished(entryPath, result);
}

std::vector<std::string> EntryRecorder::errorsOutsideEntries(std::string_view migrator) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> errors;
  for (const auto& [name, message] : outsideErrors_) {
    if (name == migrator) errors.push_back(message);
  }
  return errors;
}

std::vector<RecordedEntry> EntryRecorder::entries() const {
  std::lock_guard lock(mutex_);
  return entries_;
}

}  // namespace mavrel_host
