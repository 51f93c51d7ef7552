#include "host/ProgressTracker.h"

#include <charconv>

namespace mavrel_host {
namespace {

constexpr std::string_view kPrefix = "CVAppMigrator: ";
constexpr std::string_view kItemsSuffix = " items to migrate";
constexpr std::string_view kIntrospecting = "Introspecting ";
constexpr std::string_view kMigrating = "Migrating ";
constexpr std::string_view kAt = " at ";

std::optional<std::string_view> body(std::string_view message) {
  if (!message.starts_with(kPrefix)) return std::nullopt;
  return message.substr(kPrefix.size());
}

}  // namespace

std::optional<std::string_view> migratingApplicationIdentifier(std::string_view message) {
  const auto text = body(message);
  if (!text || !text->starts_with(kMigrating)) return std::nullopt;
  const std::string_view rest = text->substr(kMigrating.size());
  const std::size_t at = rest.find(kAt);
  if (at == std::string_view::npos || at == 0) return std::nullopt;
  const std::string_view identifier = rest.substr(0, at);
  if (identifier.find_first_of(" \t\n") != std::string_view::npos) return std::nullopt;
  return identifier;
}

std::optional<std::uint64_t> announcedItemCount(std::string_view message) {
  const auto text = body(message);
  if (!text || !text->ends_with(kItemsSuffix)) return std::nullopt;
  const std::string_view digits = text->substr(0, text->size() - kItemsSuffix.size());
  std::uint64_t count = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, code] = std::from_chars(digits.data(), end, count);
  if (digits.empty() || code != std::errc() || stop != end) return std::nullopt;
  return count;
}

bool isIntrospectionNotice(std::string_view message) {
  const auto text = body(message);
  return text && text->starts_with(kIntrospecting) && text->size() > kIntrospecting.size();
}

ProgressTracker::ProgressTracker(std::shared_ptr<platform::LogSink> next)
    : next_(std::move(next)) {}

void ProgressTracker::write(const platform::LogLine& line) {
  if (next_) next_->write(line);

  ProgressSnapshot began;
  bool applicationBegan = false;
  ApplicationListener listener;
  {
    std::lock_guard lock(mutex_);
    if (line.level <= platform::kLogLevelError) ++state_.errors;
    if (line.level != platform::kLogLevelNotice) return;

    if (const auto identifier = migratingApplicationIdentifier(line.message)) {
      state_.phase = ProgressSnapshot::Phase::Migrating;
      ++state_.applicationsBegun;
      state_.currentApplication = std::string(*identifier);
      applicationBegan = true;
      began = state_;
      listener = listener_;
    } else if (isIntrospectionNotice(line.message)) {
      ++state_.examined;
      state_.lastAdvance = std::chrono::steady_clock::now();
      if (state_.phase == ProgressSnapshot::Phase::Waiting)
        state_.phase = ProgressSnapshot::Phase::Examining;
    } else if (const auto count = announcedItemCount(line.message)) {
      // Announced once, at set-up; a repeat never lowers the total.
      if (!state_.total || *state_.total < *count) state_.total = *count;
    }
  }
  // Outside the lock: the listener may take a snapshot of its own.
  if (applicationBegan && listener) listener(began);
}

void ProgressTracker::migrationEntryBegan(std::string_view, std::string_view identifier) {
  std::lock_guard lock(mutex_);
  state_.observed = true;
  state_.phase = ProgressSnapshot::Phase::Migrating;
  state_.currentApplication = std::string(identifier);
  state_.currentStep.reset();
  state_.lastAdvance = std::chrono::steady_clock::now();
}

void ProgressTracker::migrationEntryStep(std::string_view, MavrelEntryStep step) {
  std::lock_guard lock(mutex_);
  state_.observed = true;
  state_.currentStep = step;
  state_.lastAdvance = std::chrono::steady_clock::now();
}

void ProgressTracker::migrationEntryFinished(std::string_view, const MavrelEntryResult&) {
  std::lock_guard lock(mutex_);
  state_.observed = true;
  ++state_.dealtWith;
  state_.currentStep.reset();
  state_.lastAdvance = std::chrono::steady_clock::now();
}

ProgressSnapshot ProgressTracker::snapshot() const {
  std::lock_guard lock(mutex_);
  return state_;
}

void ProgressTracker::reset() {
  std::lock_guard lock(mutex_);
  state_ = ProgressSnapshot{};
  state_.lastAdvance = std::chrono::steady_clock::now();
}

void ProgressTracker::beginPass(std::optional<std::uint64_t> total, bool observed) {
  std::lock_guard lock(mutex_);
  state_ = ProgressSnapshot{};
  state_.total = total;
  state_.observed = observed;
  state_.lastAdvance = std::chrono::steady_clock::now();
}

void ProgressTracker::setApplicationListener(ApplicationListener listener) {
  std::lock_guard lock(mutex_);
  listener_ = std::move(listener);
}

}  // namespace mavrel_host
