#include "tests/reliability/SweepRunner.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/linux/ExtendedAttributes.h"

namespace reliability {
namespace {

bool readCount(const char* name, std::uint64_t& value, std::string& error) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  const unsigned long long parsed = std::strtoull(text, &end, 10);
  if (*end != '\0') {
    error += std::string(name) + " is not a count: " + text + "\n";
    return false;
  }
  value = parsed;
  return true;
}

// Whether the sweeps can run in `parent`: a directory with room for the
// images and traces (a container's /dev/shm may be small) where a new
// directory takes a "user." attribute (the platform keeps protection classes
// and placeholder marks in them).
bool suitsTheSweeps(const std::string& parent) {
  constexpr std::uintmax_t kRoomNeeded = 512u << 20;
  std::error_code error;
  if (!std::filesystem::is_directory(parent, error)) return false;
  const std::filesystem::space_info space = std::filesystem::space(parent, error);
  if (error || space.available < kRoomNeeded) return false;
  testing_support::TemporaryDirectory probe(parent);
  return platform::sys::setAttribute(platform::sys::AttributeItem::link(probe.path().c_str()),
                                     "user.mavrel.probe", "1") == 0;
}

std::string defaultWorkspaceParent() {
  if (suitsTheSweeps("/dev/shm")) return "/dev/shm";
  const char* temporary = std::getenv("TMPDIR");
  return temporary && *temporary ? temporary : "/tmp";
}

}  // namespace

std::string SweepSettings::describe() const {
  std::ostringstream text;
  text << "mode "
       << (mode == SweepMode::CI        ? "ci"
           : mode == SweepMode::Sampled ? "sampled"
                                        : "exhaustive")
       << ", image of " << image.applications << " applications + " << image.vpnOnly
       << " VPN-only (seed " << image.seed << ", data scale " << image.dataScale << "), " << workers
       << " workers, workspaces in " << workspaceParent;
  return text.str();
}

SweepSettings sweepSettings() {
  SweepSettings settings;
  const char* mode = std::getenv("MAVREL_RELIABILITY_MODE");
  const std::string modeName = mode ? mode : "ci";
  if (modeName == "sampled") {
    settings.mode = SweepMode::Sampled;
    settings.image = ImageSettings{12, 1, 17, 0.2};
  } else if (modeName == "exhaustive") {
    settings.mode = SweepMode::Exhaustive;
  } else if (modeName != "ci") {
    settings.error += "MAVREL_RELIABILITY_MODE must be ci, sampled or exhaustive\n";
  }
  // The CI sample of fault trials; the longer modes run them all.
  settings.faultTrials = settings.mode == SweepMode::CI ? 240 : 0;
  settings.idempotenceEvery = settings.mode == SweepMode::CI ? 8 : 1;
  std::uint64_t value = 0;
  if (readCount("MAVREL_RELIABILITY_APPS", value, settings.error))
    settings.image.applications = value;
  if (readCount("MAVREL_RELIABILITY_VPN", value, settings.error)) settings.image.vpnOnly = value;
  if (readCount("MAVREL_RELIABILITY_SEED", value, settings.error)) settings.image.seed = value;
  if (readCount("MAVREL_RELIABILITY_POINTS", value, settings.error)) {
    settings.sampledKillPoints = value;
    settings.faultTrials = value;
  }
  if (readCount("MAVREL_RELIABILITY_RANDOM_KILLS", value, settings.error))
    settings.randomInstantKills = value;
  if (readCount("MAVREL_RELIABILITY_WORKERS", value, settings.error) && value > 0)
    settings.workers = value;
  const char* parent = std::getenv("MAVREL_RELIABILITY_DIR");
  settings.workspaceParent = parent && *parent ? parent : defaultWorkspaceParent();
  return settings;
}

std::vector<std::unique_ptr<SweepWorkspace>> makeWorkspaces(const std::string& base,
                                                            const SweepSettings& settings,
                                                            std::string* reason) {
  std::vector<std::unique_ptr<SweepWorkspace>> workspaces;
  for (std::size_t i = 0; i < settings.workers; ++i) {
    auto workspace =
        SweepWorkspace::create(base + "/worker" + std::to_string(i), settings.image, reason);
    if (!workspace) return {};
    workspaces.push_back(std::move(workspace));
  }
  return workspaces;
}

