// The frame of the crash and fault sweeps (docs/RELIABILITY.md): one
// workspace per worker (a generated image restored from its template before
// every trial, a canary beside it, a scratch directory), trials run side by
// side, the findings with their report, and the fixture the sweeps share.
//
// ctest runs the "ci" mode; tests/reliability/run-sweeps sets these for the
// longer ones:
//
//   MAVREL_RELIABILITY_MODE          ci (default), sampled or exhaustive
//   MAVREL_RELIABILITY_APPS          applications of the image
//   MAVREL_RELIABILITY_VPN           VPN-only containers of the image
//   MAVREL_RELIABILITY_SEED          the image's seed, and the sampling's
//   MAVREL_RELIABILITY_POINTS        kill points (sampled) / fault trials
//   MAVREL_RELIABILITY_RANDOM_KILLS  kills at random instants (sampled)
//   MAVREL_RELIABILITY_WORKERS       trials run side by side (default 2)
//   MAVREL_RELIABILITY_STRICT        set: the fault sweep's known findings fail too
//   MAVREL_RELIABILITY_NOTES         a file every note of every sweep is added to
//   MAVREL_RELIABILITY_DIR           where the workspaces go (default /dev/shm
//                                    when it suits, else $TMPDIR)
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "samplegen/ImageManifest.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

namespace reliability {

// The strace lever of the reliability sweeps: command lines that trace the
// mavrel program, kill it at the Nth call of one system call or make that call
// fail (counted per call and per thread, docs/RELIABILITY.md), and a reader
// for the trace that strace writes ("-f -y -o FILE"). parseTrace never fails:
// lines it cannot read are counted in `unreadLines`.

// The system calls that change what is on the disk (or make it durable), as
// strace names them on x86-64 and aarch64.
const std::vector<std::string>& mutatingSystemCalls();

struct TracedCall {
  int pid = 0;
  std::string name;
  std::vector<std::string> arguments;  // as strace printed them, split at top-level commas
  std::string result;                  // "0", "3</path>", "-1", "?" (did not return)
  std::string errorName;               // "ENOENT" ... when it failed
  bool injected = false;               // strace made it fail ("(INJECTED)")

  bool failed() const { return !errorName.empty(); }
  bool returned() const { return result != "?"; }
  // The path strace printed for argument `index` ("3</a/b>" gives "/a/b"; a
  // quoted string gives its text), or "".
  std::string pathArgument(std::size_t index) const;
  // The absolute path named by a directory descriptor argument and a path
  // argument (openat, renameat2, ...): the path itself when it is absolute.
  std::string pathAt(std::size_t directoryIndex, std::size_t pathIndex) const;
  // The path of the descriptor returned ("3</a/b>" gives "/a/b"), or "".
  std::string resultPath() const;
  // Whether this call, as traced, changes the disk: every mutating call, and
  // opens that create or truncate.
  bool changesDisk() const;
};

struct Trace {
  std::vector<TracedCall> calls;
  std::size_t unreadLines = 0;
  // Whether `call` was made by the program's first thread, the only one
  // whose calls an injection's `when` singles out (strace counts per thread).
  bool byFirstThread(const TracedCall& call) const {
    return !calls.empty() && call.pid == calls.front().pid;
  }
};

Trace parseTrace(const std::string& text);

// How strace is to run the program.
struct StracePlan {
  std::vector<std::string> traced;  // system calls to trace (and count)
  std::string outputPath;           // "-o" file ("" sends the trace to /dev/null)
  // One injection, or none.
  std::optional<std::string> injectCall;
  std::string injectAction;  // "signal=SIGKILL" or "error=EIO"
  std::string injectWhen;    // "7" or "7+"
};

// The strace arguments (without "strace" itself) that run `program` with
// `arguments` under `plan`.
std::vector<std::string> straceArguments(const StracePlan& plan, const std::string& program,
                                         const std::vector<std::string>& arguments);

using testing_support::ChildOutcome;

enum class SweepMode { CI, Sampled, Exhaustive };

struct SweepSettings {
  SweepMode mode = SweepMode::CI;
  std::size_t applications = 10, vpnOnly = 1;
  std::uint64_t seed = 1;
  double dataScale = 0.05;
  std::size_t workers = 2;
  std::string workspaceParent;
  // Sampled mode: kill points, and kills at random instants of plain runs.
  std::size_t sampledKillPoints = 600, randomInstantKills = 150;
  // Every how many kill points the run after a success is checked for
  // changing nothing (1: after every one).
  std::size_t idempotenceEvery = 1;
  // Fault trials (call kind x errno x once/persistent x N) run; 0: all.
  std::size_t faultTrials = 0;
  std::string error;  // malformed variables; the defaults are kept

  std::string describe() const;
};

SweepSettings sweepSettings();

// What `check` found. Losses the migration's own rules produce are counted
// apart, with the log line that proves the rule applied.
struct ImageCheck {
  std::uint64_t filesVerified = 0;
  // Verified in a data container that `mavrel apps` does not name (the owner,
  // a VPN plug-in of a VPN-only container, is not listed).
  std::uint64_t filesInUnlistedContainers = 0;
  std::vector<std::string> lost;          // no copy anywhere, no rule explains it
  std::vector<std::string> changed;       // a copy with other bytes
  std::vector<std::string> lossesByRule;  // lost under a rule of the migration
  // Gone from its old and new places, kept in a safety net of the image.
  std::uint64_t filesInSafetyNet = 0;
  std::vector<std::string> stranded;  // only at the legacy place after a successful run
  std::vector<std::string> missingContainers;
  std::vector<std::string> outsideChanges;  // the canary or the image's parent changed
  std::string listingError;                 // `mavrel apps --json` failed
  long pendingInstalls = 0;                 // as the listing says

