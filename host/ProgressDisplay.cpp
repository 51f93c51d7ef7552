#include "host/ProgressDisplay.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "host/EntryOutcomeNames.h"
#include "platform/MavrelMigrator.h"

namespace mavrel_host {
namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(250);
constexpr std::string_view kClearLine = "\r\x1b[K";

std::atomic<bool> gSilenced{false};

std::string countText(const ProgressSnapshot& snapshot, std::uint64_t count) {
  if (!snapshot.total) return std::to_string(count);
  // Never show more done than there is: a count past the announced total
  // raises the total shown instead.
  const std::uint64_t total = *snapshot.total < count ? count : *snapshot.total;
  return std::to_string(count) + "/" + std::to_string(total);
}

std::size_t terminalWidth(std::FILE* out) {
  winsize size{};
  if (::ioctl(::fileno(out), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

}  // namespace

std::string formatElapsed(std::chrono::seconds elapsed) {
  const long long total = elapsed.count() < 0 ? 0 : elapsed.count();
  const long long hours = total / 3600, minutes = total / 60 % 60, seconds = total % 60;
  char text[32];
  if (hours > 0)
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", hours, minutes, seconds);
  else
    std::snprintf(text, sizeof text, "%lld:%02lld", minutes, seconds);
  return text;
}

std::string formatApplicationLine(const ProgressSnapshot& snapshot) {
  return "[" + countText(snapshot, snapshot.applicationsBegun) + "] " + snapshot.currentApplication;
}

namespace {

// The line of a plug-in that reports its entries: "[5/40] com.example.app:
// moving data", or what has stalled.
std::string observedLine(const ProgressSnapshot& snapshot, std::chrono::seconds sinceAdvance) {
  std::string line = "[" + countText(snapshot, snapshot.dealtWith) + "] ";
  const bool working = snapshot.phase == ProgressSnapshot::Phase::Migrating &&
                       !snapshot.currentApplication.empty() && snapshot.currentStep;
  const std::string step =
      snapshot.currentStep ? std::string(stepDescription(*snapshot.currentStep)) : std::string();
  if (sinceAdvance >= kStallNotice) {
    line += working ? "still migrating " + snapshot.currentApplication + " (" + step + ")"
                    : std::string("still working");
    return line + ", " + std::to_string(sinceAdvance.count()) + " s";
  }
  if (working) return line + snapshot.currentApplication + ": " + step;
  return line +
         (snapshot.phase == ProgressSnapshot::Phase::Migrating ? "migrating" : "examining entries");
}

}  // namespace

std::string formatLiveLine(const ProgressSnapshot& snapshot, bool allCounted,
                           std::chrono::seconds elapsed, std::size_t width,
                           std::chrono::seconds sinceAdvance) {
  std::string line;
  if (allCounted) {
    line = "Finishing";
    if (snapshot.total) line += " (" + std::to_string(*snapshot.total) + " entries dealt with)";
  } else if (snapshot.observed) {
    line = observedLine(snapshot, sinceAdvance);
  } else if (snapshot.phase == ProgressSnapshot::Phase::Migrating) {
    line = "Migrating " + formatApplicationLine(snapshot);
  } else if (snapshot.phase == ProgressSnapshot::Phase::Examining) {
    line = "Examining entries " + countText(snapshot, snapshot.examined);
  } else {
    line = "Working";
  }
  line += "  " + formatElapsed(elapsed);
  if (snapshot.errors > 0)
    line += "  " + std::to_string(snapshot.errors) + (snapshot.errors == 1 ? " error" : " errors");
  if (width > 1 && line.size() >= width) line.resize(width - 1);
  return line;
}

std::string formatSummaryLine(std::string_view name, bool succeeded,
                              std::chrono::duration<double> elapsed, std::string_view logPath) {
  std::string line(name);
  if (succeeded) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f", elapsed.count());
    line += ": succeeded in " + std::string(seconds) + " s";
  } else {
    line += ": failed (see " + std::string(logPath) + ")";
  }
  return line;
}

LiveProgressDisplay::LiveProgressDisplay(const ProgressTracker& tracker,
                                         const MavrelMigrator& migrator, std::FILE* out)
    : tracker_(tracker),
      migrator_(migrator),
      out_(out),
      start_(std::chrono::steady_clock::now()),
      thread_([this] { run(); }) {}

LiveProgressDisplay::~LiveProgressDisplay() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
  if (gSilenced.load()) return;
  std::fwrite(kClearLine.data(), 1, kClearLine.size(), out_);
  std::fflush(out_);
}

void LiveProgressDisplay::run() {
  // Draw at once, then on every tick until told to stop.
  for (;;) {
    draw();
    std::unique_lock lock(mutex_);
    if (wake_.wait_for(lock, kRedrawInterval, [this] { return stopping_; })) return;
  }
}

void silenceLiveProgress() {
  gSilenced.store(true);
}

void LiveProgressDisplay::draw() {
  if (gSilenced.load()) return;
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
  // The migrator's figure is 1.0 exactly when every entry has been counted.
  const bool allCounted = migrator_.migrationProgress() >= 1.0f;
  const ProgressSnapshot snapshot = tracker_.snapshot();
  const auto sinceAdvance = std::chrono::duration_cast<std::chrono::seconds>(
      std::chrono::steady_clock::now() - snapshot.lastAdvance);
  const std::string line =
      formatLiveLine(snapshot, allCounted, elapsed, terminalWidth(out_), sinceAdvance);
  std::fwrite(kClearLine.data(), 1, kClearLine.size(), out_);
  std::fwrite(line.data(), 1, line.size(), out_);
  std::fflush(out_);
}

}  // namespace mavrel_host
