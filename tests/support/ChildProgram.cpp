#include "tests/support/ChildProgram.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>

#include "platform/linux/FileDescriptor.h"
#include "tests/support/TestSupport.h"

extern char** environ;

namespace testing_support {

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
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  // The test's environment with the extra entries laid over it.
  std::map<std::string, std::string> entries;
  const auto add = [&entries](const std::string& entry) {
    entries[entry.substr(0, entry.find('='))] = entry;
  };
  for (char** entry = environ; *entry != nullptr; ++entry)
    add(*entry);
  for (const std::string& entry : options.environment)
    add(entry);
  std::vector<char*> envp;
  for (auto& [name, entry] : entries)
    envp.push_back(entry.data());
  envp.push_back(nullptr);

  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  const std::string outPath = options.outPath.empty() ? "/dev/null" : options.outPath;
  const std::string errPath = options.errPath.empty() ? "/dev/null" : options.errPath;
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t child = -1;
  const auto start = std::chrono::steady_clock::now();
  const int spawned =
      posix_spawnp(&child, program.c_str(), &actions, &attributes, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
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
    if (done == child || (done < 0 && errno != EINTR)) break;
    const auto now = std::chrono::steady_clock::now();
    const bool random = options.killAfter.count() > 0 && now - start >= options.killAfter;
    if (!killSent && (random || now - start >= options.timeout)) {
      ::kill(-child, SIGKILL);
      killSent = true;
      (random ? outcome.killedByUs : outcome.timedOut) = true;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(killSent ? 1000 : 300));
  }
  outcome.elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  if (WIFEXITED(status)) {
    outcome.exitCode = WEXITSTATUS(status);
    outcome.killedByUs = false;  // the program finished before the random kill came
  } else if (WIFSIGNALED(status)) {
    outcome.signal = WTERMSIG(status);
  }
  outcome.out = options.outPath.empty() ? "" : readFile(options.outPath);
  outcome.err = options.errPath.empty() ? "" : readFile(options.errPath);
  return outcome;
}

ProgramRun runProgram(const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& scratchDirectory) {
  ChildOptions options;
  options.timeout = std::chrono::minutes(30);
  if (!scratchDirectory.empty()) {
    options.outPath = scratchDirectory + "/stdout.txt";
    options.errPath = scratchDirectory + "/stderr.txt";
  }
  ProgramRun run = runChild(program, arguments, options);
  if (!run.started) ADD_FAILURE() << run.err;
  return run;
}

ChildOutcome runCapturedInChild(const std::function<int()>& body) {
  ChildOutcome outcome;
  const TemporaryDirectory scratch;
  const std::string outPath = scratch / "stdout", errPath = scratch / "stderr";
  std::fflush(nullptr);  // nothing buffered is written twice
  const pid_t child = ::fork();
  if (child == 0) {
    for (const auto& [path, target] : {std::pair{outPath, 1}, std::pair{errPath, 2}}) {
      const platform::sys::UniqueFd fd(
          ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      if (!fd || ::dup2(fd.get(), target) < 0) ::_exit(127);
    }
    const int code = body();
    std::fflush(nullptr);
    ::_exit(code);
  }
  if (child < 0) {
    ADD_FAILURE() << "fork failed: " << std::strerror(errno);
    return outcome;
  }
  outcome.started = true;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) outcome.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
  outcome.out = readFile(outPath);
  outcome.err = readFile(errPath);
  return outcome;
}

int runInChild(const std::function<int()>& body) {
  const ChildOutcome outcome = runCapturedInChild(body);
  std::fwrite(outcome.out.data(), 1, outcome.out.size(), stdout);
  std::fwrite(outcome.err.data(), 1, outcome.err.size(), stderr);
  return outcome.signal != 0 ? 128 + outcome.signal : outcome.exitCode;
}

}  // namespace testing_support
