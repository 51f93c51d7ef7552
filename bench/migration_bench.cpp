// The whole migration against the least work the change of layout needs.
//
//   migration_bench [--dir DIR] [--apps N[,N...]] [--reps R] [--seed S] [--verbose]
//                   [--no-safety-net]
//
// For each size (default 1,000 and 5,000 applications) it times, R times each
// (default 3), alternating which side goes first, two child programs over a
// legacy image that mavrel-mkimage writes afresh before every timed run, with
// the same seed (default 7), at the same path below DIR (default $TMPDIR or
// /tmp), and written back to the disk before the clock starts:
//   ours: `mavrel migrate --root IMAGE` (which must succeed; with
//         --no-safety-net, `mavrel migrate --no-safety-net --root IMAGE`, the
//         migration without the net of hard links it lays first);
//   peer: `migration_lower_bound --root IMAGE` (see that program).
// Only the migration is timed, never the making of the image. The image holds
// absolute paths, so it is regenerated in place rather than copied.
// Besides the rows it prints, per size, applications per second, the time per
// application and the peak resident set of `mavrel migrate` (from the rusage
// of the child), and how the time per application grows from the smallest
// size to the largest. At the first size, a row of the migration with its
// safety net against the one without, and the net's own time as the run's
// report gives it. The programs are looked for beside this one.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "bench/BenchSupport.h"

namespace {

struct MigrationOptions {
  std::string directory;
  std::vector<std::size_t> sizes = {1000, 5000};
  int repetitions = 3;
  unsigned long seed = 7;
  bool verbose = false;
  bool withoutSafetyNet = false;
};

std::vector<std::size_t> parseSizes(const std::string& text) {
  std::vector<std::size_t> sizes;
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t comma = std::min(text.find(',', start), text.size());
    const std::size_t size = std::stoul(text.substr(start, comma - start));
    if (size == 0) bench::die("--apps takes positive counts");
    sizes.push_back(size);
    start = comma + 1;
  }
  return sizes;
}

MigrationOptions parse(int argc, char** argv) {
  MigrationOptions options;
  const char* tmp = std::getenv("TMPDIR");
  options.directory = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--verbose") {
      options.verbose = true;
      continue;
    }
    if (argument == "--no-safety-net") {
      options.withoutSafetyNet = true;
      continue;
    }
    if (i + 1 >= argc || (argument != "--dir" && argument != "--apps" && argument != "--reps" &&
                          argument != "--seed")) {
      std::fprintf(stderr,
                   "usage: %s [--dir DIR] [--apps N[,N...]] [--reps R] [--seed S] [--verbose] "
                   "[--no-safety-net]\n",
                   argv[0]);
      std::exit(argument == "--help" ? 0 : 2);
    }
    const std::string value = argv[++i];
    if (argument == "--dir") {
      options.directory = value;
    } else if (argument == "--apps") {
      options.sizes = parseSizes(value);
    } else if (argument == "--reps") {
      options.repetitions = std::stoi(value);
    } else {
      options.seed = std::stoul(value);
    }
  }
  if (options.repetitions <= 0) bench::die("--reps must be positive");
  return options;
}

// The directory of this program, where its sibling programs are.
std::string programDirectory() {
  std::string path(4096, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0) bench::die("cannot find this program's directory");
  path.resize(static_cast<std::size_t>(length));
  return path.substr(0, path.rfind('/'));
}

std::string loadAverage() {
  double load[3] = {0, 0, 0};
  if (::getloadavg(load, 3) != 3) return "unknown";
  char text[64];
  std::snprintf(text, sizeof text, "%.2f %.2f %.2f", load[0], load[1], load[2]);
  return text;
}

// The number after `key` in `text` (a JSON report), or 0 when it is not there.
double numberAfter(const std::string& text, std::string_view key) {
  const std::size_t at = text.find(key);
  if (at == std::string::npos) return 0;
  return std::strtod(text.c_str() + at + key.size(), nullptr);
}

