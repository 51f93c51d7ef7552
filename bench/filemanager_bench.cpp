// File manager benchmark: removal, copy, disk usage and listing of a
// realistic tree against rm -rf, cp -a, du and ls.
//
//   filemanager_bench [--dir DIR] [--files N] [--reps R] [--verbose]
//
// Makes below DIR (default $TMPDIR or /tmp) a tree of N files (default
// 200,000; mostly small, in nested directories of varied sizes) and one
// directory of N/2 entries (at most 100,000), times each operation against
// its peer R times (default 3), alternating, and prints the medians, the
// ratio ours/peer (lower is better) and this process's peak resident set.
// Everything it made is removed at the end.
#include <cstdio>
#include <string>
#include <vector>

#include "bench/BenchSupport.h"
#include "platform/Error.h"
#include "platform/URL.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

void check(bool ok, const CVError& error, const std::string& what) {
  if (!ok) bench::die(what + " failed: " + error.description());
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // progress shows even when redirected
  const bench::Options options = bench::parseOptions(argc, argv, 200000);
  CVFileManager& manager = CVFileManager::defaultManager();
  const std::string scratch = bench::makeScratchDirectory(options.directory, "filemanager-bench");
  const std::string tree = scratch + "/tree";
  const std::string flat = scratch + "/flat";
  const std::string work = scratch + "/work";
  const CVURL treeURL = CVURL::fileURLWithPath(tree, true);
  const CVURL workURL = CVURL::fileURLWithPath(work, true);
  const std::size_t flatEntries = std::min<std::size_t>(100000, options.files / 2);

  std::printf("making the workload in %s ...\n", scratch.c_str());
  std::fflush(stdout);
  std::string treeWorkload;
  const double making = bench::timeSeconds([&] {
    const bench::TreeStats stats = bench::makeTree(tree, options.files);
    char text[160];
    std::snprintf(text, sizeof text, "tree of %zu files, %zu directories, %zu links, %.0f MB",
                  stats.files, stats.directories, stats.links,
                  static_cast<double>(stats.bytes) / 1e6);
    treeWorkload = text;
    std::printf("%s\n", treeWorkload.c_str());
    bench::makeFlatDirectory(flat, flatEntries);
    std::printf("flat directory: %zu entries\n", flatEntries);
  });
  bench::syncDisks();
  std::printf("made in %.1f s; %d repetitions per side\n\n", making, options.repetitions);
  bench::printHeader();

  // Removal of a fresh cp -a copy of the tree, written back to disk first.
  auto freshCopy = [&] {
    if (bench::runPeer({"cp", "-a", tree, work}) != 0) bench::die("cp -a failed");
    bench::syncDisks();
  };
  bench::printRow(options.verbose, bench::measure(
                                       {"removeItemAtURL:error:", "rm -rf",
                                        treeWorkload + " (fresh cp -a copy, synced)", "<= 1.0"},
                                       options.repetitions, freshCopy,
                                       [&] {
                                         CVError error;
                                         check(manager.removeItemAtURL(workURL, &error), error,
                                               "removeItemAtURL");
                                       },
                                       [&] {
                                         bench::timePeer({"rm", "-rf", work});
                                       }));

  // Copy of the tree to a place that is cleared (and written back) first.
  auto clearDestination = [&] {
    bench::removeWithPeer(work);
    bench::syncDisks();
  };
  bench::printRow(options.verbose,
                  bench::measure(
                      {"copyItemAtURL:toURL:error:", "cp -a",
                       "the same " + treeWorkload + " (destination cleared, synced)", "<= 1.0"},
                      options.repetitions, clearDestination,
                      [&] {
                        CVError error;
                        check(manager.copyItemAtURL(treeURL, workURL, &error), error,
                              "copyItemAtURL");
                      },
                      [&] {
                        bench::timePeer({"cp", "-a", tree, work});
                      }));
  bench::removeWithPeer(work);

  // Disk usage with a warm cache; both answers are printed below the table.
  std::uint64_t ours = manager.diskUsageForURL(treeURL);
  const std::string peerAnswer = bench::peerOutput({"du", "-s", "-B1", tree});
  bench::printRow(options.verbose,
                  bench::measure(
                      {"diskUsageForURL:", "du -s -B1", "the same " + treeWorkload + ", warm cache",
                       "<= 1.0, aim 0.6"},
                      options.repetitions, [] {}, [&] { ours = manager.diskUsageForURL(treeURL); },
                      [&] {
                        bench::timePeer({"du", "-s", "-B1", tree});
                      }));

  const CVURL flatURL = CVURL::fileURLWithPath(flat, true);
  std::size_t listed = 0;
  bench::printRow(
      options.verbose,
      bench::measure(
          {"urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:", "ls -f",
           "one directory of " + std::to_string(flatEntries) + " empty files, warm cache",
           "<= 1.0"},
          options.repetitions, [] {},
          [&] {
            CVError error;
            const auto urls = manager.urlsForItemsInDirectoryAtURL(flatURL, false, &error);
            check(urls.has_value(), error, "urlsForItemsInDirectoryAtURL");
            listed = urls->size();
          },
          [&] {
            bench::timePeer({"ls", "-f", flat});
          }));

  std::printf("\npeak resident set of this process: %.1f MB\n",
              static_cast<double>(bench::peakResidentKilobytes()) / 1024.0);
  std::printf("diskUsageForURL: %llu bytes; du -s -B1: %s", static_cast<unsigned long long>(ours),
              peerAnswer.c_str());
  std::printf("listing: %zu entries\n", listed);

  bench::removeWithPeer(scratch);
  return 0;
}
