// The order of writes, flushes and renames in a real migration, read from its
// strace trace; and the lint itself on small traces that break each rule.
#include <gtest/gtest.h>

#include "tests/reliability/DurabilityLint.h"
#include "tests/reliability/SweepRunner.h"
#include "tests/support/TestSupport.h"

namespace reliability {
namespace {

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines)
    text += "  " + line + "\n";
  return text;
}

TEST(DurabilityLintTest, AMigrationFlushesWhatItWritesAsideAndItsMarkersBeforeMoving) {
  SweepSettings settings = sweepSettings();
  ASSERT_TRUE(settings.error.empty()) << settings.error;
  settings.workers = 1;
  testing_support::TemporaryDirectory base;
  std::string reason;
  const auto workspaces = makeWorkspaces(base.path(), settings, &reason);
  ASSERT_FALSE(workspaces.empty()) << reason;
  SweepWorkspace& workspace = *workspaces.front();
  const Trace trace = traceMigration(workspace, durabilityTracedCalls(), &reason);
  ASSERT_FALSE(trace.calls.empty()) << reason;
  EXPECT_EQ(trace.unreadLines, 0u);

  // The host's temporary directory holds the staged placeholders, removed by
  // the call that fills them.
  const DurabilityFindings findings =
      lintTrace(trace, workspace.root(),
                {workspace.scratch() + "/migrate.out", workspace.scratch() + "/migrate.err"},
                {workspace.root() + "/private/var/tmp/mavrel"});
  std::printf(
      "Durability: %zu calls checked, %zu files written aside (%zu more in the temporary "
      "directory), %zu markers\n",
      findings.callsChecked, findings.filesWrittenAside, findings.filesInScratch,
      findings.markersChecked);
  // Every container of the image gets a marker before its data moves.
  EXPECT_EQ(findings.markersChecked, workspace.manifest().containers.size());
  EXPECT_GT(findings.filesWrittenAside, findings.markersChecked);
  EXPECT_GT(findings.filesInScratch, 0u);
  EXPECT_TRUE(findings.violations.empty()) << joined(findings.violations);
}

// Small traces in strace's own format ("-f -y"), each breaking a rule or
// keeping it, and the violations the lint names (by their start).
TEST(DurabilityLintTest, NamesEachBrokenRule) {
  const std::string aside =
      "7 openat(AT_FDCWD</>, \"/img/d/.f.tmp\", O_WRONLY|O_CREAT|O_EXCL, 0644) = 3</img/d/.f.tmp>\n"
      "7 write(3</img/d/.f.tmp>, \"abc\", 3) = 3\n";
  const std::string scratch =
      "7 openat(AT_FDCWD</>, \"/img/tmp/p.app/.f.tmp\", O_WRONLY|O_CREAT|O_EXCL, 0644) = "
      "3</img/tmp/p.app/.f.tmp>\n"
      "7 rename(\"/img/tmp/p.app/.f.tmp\", \"/img/tmp/p.app/f\") = 0\n";
  struct Case {
    std::string trace;
    std::vector<std::string> scratch;
    std::vector<std::string> violations;
  };
  const Case cases[] = {
      {aside + "7 rename(\"/img/d/.f.tmp\", \"/img/d/f\") = 0\n7 mkdir(\"/img/e\", 0755) = 0\n",
       {},
       {"/img/d/f (written aside as /img/d/.f.tmp) is renamed into place without being flushed",
        "/img/d is not flushed after /img/d/f is renamed into it"}},
      {aside + "7 fsync(3</img/d/.f.tmp>) = 0\n7 rename(\"/img/d/.f.tmp\", \"/img/d/f\") = 0\n"
               "7 fsync(4</img/d>) = 0\n",
       {},
       {}},
      {scratch, {}, {"/img/tmp/p.app/f (written aside", "/img/tmp/p.app is not flushed"}},
      {scratch, {"/img/tmp"}, {}},
      {"7 openat(AT_FDCWD</>, \"/img/c/.m.tmp\", O_WRONLY|O_CREAT|O_EXCL, 0644) = "
       "3</img/c/.m.tmp>\n"
       "7 write(3</img/c/.m.tmp>, \"<plist/>\", 8) = 8\n"
       "7 rename(\"/img/c/.m.tmp\", \"/img/c/com.zentrel.corvane.container_migrator.plist\") = 0\n"
       "7 renameat2(AT_FDCWD</>, \"/img/c/Documents\", AT_FDCWD</>, \"/img/data/Documents\", 0) = "
       "0\n",
       {},
       {"/img/c/com.zentrel.corvane.container_migrator.plist (written aside",
        "/img/c is not flushed after",
        "the marker of /img/c is not durable before /img/c/Documents "
        "leaves it"}},
      {"7 mkdirat(5</tmp>, \"stray\", 0700) = 0\n7 unlink(\"/img/x\") = 0\n"
       "7 write(1</scratch/out>, \"done\\n\", 5) = 5\n"
       "7 unlink(\"/elsewhere/y\") = -1 ENOENT (No such file or directory)\n",
       {},
       {"mkdirat changes /tmp/stray, outside the root"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trace);
    const DurabilityFindings findings =
        lintTrace(parseTrace(c.trace), "/img", {"/scratch/out"}, c.scratch);
    ASSERT_EQ(findings.violations.size(), c.violations.size()) << joined(findings.violations);
    for (std::size_t i = 0; i < c.violations.size(); ++i)
      EXPECT_TRUE(findings.violations[i].starts_with(c.violations[i])) << findings.violations[i];
  }
}

}  // namespace
}  // namespace reliability
