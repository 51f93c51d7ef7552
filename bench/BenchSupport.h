// Helpers of the benchmark programs: command-line options, timing, medians,
// the result table, running a peer tool, and a realistic file tree.
//
// A benchmark times our operation and a peer tool doing the same job,
// alternately, for several repetitions, and prints one row per operation:
// the median of each side and their ratio (ours / peer; lower is better).
// Peers run as child processes (posix_spawn, output to /dev/null) and are
// timed with a steady clock around the whole child, start-up included.
// When the environment names a file in MAVREL_BENCH_TABLE, every row is also
// appended there as a Markdown table row (operation, peer, workload, medians,
// ratio, goal), so that a driver can print the rows of several programs as
// one table.
// Failures of the set-up abort the program with a message: a benchmark has
// no error contract beyond its exit status.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace bench {

[[noreturn]] inline void die(const std::string& message) {
  std::cerr << "bench: " << message << "\n";
  std::exit(2);
}

struct Options {
  std::string directory;       // scratch space; --dir, else $TMPDIR, else /tmp
  std::size_t files = 200000;  // --files
  int repetitions = 3;         // --reps
  bool verbose = false;        // --verbose: every sample below its row
};

inline Options parseOptions(int argc, char** argv, std::size_t defaultFiles) {
  Options options;
  options.files = defaultFiles;
  const char* tmp = std::getenv("TMPDIR");
  options.directory = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) die("missing value after " + argument);
      return argv[++i];
    };
    if (argument == "--dir") {
      options.directory = value();
    } else if (argument == "--files") {
      options.files = std::stoul(value());
    } else if (argument == "--reps") {
      options.repetitions = std::stoi(value());
    } else if (argument == "--verbose") {
      options.verbose = true;
    } else {
      std::cerr << "usage: " << argv[0] << " [--dir DIR] [--files N] [--reps R] [--verbose]\n";
      std::exit(argument == "--help" ? 0 : 2);
    }
  }
  if (options.files == 0 || options.repetitions <= 0) die("--files and --reps must be positive");
  return options;
}

// Seconds taken by `work`.
template <class Work>
double timeSeconds(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// What one child run gave: its exit status (-1 when it did not exit), its
// peak resident set in KiB and its processor time (user + system), from the
// rusage that wait4 reports.
struct ChildResult {
  int status = -1;
  long peakResidentKilobytes = 0;
  double processorSeconds = 0;
};

// Runs `argv` (argv[0] looked up in PATH) and waits for it. Standard output
// goes to `outputFd` (or /dev/null when it is -1), standard error to
// /dev/null.
inline ChildResult runChild(const std::vector<std::string>& argv, int outputFd = -1) {
  std::vector<char*> arguments;
  for (const std::string& argument : argv)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (outputFd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int spawned =
      posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) die("cannot run " + argv[0] + ": " + std::strerror(spawned));
  int status = 0;
  rusage usage{};
  while (::wait4(child, &status, 0, &usage) < 0) {
    if (errno != EINTR) die("wait4 failed");
  }
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, usage.ru_maxrss,
          seconds(usage.ru_utime) + seconds(usage.ru_stime)};
}

// The exit status of runChild, or -1 when the child did not exit.
inline int runPeer(const std::vector<std::string>& argv, int outputFd = -1) {
  return runChild(argv, outputFd).status;
}

// Runs a peer that must succeed and returns the seconds it took.
inline double timePeer(const std::vector<std::string>& argv) {
  int status = 0;
  const double seconds = timeSeconds([&] { status = runPeer(argv); });
  if (status != 0) die(argv[0] + " failed with status " + std::to_string(status));
  return seconds;
}

// Runs a peer that must succeed and returns what it wrote to standard output.
inline std::string peerOutput(const std::vector<std::string>& argv) {
  std::FILE* capture = std::tmpfile();
  if (capture == nullptr) die("tmpfile failed");
  if (runPeer(argv, fileno(capture)) != 0) die(argv[0] + " failed");
  std::rewind(capture);
  std::string output;
  char buffer[4096];
  for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, capture)) > 0;)
    output.append(buffer, got);
  std::fclose(capture);
  return output;
}

