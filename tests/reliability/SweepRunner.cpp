#include "tests/reliability/SweepRunner.h"

#include <atomic>
#include <sstream>
#include <thread>

#include "tests/support/TestSupport.h"

namespace reliability {

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

std::string SweepFindings::noteReport(std::size_t limit) const {
  std::lock_guard lock(mutex_);
  std::ostringstream text;
  for (std::size_t i = 0; i < notes_.size() && i < limit; ++i)
    text << "  " << notes_[i] << "\n";
  if (notes_.size() > limit) text << "  ... and " << notes_.size() - limit << " more\n";
  return text.str();
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

std::string SweepFindings::problemReport(std::size_t limit) const {
  std::lock_guard lock(mutex_);
  std::ostringstream text;
  std::size_t shown = 0;
  for (const std::string& problem : problems_) {
    if (++shown > limit) {
      text << "... and " << problems_.size() - limit << " more\n";
      break;
    }
    text << problem << "\n";
  }
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
  if (!workspace.strayAsideFiles().empty() && workspace.onlyMarkersAndAsideFilesLeft()) {
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

}  // namespace reliability
