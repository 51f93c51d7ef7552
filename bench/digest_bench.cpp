// CVCreateSHA256Digest against `openssl dgst -sha256` and `sha256sum` on one
// large file with a warm page cache. Each side must produce the same digest.
//
//   digest_bench [--dir DIR] [--mib N] [--reps R]     (default 1024 MiB, 5 reps)
#include <string>

#include "bench/BenchSupport.h"
#include "shared/support/CVFileDigest.h"

namespace {

struct DigestOptions {
  std::string directory = "/tmp";
  std::size_t mebibytes = 1024;
  int repetitions = 5;
};

DigestOptions parse(int argc, char** argv) {
  DigestOptions options;
  if (const char* tmp = std::getenv("TMPDIR"); tmp != nullptr && *tmp != '\0') {
    options.directory = tmp;
  }
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (i + 1 >= argc) {
      std::cerr << "usage: " << argv[0] << " [--dir DIR] [--mib N] [--reps R]\n";
      std::exit(argument == "--help" ? 0 : 2);
    }
    const std::string value = argv[++i];
    if (argument == "--dir") {
      options.directory = value;
    } else if (argument == "--mib") {
      options.mebibytes = std::stoul(value);
    } else if (argument == "--reps") {
      options.repetitions = std::stoi(value);
    } else {
      bench::die("unknown option " + argument);
    }
  }
  return options;
}

std::string firstWord(const std::string& text) {
  return text.substr(0, text.find_first_of(" \n"));
}

}  // namespace

int main(int argc, char** argv) {
  const DigestOptions options = parse(argc, argv);
  const std::string scratch = bench::makeScratchDirectory(options.directory, "digest-bench");
  const std::string path = scratch + "/payload.bin";
  {
    std::mt19937_64 random(7);
    std::string chunk(1 << 20, '\0');
    for (char& byte : chunk)
      byte = static_cast<char>(random());
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) bench::die("cannot create " + path);
    for (std::size_t i = 0; i < options.mebibytes; ++i) {
      if (::write(fd, chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size())) {
        bench::die("cannot write " + path);
      }
    }
    ::close(fd);
  }

  // Warms the cache and checks that all three agree.
  const std::optional<std::string> ours = CVCreateSHA256Digest(path);
  if (!ours) bench::die("CVCreateSHA256Digest failed");
  const std::string openssl = bench::peerOutput({"openssl", "dgst", "-sha256", "-r", path});
  const std::string coreutils = bench::peerOutput({"sha256sum", path});
  if (firstWord(openssl) != *ours || firstWord(coreutils) != *ours) {
    bench::die("digests differ: ours " + *ours + ", openssl " + firstWord(openssl) +
               ", sha256sum " + firstWord(coreutils));
  }

  std::printf("SHA-256 of one %zu MiB file, warm cache, %d repetitions (medians)\n",
              options.mebibytes, options.repetitions);
  bench::printHeader();
  const auto digest = [&] {
    if (!CVCreateSHA256Digest(path)) bench::die("CVCreateSHA256Digest failed");
  };
  const std::string workload = std::to_string(options.mebibytes) + " MiB file, warm cache";
  bench::printRow(false, bench::measure(
                             {"CVCreateSHA256Digest", "openssl dgst -sha256", workload, "<= 1.05"},
                             options.repetitions, [] {}, digest,
                             [&] {
                               bench::timePeer({"openssl", "dgst", "-sha256", path});
                             }));
  // sha256sum, which does without the SHA extensions, for reference only: on
  // the console, not in the table.
  const bench::Measurement reference = bench::measure(
      {"CVCreateSHA256Digest", "sha256sum", workload, "-"}, options.repetitions, [] {}, digest,
      [&] {
        bench::timePeer({"sha256sum", path});
      });
  std::printf("%-48s %10.3f %10.3f %8.2f\n", "(reference) CVCreateSHA256Digest vs sha256sum",
              bench::median(reference.ours), bench::median(reference.peer),
              bench::median(reference.ours) / bench::median(reference.peer));
  std::printf("peak resident set: %ld KiB\n", bench::peakResidentKilobytes());

  bench::removeWithPeer(scratch);
  return 0;
}