// Our side and the peer's side of one operation, timed alternately: even
// repetitions run ours first, odd ones the peer first. `prepare` runs before
// each timed run, outside the timing.
// What a row says about itself: our operation, the peer it is measured
// against, the exact workload and the goal for the ratio.
struct RowLabel {
  std::string operation;
  std::string peer;
  std::string workload;
  std::string goal;
};

struct Measurement {
  RowLabel label;
  std::vector<double> ours;
  std::vector<double> peer;
};

template <class Prepare, class Ours, class Peer>
Measurement measure(RowLabel label, int repetitions, Prepare&& prepare, Ours&& ours, Peer&& peer) {
  Measurement measurement{std::move(label), {}, {}};
  for (int repetition = 0; repetition < repetitions; ++repetition) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool oursNow = (turn == 0) == (repetition % 2 == 0);
      prepare();
      if (oursNow) {
        measurement.ours.push_back(timeSeconds(ours));
      } else {
        measurement.peer.push_back(timeSeconds(peer));
      }
    }
  }
  return measurement;
}

inline void printHeader() {
  std::printf("%-48s %10s %10s %8s\n", "operation", "ours (s)", "peer (s)", "ratio");
}

// Appends one Markdown row to the file named by MAVREL_BENCH_TABLE, if any.
inline void appendTableRow(const RowLabel& label, double ours, double peer) {
  const char* table = std::getenv("MAVREL_BENCH_TABLE");
  if (table == nullptr || *table == '\0') return;
  std::FILE* file = std::fopen(table, "a");
  if (file == nullptr) die(std::string("cannot append to ") + table);
  std::fprintf(file, "| `%s` | `%s` | %s | %.3f | %.3f | %.2f | %s |\n", label.operation.c_str(),
               label.peer.c_str(), label.workload.c_str(), ours, peer, peer > 0 ? ours / peer : 0.0,
               label.goal.c_str());
  std::fclose(file);
}

// Prints `text` as one line and appends it to the file named by
// MAVREL_BENCH_NOTES, if any: figures that belong below the table.
inline void printNote(const std::string& text) {
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
  const char* notes = std::getenv("MAVREL_BENCH_NOTES");
  if (notes == nullptr || *notes == '\0') return;
  std::FILE* file = std::fopen(notes, "a");
  if (file == nullptr) die(std::string("cannot append to ") + notes);
  std::fprintf(file, "%s\n", text.c_str());
  std::fclose(file);
}

inline void printRow(bool verbose, const Measurement& measurement) {
  const double ours = median(measurement.ours);
  const double peer = median(measurement.peer);
  const std::string title = measurement.label.operation + " vs " + measurement.label.peer;
  std::printf("%-48s %10.3f %10.3f %8.2f\n", title.c_str(), ours, peer,
              peer > 0 ? ours / peer : 0.0);
  appendTableRow(measurement.label, ours, peer);
  if (verbose) {
    for (std::size_t i = 0; i < measurement.ours.size() && i < measurement.peer.size(); ++i)
      std::printf("    repetition %zu: %10.3f %10.3f\n", i + 1, measurement.ours[i],
                  measurement.peer[i]);
  }
  std::fflush(stdout);
}

// The peak resident set of this process, in kilobytes.
inline long peakResidentKilobytes() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// A fresh scratch directory below `parent`.
inline std::string makeScratchDirectory(const std::string& parent, const std::string& name) {
  std::string pattern = parent + "/" + name + ".XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) die("cannot make a directory in " + parent);
  return pattern;
}

inline void removeWithPeer(const std::string& path) {
  if (runPeer({"rm", "-rf", path}) != 0) die("rm -rf " + path + " failed");
}

inline void syncDisks() {
  ::sync();
}

struct TreeStats {
  std::size_t files = 0;
  std::size_t directories = 0;
  std::size_t links = 0;
  std::uint64_t bytes = 0;
};

