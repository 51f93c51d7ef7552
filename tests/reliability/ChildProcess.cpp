#include "tests/reliability/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

#include "tests/support/TestSupport.h"

extern char** environ;

namespace reliability {
namespace {

// The test's environment with `extra` laid over it.
std::vector<std::string> mergedEnvironment(const std::vector<std::string>& extra) {
  std::map<std::string, std::string> entries;
  const auto add = [&entries](const std::string& entry) {
    const auto equals = entry.find('=');
    entries[entry.substr(0, equals)] = entry;
  };
  for (char** entry = environ; *entry != nullptr; ++entry)
    add(*entry);
  for (const std::string& entry : extra)
    add(entry);
  std::vector<std::string> merged;
  for (auto& [name, entry] : entries)
    merged.push_back(entry);
  return merged;
}

// Owns the spawn attributes and file actions for the length of one spawn.
class SpawnSetup {
 public:
  SpawnSetup() {
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_init(&actions_);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t actions_;
};

}  // namespace

std::string ChildOutcome::describe() const {
  std::ostringstream text;
  if (!started) {
    text << "not started";
  } else if (timedOut) {
    text << "timed out";
  } else if (killedByUs) {
    text << "killed at a random instant";
  } else if (signal != 0) {
    text << "killed by signal " << signal << " (" << strsignal(signal) << ")";
  } else {
    text << "exit " << exitCode;
  }
  return text.str();
}

ChildOutcome runChild(const std::string& program, const std::vector<std::string>& arguments,
                      const ChildOptions& options) {
  ChildOutcome outcome;
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::vector<std::string> environment = mergedEnvironment(options.environment);
  std::vector<char*> envp;
  for (std::string& entry : environment)
    envp.push_back(entry.data());
  envp.push_back(nullptr);

  SpawnSetup setup;
  posix_spawnattr_setflags(&setup.attributes_, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&setup.attributes_, 0);
  const std::string outPath = options.outPath.empty() ? "/dev/null" : options.outPath;
  const std::string errPath = options.errPath.empty() ? "/dev/null" : options.errPath;
  posix_spawn_file_actions_addopen(&setup.actions_, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&setup.actions_, 1, outPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&setup.actions_, 2, errPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t child = -1;
  const auto start = std::chrono::steady_clock::now();
  const int spawned = posix_spawnp(&child, program.c_str(), &setup.actions_, &setup.attributes_,
                                   argv.data(), envp.data());
  if (spawned != 0) {
    outcome.err = "cannot run " + program + ": " + std::strerror(spawned);
    return outcome;
  }
  outcome.started = true;

  // Polls rather than blocks, so that the deadline and the random kill can be
  // kept; the interval is short next to a run of the migration.
  int status = 0;
  bool killSent = false;
  for (;;) {
    const pid_t done = ::waitpid(child, &status, WNOHANG);
    if (done == child) break;
    if (done < 0 && errno != EINTR) break;
    const auto now = std::chrono::steady_clock::now();
    if (!killSent && options.killAfter.count() > 0 && now - start >= options.killAfter) {
      ::kill(-child, SIGKILL);
      killSent = true;
      outcome.killedByUs = true;
    }
    if (!killSent && now - start >= options.timeout) {
      ::kill(-child, SIGKILL);
      killSent = true;
      outcome.timedOut = true;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(killSent ? 1000 : 300));
  }
  outcome.elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  if (WIFEXITED(status)) {
    outcome.exitCode = WEXITSTATUS(status);
    // The program finished before the random kill came.
    if (outcome.killedByUs && !WIFSIGNALED(status)) outcome.killedByUs = false;
  } else if (WIFSIGNALED(status)) {
    outcome.signal = WTERMSIG(status);
  }
  outcome.out = options.outPath.empty() ? "" : testing_support::readFile(options.outPath);
  outcome.err = options.errPath.empty() ? "" : testing_support::readFile(options.errPath);
  return outcome;
}

}  // namespace reliability