void runTrials(const std::vector<std::unique_ptr<SweepWorkspace>>& workspaces, std::size_t count,
               const std::function<void(SweepWorkspace&, std::size_t index)>& trial) {
  std::atomic<std::size_t> next{0};
  std::vector<std::thread> threads;
  for (const auto& workspace : workspaces) {
    threads.emplace_back([&next, &trial, count, &workspace] {
      for (std::size_t index = next++; index < count; index = next++)
        trial(*workspace, index);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

Trace traceMigration(SweepWorkspace& workspace, const std::vector<std::string>& traced,
                     std::string* reason) {
  if (!workspace.restore(reason)) return {};
  StracePlan plan;
  plan.traced = traced;
  plan.outputPath = workspace.scratch() + "/reference.trace";
  const ChildOutcome run = workspace.migrate(plan);
  if (run.exitCode != 0) {
    *reason = "the traced migration did not succeed: " + run.describe() + "\n" + run.out + run.err;
    return {};
  }
  return parseTrace(testing_support::readFile(plan.outputPath));
}

void SweepFindings::count(const std::string& figure, std::uint64_t amount) {
  std::lock_guard lock(mutex_);
  figures_[figure] += amount;
}

void SweepFindings::problem(const std::string& trial, const std::string& what) {
  std::lock_guard lock(mutex_);
  problems_.push_back(trial + ": " + what);
}

std::uint64_t SweepFindings::figure(const std::string& name) const {
  std::lock_guard lock(mutex_);
  const auto found = figures_.find(name);
  return found == figures_.end() ? 0 : found->second;
}

void SweepFindings::note(const std::string& trial, const std::string& what) {
  std::lock_guard lock(mutex_);
  notes_.push_back(trial + ": " + what);
}

std::vector<std::string> SweepFindings::notes() const {
  std::lock_guard lock(mutex_);
  return notes_;
}

std::vector<std::string> SweepFindings::problems() const {
  std::lock_guard lock(mutex_);
  return problems_;
}

std::string SweepFindings::figures() const {
  std::lock_guard lock(mutex_);
  std::ostringstream text;
  for (const auto& [name, value] : figures_)
    text << "  " << name << ": " << value << "\n";
  return text.str();
}

int rerunUntilSuccess(SweepWorkspace& workspace, SweepFindings& findings, const std::string& trial,
                      int maxReruns,
                      const std::function<void(const std::string& when, bool finished)>& check,
                      bool unfinishedIsFinding) {
  for (int rerun = 1; rerun <= maxReruns; ++rerun) {
    const std::string logsBefore = workspace.logs();
    const ChildOutcome run = workspace.migrate();
    if (!endedByTheHost(run)) {
      findings.problem(trial, "rerun " + std::to_string(rerun) + " " + run.describe() + "\n" +
                                  lastLines(run.err, 40));
      return 0;
    }
    check(trial + ", after rerun " + std::to_string(rerun), run.exitCode == 0);
    if (run.exitCode == 0) return rerun;
    const auto errors = newErrorLines(logsBefore, workspace.logs(), workspace.root());
    const std::string first = errors.empty() ? std::string("(no error line)") : errors.front();
    findings.count("reruns failing first with: " + first.substr(0, 220));
    findings.note(trial, "rerun " + std::to_string(rerun) + " failed: " + first);
  }
  if (workspace.onlyMarkersAndAsideFilesLeft()) {
    findings.count(
        "trials ending with a container kept for an aside file left by the interruption");
    return 0;
  }
  const std::string what = "no success after " + std::to_string(maxReruns) + " reruns";
  if (unfinishedIsFinding) {
    findings.count("trials never finishing (the migration's rules keep a container)");
    findings.note(trial, what);
  } else {
    findings.problem(trial, what + "; the log ends:\n" + lastLines(workspace.logs(), 12));
  }
  return 0;
}

std::string lastLines(const std::string& text, std::size_t lines) {
  std::size_t at = text.size();
  for (std::size_t seen = 0; at > 0 && seen <= lines;) {
    --at;
    if (text[at] == '\n') ++seen;
  }
  return text.substr(at == 0 ? 0 : at + 1);
}

void SweepTest::SetUp() {
  settings_ = sweepSettings();
  ASSERT_TRUE(settings_.error.empty()) << settings_.error;
  base_.emplace(settings_.workspaceParent);
  std::string reason;
  workspaces_ = makeWorkspaces(base_->path(), settings_, &reason);
  ASSERT_FALSE(workspaces_.empty()) << reason;
}

void SweepTest::countFiles(const ImageCheck& check) {
  findings_.count("files verified", check.filesVerified);
  findings_.count("files lost", check.lost.size());
  findings_.count("files verified in a data container mavrel apps does not list",
                  check.filesInUnlistedContainers);
  findings_.count("files lost under a rule of the migration", check.lossesByRule.size());
  findings_.count("files kept in a safety net", check.filesInSafetyNet);
}

void SweepTest::countSecondsSince(std::chrono::steady_clock::time_point start) {
  const auto elapsed = std::chrono::steady_clock::now() - start;
  findings_.count("seconds",
                  static_cast<std::uint64_t>(
                      std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()));
}

void SweepTest::report(const std::string& title) {
  // At most `limit` lines, then how many more there are.
  const auto listed = [](const std::vector<std::string>& lines, std::size_t limit) {
    std::string text;
    for (std::size_t i = 0; i < lines.size() && i < limit; ++i)
      text += "  " + lines[i] + "\n";
    if (lines.size() > limit)
      text += "  ... and " + std::to_string(lines.size() - limit) + " more\n";
    return text;
  };
  const std::vector<std::string> notes = findings_.notes();
  std::printf("%s (%s)\n%sNotes:\n%s", title.c_str(), settings_.describe().c_str(),
              findings_.figures().c_str(), listed(notes, 12).c_str());
  // Every note, for reading the long runs' findings one by one.
  if (const char* path = std::getenv("MAVREL_RELIABILITY_NOTES"); path && *path) {
    std::ofstream file(path, std::ios::app);
    file << "# " << title << " (" << settings_.describe() << ")\n" << listed(notes, notes.size());
  }
  EXPECT_EQ(findings_.figure("files lost"), 0u);
  EXPECT_TRUE(findings_.problems().empty()) << listed(findings_.problems(), 20);
}

}  // namespace reliability