namespace detail {

inline void writeBytes(const std::string& path, std::size_t size, mode_t mode,
                       const std::string& pattern) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) die("cannot create " + path);
  for (std::size_t written = 0; written < size;) {
    const std::size_t chunk = std::min(size - written, pattern.size());
    const ssize_t put = ::write(fd, pattern.data(), chunk);
    if (put <= 0) die("cannot write " + path);
    written += static_cast<std::size_t>(put);
  }
  ::close(fd);
}

// Mostly small files, as in application data: 85% up to 2 KB, 13% up to
// 16 KB, 1.9% up to 128 KB, 0.1% up to 2 MB.
inline std::size_t fileSize(std::mt19937_64& random) {
  const auto pick = std::uniform_int_distribution<int>(0, 999)(random);
  auto upTo = [&random](std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit)(random);
  };
  if (pick < 850) return upTo(2048);
  if (pick < 980) return 2048 + upTo(14 * 1024);
  if (pick < 999) return 16 * 1024 + upTo(112 * 1024);
  return 128 * 1024 + upTo(1920 * 1024);
}

struct TreeMaker {
  std::mt19937_64 random;
  std::size_t budget;
  std::string pattern;
  TreeStats stats;

  void directory(const std::string& path, int depth) {
    if (::mkdir(path.c_str(), 0755) != 0) die("cannot make " + path);
    ++stats.directories;
    // Most directories hold a few dozen files, some hold hundreds.
    const bool big = std::uniform_int_distribution<int>(0, 19)(random) == 0;
    std::size_t files = big ? std::uniform_int_distribution<std::size_t>(200, 800)(random)
                            : std::uniform_int_distribution<std::size_t>(0, 60)(random);
    files = std::min(files, budget);
    for (std::size_t i = 0; i < files; ++i) {
      const std::string name =
          path + "/file-" + std::to_string(i) + (i % 7 == 0 ? ".plist" : ".dat");
      const std::size_t size = fileSize(random);
      writeBytes(name, size, i % 11 == 0 ? 0600 : 0644, pattern);
      stats.bytes += size;
      ++stats.files;
      // One file in a hundred has a link next to it.
      if (i % 100 == 50) {
        if (::symlink(("file-" + std::to_string(i) + ".dat").c_str(),
                      (path + "/link-" + std::to_string(i)).c_str()) != 0)
          die("cannot link in " + path);
        ++stats.links;
      }
    }
    budget -= files;
    const int subdirectories = depth < 6 ? std::uniform_int_distribution<int>(0, 5)(random) : 0;
    for (int i = 0; i < subdirectories && budget > 0; ++i)
      directory(path + "/dir-" + std::to_string(i), depth + 1);
  }
};

}  // namespace detail

// Makes at `root` a tree of `files` files across nested directories of
// varied sizes (see fileSize), with a symbolic link per hundred files.
inline TreeStats makeTree(const std::string& root, std::size_t files, std::uint64_t seed = 42) {
  detail::TreeMaker maker{std::mt19937_64(seed), files, std::string(), {}};
  maker.pattern.resize(64 * 1024);
  for (std::size_t i = 0; i < maker.pattern.size(); ++i)
    maker.pattern[i] = static_cast<char>(maker.random());
  if (::mkdir(root.c_str(), 0755) != 0) die("cannot make " + root);
  ++maker.stats.directories;
  for (int top = 0; maker.budget > 0; ++top)
    maker.directory(root + "/top-" + std::to_string(top), 1);
  return maker.stats;
}

// Makes at `root` one directory holding `entries` empty files.
inline void makeFlatDirectory(const std::string& root, std::size_t entries) {
  if (::mkdir(root.c_str(), 0755) != 0) die("cannot make " + root);
  for (std::size_t i = 0; i < entries; ++i) {
    const std::string name = root + "/entry-" + std::to_string(i);
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) die("cannot create " + name);
    ::close(fd);
  }
}

}  // namespace bench