  bool clean() const {
    return lost.empty() && changed.empty() && stranded.empty() && missingContainers.empty() &&
           outsideChanges.empty() && listingError.empty();
  }
  std::string describe() const;
};

using testing_support::AccessTimes;
using testing_support::TreeSnapshot;

class SweepWorkspace {
 public:
  // Makes `base` (which must not exist yet) and generates the image in it;
  // null and a reason naming the path or program at fault when it cannot.
  static std::unique_ptr<SweepWorkspace> create(const std::string& base,
                                                const SweepSettings& settings, std::string* reason);

  bool restore(std::string* reason);

  const std::string& root() const { return root_; }
  const std::string& scratch() const { return scratch_; }
  const samplegen::ImageManifest& manifest() const { return manifest_; }
  std::uint64_t recordedFiles() const { return data_.size(); }

  // `mavrel migrate --root <image>`, plain or under strace; or a plain run
  // killed with SIGKILL `killAfter` its start.
  ChildOutcome migrate(const std::optional<StracePlan>& strace = std::nullopt,
                       std::chrono::milliseconds timeout = std::chrono::seconds(120),
                       std::chrono::microseconds killAfter = {}) const;
  // A migration under strace with one injection ("signal=SIGKILL" or
  // "error=EIO" at the `when`th call named `call`), and the trace of that call.
  ChildOutcome migrateInjecting(
      const std::string& call, const std::string& action, const std::string& when, Trace* trace,
      std::chrono::milliseconds timeout = std::chrono::seconds(120)) const;
  ChildOutcome listApplications() const;

  // Whether every recorded user-data file is at its legacy or new place with
  // its bytes, every registered container exists and nothing beside the image
  // changed. `finished`: the last run succeeded, so user data must be at its
  // new place (safe harbors stay). Never fails: it reports.
  ImageCheck check(bool finished = false) const;
  TreeSnapshot snapshot() const;
  // Every line of every migration and installer log written in the image.
  std::string logs() const;
  // Whether the legacy containers still there hold nothing but marker names
  // and at least one file that an interrupted atomic write left beside its
  // target (".<name>.<16 hex digits>.tmp").
  bool onlyMarkersAndAsideFilesLeft() const;

 private:
  SweepWorkspace() = default;
  struct DataFile {
    std::string owner;     // application or group identifier, or harbor path
    std::string kind;      // "container", "group" or "harbor"
    std::string legacy;    // the legacy directory the relative path is below
    std::string relative;  // "Documents/a/b.dat"
    std::string digest;
  };
  bool recordData(std::string* reason);
  // mavrel with `arguments`, its output in the scratch directory as <name>.out
  // and <name>.err.
  ChildOutcome run(const std::vector<std::string>& arguments, const std::string& name,
                   testing_support::ChildOptions options,
                   const std::optional<StracePlan>& strace = {}) const;
  void checkOutside(ImageCheck& result) const;

  std::string base_, root_, template_, canary_, scratch_;
  samplegen::ImageManifest manifest_;
  std::vector<DataFile> data_;
  TreeSnapshot canarySnapshot_;
};

// True when an outcome is one of the host's own: exit 0 to 3.
bool endedByTheHost(const ChildOutcome& outcome);

// A traced run of the whole migration on a freshly restored image: every
// call of `traced` with its arguments and results.
Trace traceMigration(SweepWorkspace& workspace, const std::vector<std::string>& traced,
                     std::string* reason);

std::string lastLines(const std::string& text, std::size_t lines);

class SweepTest : public ::testing::Test {
 protected:
  void SetUp() override;

  // Calls `trial` for every index below `count`, spread over the workspaces
  // (each used by one thread at a time), each restored just before.
  void runTrials(std::size_t count,
                 const std::function<void(SweepWorkspace&, std::size_t index)>& trial);
  // Figures, problems and notes (worth reading, not failures), from any worker.
  void count(const std::string& figure, std::uint64_t amount = 1);
  void problem(const std::string& trial, const std::string& what) { add(problems_, trial, what); }
  void note(const std::string& trial, const std::string& what) { add(notes_, trial, what); }
  // Plain runs of the migration until one succeeds, at most three, with
  // `check(when, finished)` after each; a failed rerun is counted under its
  // first new error line. When none succeeds, containers kept for aside files
  // of interrupted writes are counted; anything else is a problem, or with
  // `unfinishedIsFinding` a noted finding. Returns the runs it took, or 0.
  int rerunUntilSuccess(SweepWorkspace& workspace, const std::string& trial,
                        const std::function<void(const std::string& when, bool finished)>& check,
                        bool unfinishedIsFinding = false);
  // Counts the files of one check, the same way in both sweeps.
  void countFiles(const ImageCheck& check);
  // Prints the figures (with "seconds" since `start` when given) and notes
  // under `title`; a lost file or a problem fails the test.
  void report(const std::string& title,
              std::optional<std::chrono::steady_clock::time_point> start = std::nullopt);

  SweepSettings settings_;
  std::optional<testing_support::TemporaryDirectory> base_;
  std::vector<std::unique_ptr<SweepWorkspace>> workspaces_;

 private:
  void add(std::vector<std::string>& lines, const std::string& trial, const std::string& what);

  std::mutex mutex_;
  std::map<std::string, std::uint64_t> figures_;
  std::vector<std::string> problems_, notes_;
};

}  // namespace reliability
