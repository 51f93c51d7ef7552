#include "tests/support/ChildProgram.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

#include "tests/support/TestSupport.h"

extern char** environ;

namespace testing_support {

ProgramRun runProgram(const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& scratchDirectory) {
  const bool capture = !scratchDirectory.empty();
  const std::string outPath = capture ? scratchDirectory + "/stdout.txt" : "/dev/null";
  const std::string errPath = capture ? scratchDirectory + "/stderr.txt" : "/dev/null";

  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t child = -1;
  const int spawned =
      posix_spawnp(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);

  ProgramRun run;
  if (spawned != 0) {
    ADD_FAILURE() << "cannot run " << program << ": " << std::strerror(spawned);
    return run;
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return run;
  }
  if (WIFEXITED(status)) run.exitCode = WEXITSTATUS(status);
  if (capture) {
    run.out = readFile(outPath);
    run.err = readFile(errPath);
  }
  return run;
}

}  // namespace testing_support