// The figures of one size, for the lines below the table.
struct SizeResult {
  std::size_t applications = 0;
  double ours = 0;
  double peer = 0;
  long peakResidentKilobytes = 0;
};

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const MigrationOptions options = parse(argc, argv);
  const std::string programs = programDirectory();
  const std::string mavrel = programs + "/mavrel";
  const std::string generator = programs + "/mavrel-mkimage";
  const std::string lowerBound = programs + "/migration_lower_bound";
  const std::string scratch = bench::makeScratchDirectory(options.directory, "migration-bench");
  const std::string image = scratch + "/image";

  const std::string ourName =
      options.withoutSafetyNet ? "mavrel migrate --no-safety-net" : "mavrel migrate";
  std::vector<SizeResult> results;
  for (const std::size_t applications : options.sizes) {
    const std::string count = std::to_string(applications);
    const std::string seed = std::to_string(options.seed);
    std::string summary;
    auto regenerate = [&] {
      bench::removeWithPeer(image);
      const std::string output = bench::peerOutput(
          {generator, "--root", image, "--apps", count, "--seed", seed, "--force"});
      if (summary.empty()) summary = output;
      bench::syncDisks();
    };
    long peak = 0;
    std::vector<double> oursProcessor;
    std::vector<double> peerProcessor;
    auto ours = [&] {
      const bench::ChildResult result =
          options.withoutSafetyNet
              ? bench::runChild({mavrel, "migrate", "--no-safety-net", "--root", image})
              : bench::runChild({mavrel, "migrate", "--root", image});
      if (result.status != 0)
        bench::die("mavrel migrate failed with status " + std::to_string(result.status) +
                   " (image " + image + " kept)");
      peak = std::max(peak, result.peakResidentKilobytes);
      oursProcessor.push_back(result.processorSeconds);
    };
    auto peer = [&] {
      const bench::ChildResult result = bench::runChild({lowerBound, "--root", image});
      if (result.status != 0) bench::die("migration_lower_bound failed (image " + image + " kept)");
      peerProcessor.push_back(result.processorSeconds);
    };

    std::printf("%zu applications, %d repetitions per side; load average before: %s\n",
                applications, options.repetitions, loadAverage().c_str());
    bench::printHeader();
    const std::string workload = "legacy image of " + count + " apps (mavrel-mkimage --apps " +
                                 count + " --seed " + seed + "), written back before each run";
    const bench::Measurement measurement =
        bench::measure({ourName, "migration_lower_bound", workload, "<= 3.0"}, options.repetitions,
                       regenerate, ours, peer);
    bench::printRow(options.verbose, measurement);
    std::printf("image: %s", summary.c_str());
    const SizeResult result{applications, bench::median(measurement.ours),
                            bench::median(measurement.peer), peak};
    results.push_back(result);
    // Processor time (user + system) is what the load of a shared machine
    // disturbs least: shown beside the elapsed time.
    const double oursCPU = bench::median(oursProcessor);
    const double peerCPU = bench::median(peerProcessor);
    char line[320];
    std::snprintf(line, sizeof line,
                  "%s, %zu apps: %.0f apps/s, %.2f ms per app (lower bound %.2f ms), "
                  "processor time %.2f s (lower bound %.2f s, ratio %.1f), peak resident set "
                  "%.1f MiB; load average after: %s",
                  ourName.c_str(), applications, applications / result.ours,
                  1000 * result.ours / applications, 1000 * result.peer / applications, oursCPU,
                  peerCPU, peerCPU > 0 ? oursCPU / peerCPU : 0.0,
                  static_cast<double>(result.peakResidentKilobytes) / 1024.0,
                  loadAverage().c_str());
    bench::printNote(line);

    // The safety net's cost, at the first size only: the same migration with
    // and without it.
    if (!options.withoutSafetyNet && applications == options.sizes.front()) {
      auto withoutNet = [&] {
        const bench::ChildResult run =
            bench::runChild({mavrel, "migrate", "--root", image, "--no-safety-net"});
        if (run.status != 0)
          bench::die("mavrel migrate --no-safety-net failed with status " +
                     std::to_string(run.status) + " (image " + image + " kept)");
      };
      // The net's own time, as the run's report gives it: a figure the
      // machine's noise disturbs less than the difference of two runs.
      const std::string report = scratch + "/report.json";
      std::vector<double> laying, settling;
      auto withNet = [&] {
        const bench::ChildResult run =
            bench::runChild({mavrel, "migrate", "--root", image, "--report", report});
        if (run.status != 0)
          bench::die("mavrel migrate failed with status " + std::to_string(run.status) +
                     " (image " + image + " kept)");
        std::ifstream stream(report);
        const std::string text((std::istreambuf_iterator<char>(stream)),
                               std::istreambuf_iterator<char>());
        laying.push_back(numberAfter(text, "\"layDurationSeconds\":"));
        settling.push_back(numberAfter(text, "\"settleDurationSeconds\":"));
      };
      const bench::Measurement net =
          bench::measure({"mavrel migrate", "mavrel migrate --no-safety-net", workload, "<= 1.10"},
                         options.repetitions, regenerate, withNet, withoutNet);
      bench::printRow(options.verbose, net);
      const double own = bench::median(laying) + bench::median(settling);
      std::snprintf(line, sizeof line,
                    "the safety net's own time (the report's medians): laying %.3f s, settling "
                    "%.3f s; %.1f %% of the migration without it",
                    bench::median(laying), bench::median(settling),
                    100 * own / bench::median(net.peer));
      bench::printNote(line);
    }
    std::printf("\n");
  }
  if (results.size() >= 2) {
    const SizeResult& small = results.front();
    const SizeResult& large = results.back();
    char line[160];
    std::snprintf(line, sizeof line, "time per app at %zu apps / at %zu apps: %.2f (goal <= 1.2)",
                  large.applications, small.applications,
                  (large.ours / large.applications) / (small.ours / small.applications));
    bench::printNote(line);
  }
  bench::removeWithPeer(scratch);
  return 0;
}
