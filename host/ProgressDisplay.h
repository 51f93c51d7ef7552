// What the user sees of a migration on standard output.
//
// On a terminal, LiveProgressDisplay redraws one line in place a few times a
// second from a thread of its own: the phase, the count against the total,
// the application being migrated and the elapsed time. With a plug-in that
// reports its entries, the count is of entries dealt with (it never goes
// back), the line names the step under way, and a pass that has not advanced
// for a while says so ("still migrating X (moving data), 40 s"). Elsewhere,
// plain lines are printed: one per application ("[12/40] com.example.app").
//
// The formatting functions are pure and cannot fail.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "host/ProgressTracker.h"

class MavrelMigrator;

namespace mavrel_host {

// "0:07", "12:34", "1:02:03".
std::string formatElapsed(std::chrono::seconds elapsed);
// "[12/40] com.example.app"; "[12] ..." while the total is unknown.
std::string formatApplicationLine(const ProgressSnapshot& snapshot);
// The live line, cut to `width` columns (0: no limit). `allCounted` is true
// once the migrator's own progress figure reports every entry dealt with.
// `sinceAdvance` is the time since the snapshot's figures last changed.
std::string formatLiveLine(const ProgressSnapshot& snapshot, bool allCounted,
                           std::chrono::seconds elapsed, std::size_t width,
                           std::chrono::seconds sinceAdvance = std::chrono::seconds(0));
// How long nothing may advance before the live line says so.
inline constexpr std::chrono::seconds kStallNotice{15};
// "CVAppMigrator: succeeded in 3.2 s" or "CVAppMigrator: failed (see <log>)".
std::string formatSummaryLine(std::string_view name, bool succeeded,
                              std::chrono::duration<double> elapsed, std::string_view logPath);

// Stops every live display from drawing, for good: the run is ending
// (interrupted) and what it prints last must not be drawn over.
void silenceLiveProgress();

class LiveProgressDisplay {
 public:
  // Starts redrawing on `out` (a terminal) until destroyed; the line is then
  // cleared. `tracker` and `migrator` must outlive the display.
  LiveProgressDisplay(const ProgressTracker& tracker, const MavrelMigrator& migrator,
                      std::FILE* out);
  ~LiveProgressDisplay();
  LiveProgressDisplay(const LiveProgressDisplay&) = delete;
  LiveProgressDisplay& operator=(const LiveProgressDisplay&) = delete;

 private:
  void run();
  void draw();

  const ProgressTracker& tracker_;
  const MavrelMigrator& migrator_;
  std::FILE* out_;
  const std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;  // last: started once the members it uses exist
};

}  // namespace mavrel_host
