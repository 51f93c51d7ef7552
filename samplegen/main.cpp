// mavrel-mkimage: writes a sample legacy device image for demos, tests and
// benchmarks.
//
//   mavrel-mkimage --root DIR [--apps N] [--seed S] [--data-scale F]
//                  [--vpn-only K] [--missing-executable ID...] [--extra-item ID...]
//                  [--jobs J] [--force] [--json]
//
// Exit codes: 0 made, 1 the image could not be made, 2 usage error.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "samplegen/LegacyImageGenerator.h"

namespace {

constexpr int kExitMade = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr std::string_view kUsage =
    "Usage: mavrel-mkimage --root DIR [options]\n"
    "Writes a sample legacy device image (the layout the migration reads) into DIR.\n"
    "\n"
    "  --root DIR                 the image's root; made when absent (its parent must exist),\n"
    "                             refused when it holds anything\n"
    "  --apps N                   user applications (default 50)\n"
    "  --seed S                   the seed; the same options give the same image (default 1)\n"
    "  --data-scale F             multiplies user-data file sizes (default 1.0; 0: empty files)\n"
    "  --vpn-only K               containers holding only a VPN plug-in (default N/50, at least\n"
    "                             1 from 4 applications on)\n"
    "  --missing-executable ID... applications (identifier or zero-based index) whose bundle\n"
    "                             lacks its executable\n"
    "  --extra-item ID...         applications whose container also holds Unexpected.dat\n"
    "  --jobs J                   threads writing containers (default: one per core, at most 4);\n"
    "                             the image does not depend on it\n"
    "  --force                    replace an image made earlier by mavrel-mkimage in DIR\n"
    "  --json                     print a manifest of the image as JSON instead of a summary\n"
    "  --help                     show this text\n";

struct CommandLine {
  std::string root;
  samplegen::GeneratorOptions options;
  bool force = false;
  bool json = false;
  bool help = false;
};

int usageError(const std::string& message) {
  std::fprintf(stderr, "mavrel-mkimage: %s\nRun 'mavrel-mkimage --help' for usage.\n",
               message.c_str());
  return kExitUsage;
}

std::optional<unsigned long long> parseCount(const std::string& text) {
  if (text.empty() || text.front() == '-' || text.front() == '+') return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0') return std::nullopt;
  return value;
}

std::optional<double> parseScale(const std::string& text) {
  if (text.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (errno != 0 || *end != '\0' || !(value >= 0) || value > 1e6) return std::nullopt;
  return value;
}

// Parses the arguments; returns an exit code when the program should stop.
std::optional<int> parse(const std::vector<std::string>& arguments, CommandLine& line) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    const auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= arguments.size()) return std::nullopt;
      return arguments[++i];
    };
    // Options taking several values take every argument up to the next option.
    const auto values = [&](std::vector<std::string>& into) {
      std::size_t taken = 0;
      while (i + 1 < arguments.size() && arguments[i + 1].rfind("--", 0) != 0) {
        into.push_back(arguments[++i]);
        ++taken;
      }
      return taken > 0;
    };
    if (argument == "--help" || argument == "-h") {
      line.help = true;
    } else if (argument == "--root") {
      const auto root = value();
      if (!root || root->empty()) return usageError("option '--root' needs a directory");
      line.root = *root;
    } else if (argument == "--apps") {
      const auto text = value();
      const auto count = text ? parseCount(*text) : std::nullopt;
      if (!count || *count > 1000000) {
        return usageError("option '--apps' needs a count from 0 to 1000000");
      }
      line.options.applicationCount = static_cast<std::size_t>(*count);
    } else if (argument == "--seed") {
      const auto text = value();
      const auto seed = text ? parseCount(*text) : std::nullopt;
      if (!seed) return usageError("option '--seed' needs a non-negative integer");
      line.options.seed = *seed;
    } else if (argument == "--data-scale") {
      const auto text = value();
      const auto scale = text ? parseScale(*text) : std::nullopt;
      if (!scale) return usageError("option '--data-scale' needs a number from 0 to 1000000");
      line.options.dataScale = *scale;
    } else if (argument == "--vpn-only") {
      const auto text = value();
      const auto count = text ? parseCount(*text) : std::nullopt;
      if (!count || *count > 1000000) {
        return usageError("option '--vpn-only' needs a count from 0 to 1000000");
      }
      line.options.vpnOnlyCount = static_cast<std::size_t>(*count);
    } else if (argument == "--jobs") {
      const auto text = value();
      const auto jobs = text ? parseCount(*text) : std::nullopt;
      if (!jobs || *jobs < 1 || *jobs > 64)
        return usageError("option '--jobs' needs a count from 1 to 64");
      line.options.threads = static_cast<std::size_t>(*jobs);
    } else if (argument == "--missing-executable") {
      if (!values(line.options.missingExecutable)) {
        return usageError("option '--missing-executable' needs application identifiers or indexes");
      }
    } else if (argument == "--extra-item") {
      if (!values(line.options.extraItem)) {
        return usageError("option '--extra-item' needs application identifiers or indexes");
      }
    } else if (argument == "--force") {
      line.force = true;
    } else if (argument == "--json") {
      line.json = true;
    } else {
      return usageError("unknown argument '" + argument + "'");
    }
  }
  if (line.help) {
    std::fputs(kUsage.data(), stdout);
    return kExitMade;
  }
  if (line.root.empty()) return usageError("option '--root' is required");
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine line;
  if (const auto exit = parse(std::vector<std::string>(argv + 1, argv + argc), line)) return *exit;

  CVError error;
  const auto root = samplegen::prepareImageRoot(line.root, line.force, &error);
  if (!root) {
    std::fprintf(stderr, "mavrel-mkimage: %s\n", error.localizedDescription().c_str());
    return error.domain() == samplegen::kSampleGenErrorDomain ? kExitUsage : kExitFailed;
  }
  line.options.root = *root;
  const auto manifest = samplegen::generateLegacyImage(line.options, &error);
  if (!manifest) {
    std::fprintf(stderr, "mavrel-mkimage: %s\n", error.localizedDescription().c_str());
    return error.domain() == samplegen::kSampleGenErrorDomain &&
                   error.code() == samplegen::kSampleGenBadOptionError
               ? kExitUsage
               : kExitFailed;
  }
  const std::string output =
      line.json ? samplegen::manifestJSON(*manifest) : samplegen::manifestSummary(*manifest);
  std::fputs(output.c_str(), stdout);
  return std::fflush(stdout) == 0 ? kExitMade : kExitFailed;
}
