// The order of a migration's writes, flushes and renames, checked on its
// trace by the rules of docs/RELIABILITY.md ("Durability"), and on small
// traces that break each rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <set>

#include "tests/reliability/Sweep.h"
#include "tests/support/TreeSnapshot.h"

namespace reliability {
namespace {

using testing_support::listed;

constexpr std::string_view kMarkerName = "com.zentrel.corvane.container_migrator.plist";

bool isOneOf(const std::string& name, std::initializer_list<std::string_view> names) {
  return std::ranges::find(names, name) != names.end();
}

bool isFileFlush(const std::string& name) {
  return isOneOf(name, {"fsync", "fdatasync"});
}
bool isWrite(const std::string& name) {
  return isOneOf(name, {"write", "pwrite64", "writev", "pwritev", "pwritev2"});
}
bool isRename(const std::string& name) {
  return isOneOf(name, {"rename", "renameat", "renameat2"});
}

std::string withoutDeletedMark(std::string path) {
  if (path.ends_with(" (deleted)")) path.resize(path.size() - std::strlen(" (deleted)"));
  return path;
}

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The file a descriptor argument names ("" for pipes, sockets and the like).
std::string descriptorPath(const TracedCall& call, std::size_t index) {
  const std::string path = withoutDeletedMark(call.pathArgument(index));
  return !path.empty() && path.front() == '/' ? path : std::string();
}

// Source and destination of a rename.
std::pair<std::string, std::string> renamePaths(const TracedCall& call) {
  if (call.name == "rename") return {call.pathArgument(0), call.pathArgument(1)};
  return {call.pathAt(0, 1), call.pathAt(2, 3)};
}

// The path an open names (the result's when strace resolved it).
std::string openedPath(const TracedCall& call) {
  const std::string resolved = withoutDeletedMark(call.resultPath());
  if (!resolved.empty()) return resolved;
  return call.name == "open" || call.name == "creat" ? call.pathArgument(0) : call.pathAt(0, 1);
}

// Every path a successful call changes.
std::vector<std::string> changedPaths(const TracedCall& call) {
  const std::string& name = call.name;
  if (isOneOf(name, {"open", "openat", "openat2", "creat"})) return {openedPath(call)};
  if (isOneOf(name, {"mkdir", "rmdir", "unlink", "truncate", "chmod", "chown", "lchown", "setxattr",
                     "lsetxattr", "removexattr", "lremovexattr"}))
    return {call.pathArgument(0)};
  if (isOneOf(name, {"mkdirat", "unlinkat", "fchmodat", "fchownat"})) return {call.pathAt(0, 1)};
  if (name == "utimensat") {
    const std::string path = call.pathAt(0, 1);
    return {path.empty() ? descriptorPath(call, 0) : path};
  }
  if (isRename(name)) {
    const auto [source, destination] = renamePaths(call);
    return {source, destination};
  }
  if (isOneOf(name, {"link", "symlink"})) return {call.pathArgument(1)};
  if (name == "linkat") return {call.pathAt(2, 3)};
  if (name == "symlinkat") return {call.pathAt(1, 2)};
  if (name == "copy_file_range") return {descriptorPath(call, 2)};
  if (isWrite(name) || isOneOf(name, {"ftruncate", "fallocate", "fsetxattr", "fremovexattr",
                                      "fchmod", "fchown", "sendfile"}))
    return {descriptorPath(call, 0)};
  return {};
}

bool isInside(const std::string& path, const std::string& root) {
  return path == root || path.rfind(root + "/", 0) == 0;
}

// A write to one of the run's logs, which the rules about ordering ignore.
bool isLogWrite(const TracedCall& call) {
  return isWrite(call.name) && descriptorPath(call, 0).find("/Library/Logs/") != std::string::npos;
}

struct DurabilityFindings {
  std::vector<std::string> violations;
  std::size_t filesWrittenAside = 0;
  std::size_t filesInScratch = 0;  // written aside below a scratch directory
  std::size_t markersChecked = 0;
  std::size_t callsChecked = 0;
};

// `root`: the device root; `allowedOutside`: paths outside it that the run
// may write (its standard output and error); `scratch`: directories whose
// files need not outlive a crash (staging removed by the call that fills
// it), exempt from the flush rules. Every violation is one line that names
// the file and the rule.
DurabilityFindings lintTrace(const Trace& trace, const std::string& root,
                             const std::vector<std::string>& allowedOutside,
                             const std::vector<std::string>& scratch) {
  DurabilityFindings findings;
  const std::set<std::string> allowed(allowedOutside.begin(), allowedOutside.end());
  std::map<std::string, std::size_t> created;    // path -> index of the creating open
  std::map<std::string, std::size_t> lastWrite;  // path -> index
  std::map<std::string, std::size_t> lastFlush;  // path -> index
  std::map<std::string, std::optional<std::size_t>> markerDurable;  // container -> when
  std::set<std::string> containersMoved;

  // The first flush of `directory` after call `after`, before anything else
  // the same thread does changes the disk (another thread's work, such as
  // the installer's removals of what it replaced, does not wait for it).
  const auto directoryFlushedAfter =
      [&trace](std::size_t after, const std::string& directory) -> std::optional<std::size_t> {
    for (std::size_t j = after + 1; j < trace.calls.size(); ++j) {
      const TracedCall& call = trace.calls[j];
      if (call.failed() || !call.returned() || call.pid != trace.calls[after].pid) continue;
      if (isFileFlush(call.name) && descriptorPath(call, 0) == directory) return j;
      if (call.name == "syncfs") return j;
      if (call.changesDisk() && !isLogWrite(call)) return std::nullopt;
    }
    return std::nullopt;
  };

  for (std::size_t i = 0; i < trace.calls.size(); ++i) {
    const TracedCall& call = trace.calls[i];
    if (call.failed() || !call.returned()) continue;
    ++findings.callsChecked;

    if (call.changesDisk()) {
      for (const std::string& path : changedPaths(call)) {
        if (path.empty() || isInside(path, root) || allowed.contains(path) ||
            path.rfind("/dev/", 0) == 0)
          continue;
        findings.violations.push_back(call.name + " changes " + path + ", outside the root");
      }
    }

    if (isOneOf(call.name, {"open", "openat", "openat2", "creat"}) && call.changesDisk()) {
      const std::string path = openedPath(call);
      if (call.arguments.size() > 2 && call.arguments[2].find("O_DIRECTORY") != std::string::npos)
        continue;
      created[path] = i;
      lastWrite.erase(path);
      lastFlush.erase(path);
    } else if (isWrite(call.name)) {
      lastWrite[descriptorPath(call, 0)] = i;
    } else if (isFileFlush(call.name)) {
      lastFlush[descriptorPath(call, 0)] = i;
    } else if (isRename(call.name)) {
      const auto [source, destination] = renamePaths(call);
      const bool isMarker = destination.substr(destination.rfind('/') + 1) == kMarkerName;

      // The first item that leaves a container whose marker was written.
      const std::string sourceDirectory = directoryOf(source);
      if (!isMarker && markerDurable.contains(sourceDirectory) &&
          !containersMoved.contains(sourceDirectory)) {
        containersMoved.insert(sourceDirectory);
        const auto durable = markerDurable[sourceDirectory];
        if (!durable || *durable > i)
          findings.violations.push_back("the marker of " + sourceDirectory +
                                        " is not durable before " + source + " leaves it");
      }

      const auto origin = created.find(source);
      if (origin == created.end()) continue;  // a move of an existing item
      const bool inScratch =
          std::ranges::any_of(scratch, [&destination](const std::string& directory) {
            return isInside(destination, directory);
          });
      if (inScratch) {
        ++findings.filesInScratch;
        created.erase(origin);
        continue;
      }
      ++findings.filesWrittenAside;
      const auto write = lastWrite.find(source);
      const std::size_t mustFlushAfter =
          write == lastWrite.end() ? origin->second : std::max(origin->second, write->second);
      const auto flush = lastFlush.find(source);
      if (flush == lastFlush.end() || flush->second < mustFlushAfter)
        findings.violations.push_back(destination + " (written aside as " + source +
                                      ") is renamed into place without being flushed first");
      const std::string directory = directoryOf(destination);
      const auto directoryFlush = directoryFlushedAfter(i, directory);
      if (!directoryFlush)
        findings.violations.push_back(directory + " is not flushed after " + destination +
                                      " is renamed into it");
      if (isMarker) {
        ++findings.markersChecked;
        markerDurable[directory] = flush != lastFlush.end() && flush->second >= mustFlushAfter
                                       ? directoryFlush
                                       : std::nullopt;
      }
      created.erase(origin);
      lastWrite.erase(source);
      lastFlush.erase(source);
    }
  }
  return findings;
}

TEST(DurabilityLintTest, AMigrationFlushesWhatItWritesAsideAndItsMarkersBeforeMoving) {
  const SweepSettings settings = sweepSettings();
  ASSERT_TRUE(settings.error.empty()) << settings.error;
  testing_support::TemporaryDirectory base;
  std::string reason;
  const auto workspace = SweepWorkspace::create(base.path() + "/worker", settings, &reason);
  ASSERT_NE(workspace, nullptr) << reason;
  const Trace trace = traceMigration(*workspace, mutatingSystemCalls(), &reason);
  ASSERT_FALSE(trace.calls.empty()) << reason;
  EXPECT_EQ(trace.unreadLines, 0u);

  // The host's temporary directory holds the staged placeholders, removed by
  // the call that fills them.
  const DurabilityFindings findings =
      lintTrace(trace, workspace->root(),
                {workspace->scratch() + "/migrate.out", workspace->scratch() + "/migrate.err"},
                {workspace->root() + "/private/var/tmp/mavrel"});
  std::printf(
      "Durability: %zu calls checked, %zu files written aside (%zu more in the temporary "
      "directory), %zu markers\n",
      findings.callsChecked, findings.filesWrittenAside, findings.filesInScratch,
      findings.markersChecked);
  // Every container of the image gets a marker before its data moves.
  EXPECT_EQ(findings.markersChecked, workspace->manifest().containers.size());
  EXPECT_GT(findings.filesWrittenAside, findings.markersChecked);
  EXPECT_GT(findings.filesInScratch, 0u);
  EXPECT_TRUE(findings.violations.empty()) << listed(findings.violations);
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
  const std::string marker =
      "7 openat(AT_FDCWD</>, \"/img/c/.m.tmp\", O_WRONLY|O_CREAT|O_EXCL, 0644) = 3</img/c/.m.tmp>\n"
      "7 write(3</img/c/.m.tmp>, \"<plist/>\", 8) = 8\n"
      "7 rename(\"/img/c/.m.tmp\", \"/img/c/com.zentrel.corvane.container_migrator.plist\") = 0\n"
      "7 renameat2(AT_FDCWD</>, \"/img/c/Documents\", AT_FDCWD</>, \"/img/data/Documents\", 0) = "
      "0\n";
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
      {aside + "7 fsync(3</img/d/.f.tmp>) = 0\n7 rename(\"/img/d/.f.tmp\", \"/img/d/f\") = 0\n" +
           "7 fsync(4</img/d>) = 0\n",
       {},
       {}},
      // A name's bytes are escaped alike in a quoted path and after a
      // descriptor: a rule broken under such a name is still seen.
      {"7 openat(AT_FDCWD</>, \"/img/caf\\303\\251/.f.tmp\", O_WRONLY|O_CREAT|O_EXCL, 0644) = "
       "3</img/caf\\303\\251/.f.tmp>\n"
       "7 write(3</img/caf\\303\\251/.f.tmp>, \"abc\", 3) = 3\n"
       "7 rename(\"/img/caf\\303\\251/.f.tmp\", \"/img/caf\\303\\251/f\") = 0\n",
       {},
       {"/img/caf\303\251/f (written aside as /img/caf\303\251/.f.tmp) is renamed into place "
        "without being flushed",
        "/img/caf\303\251 is not flushed after /img/caf\303\251/f is renamed into it"}},
      {scratch, {}, {"/img/tmp/p.app/f (written aside", "/img/tmp/p.app is not flushed"}},
      {scratch, {"/img/tmp"}, {}},
      {marker,
       {},
       {"/img/c/com.zentrel.corvane.container_migrator.plist (written aside",
        "/img/c is not flushed after",
        "the marker of /img/c is not durable before /img/c/Documents leaves it"}},
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
    ASSERT_EQ(findings.violations.size(), c.violations.size()) << listed(findings.violations);
    for (std::size_t i = 0; i < c.violations.size(); ++i)
      EXPECT_TRUE(findings.violations[i].starts_with(c.violations[i])) << findings.violations[i];
  }
}

}  // namespace
}  // namespace reliability
