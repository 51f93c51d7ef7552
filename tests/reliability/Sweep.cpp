#include "tests/reliability/Sweep.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string_view>
#include <thread>

#include "host/SafetyNetManifest.h"
#include "platform/linux/ExtendedAttributes.h"
#include "samplegen/LegacyImageGenerator.h"
#include "shared/support/CVFileDigest.h"
#include "tests/support/JSON.h"
#include "tests/support/TreeSnapshot.h"

namespace reliability {
namespace {

// Splits the text between a call's parentheses at commas outside quotes,
// brackets and strace's "<path>" annotations. `end` receives the index of
// the closing parenthesis.
std::vector<std::string> splitArguments(const std::string& text, std::size_t begin,
                                        std::size_t* end) {
  std::vector<std::string> arguments;
  std::string current;
  int depth = 0;
  bool quoted = false;
  std::size_t i = begin;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted) {
      current += c;
      if (c == '\\' && i + 1 < text.size()) {
        current += text[++i];
      } else if (c == '"') {
        quoted = false;
      }
      continue;
    }
    if (c == '"') {
      quoted = true;
      current += c;
    } else if (c == '<') {
      // A descriptor's path: copied whole, commas included.
      const std::size_t close = text.find('>', i);
      if (close == std::string::npos) break;
      current += text.substr(i, close - i + 1);
      i = close;
    } else if (c == '(' || c == '[' || c == '{') {
      ++depth;
      current += c;
    } else if ((c == ')' || c == ']' || c == '}') && depth > 0) {
      --depth;
      current += c;
    } else if (c == ')') {
      break;
    } else if (c == ',' && depth == 0) {
      arguments.push_back(current);
      current.clear();
      if (i + 1 < text.size() && text[i + 1] == ' ') ++i;
    } else {
      current += c;
    }
  }
  if (!current.empty() || !arguments.empty()) arguments.push_back(current);
  *end = i;
  return arguments;
}

// Reads one complete call line ("name(args) = result ..."); false when the
// line is something else.
bool parseCall(const std::string& line, TracedCall& call) {
  const std::size_t open = line.find('(');
  if (open == std::string::npos || open == 0) return false;
  call.name = line.substr(0, open);
  if (!std::ranges::all_of(call.name, [](unsigned char c) { return std::isalnum(c) || c == '_'; }))
    return false;
  std::size_t close = 0;
  call.arguments = splitArguments(line, open + 1, &close);
  const std::size_t equals = line.find(" = ", close);
  if (equals == std::string::npos) return false;
  std::istringstream rest(line.substr(equals + 3));
  rest >> call.result;
  std::string word;
  if (rest >> word && !word.empty() && word.front() == 'E') call.errorName = word;
  call.injected = line.find("(INJECTED)", equals) != std::string::npos;
  return true;
}

// The text of a strace string argument with its escapes undone.
std::string unquote(const std::string& argument) {
  std::string text;
  std::size_t i = argument.empty() || argument.front() != '"' ? 0 : 1;
  for (; i < argument.size(); ++i) {
    const char c = argument[i];
    if (c == '"') break;
    if (c != '\\' || i + 1 >= argument.size()) {
      text += c;
      continue;
    }
    const char escaped = argument[++i];
    const std::size_t named = std::string_view("ntrvf").find(escaped);
    if (named != std::string_view::npos) {
      text += "\n\t\r\v\f"[named];
    } else if (escaped >= '0' && escaped <= '7') {
      std::size_t length = 1;
      while (length < 3 && i + length < argument.size() && argument[i + length] >= '0' &&
             argument[i + length] <= '7')
        ++length;
      text += static_cast<char>(std::stoi(argument.substr(i, length), nullptr, 8));
      i += length - 1;
    } else {
      text += escaped;
    }
  }
  return text;
}

// A descriptor's path as strace annotates it ("3</a/b>"), its escapes undone
// as in a quoted argument, so that both spellings of a path compare equal.
std::string annotatedPath(const std::string& text) {
  const std::size_t open = text.find('<');
  const std::size_t close = text.rfind('>');
  if (open == std::string::npos || close == std::string::npos || close < open) return {};
  return unquote(text.substr(open + 1, close - open - 1));
}

namespace fs = std::filesystem;
using testing_support::ChildOptions;
using testing_support::JSONValue;
using testing_support::listed;
using testing_support::runChild;

const std::string kMavrel = MAVREL_BINARY_DIR "/bin/mavrel";
constexpr const char* kUserDataItems[] = {"Documents", "Library", "tmp", "Pormex"};
constexpr const char* kDataContainers = "/private/var/mobile/Containers/Data";
// Runs that may follow a kill or a failed call before the migration must have finished.
constexpr int kMaxReruns = 3;

bool isRegularFile(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Every item below `directory` (itself left out); with `skipBookkeeping`,
// what every run writes whatever it does is left out too.
TreeSnapshot snapshotBelow(const std::string& directory, bool skipBookkeeping) {
  TreeSnapshot snapshot = testing_support::snapshotTree(directory);
  std::erase_if(snapshot, [skipBookkeeping](const auto& item) {
    const std::string& relative = item.first;
    return relative.empty() ||
           (skipBookkeeping &&
            (relative.starts_with("private/var/mobile/Library/Logs") ||
             relative.starts_with("private/var/tmp/mavrel") ||
             fs::path(relative).filename().string().starts_with("ApplicationRegistry")));
  });
  return snapshot;
}

// ".<name>.<16 lowercase hex digits>.tmp", the name of an atomic write's
// aside file.
bool isAsideName(const std::string& name) {
  static const std::regex aside(R"(\..+\.[0-9a-f]{16}\.tmp)");
  return std::regex_match(name, aside);
}

// The level-3 lines of `after` that `before` did not have, without their time
// stamp (the first two words), with the image's paths and UUIDs made generic.
std::vector<std::string> newErrorLines(const std::string& before, const std::string& after,
                                       const std::string& root) {
  static const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
  std::set<std::string> old;
  std::istringstream oldLines(before);
  for (std::string line; std::getline(oldLines, line);)
    old.insert(line);
  std::vector<std::string> lines;
  std::istringstream newLines(after);
  for (std::string line; std::getline(newLines, line);) {
    if (line.find(" <3> ") == std::string::npos || old.contains(line)) continue;
    std::size_t start = line.find(' ');
    start = start == std::string::npos ? 0 : line.find(' ', start + 1);
    std::string generic = line.substr(start == std::string::npos ? 0 : start + 1);
    for (std::size_t at = generic.find(root); at != std::string::npos; at = generic.find(root))
      generic.replace(at, root.size(), "<image>");
    lines.push_back(std::regex_replace(generic, uuid, "<uuid>"));
  }
  return lines;
}

// Whether a safety net of the image holds the file with these bytes: at its
// legacy path in a settled net, or as the link its manifest names in one
// whose run was interrupted.
bool keptInSafetyNet(const std::string& root, const std::string& legacy,
                     const std::string& relative, const std::string& digest) {
  const std::string nets = root + "/private/var/mobile/Library/Mavrel/SafetyNet";
  const std::string below = fs::path(legacy).lexically_relative(root).string() + "/" + relative;
  const auto holds = [&](const std::string& path) {
    return isRegularFile(path) && CVCreateSHA256Digest(path).value_or("") == digest;
  };
  for (const std::string& name : testing_support::entriesOf(nets)) {
    const std::string run = nets + "/" + name;
    if (holds(run + "/" + below)) return true;
    const std::string manifest = mavrel_host::readNetManifest(run);
    for (const mavrel_host::NetLinkRecord& record : mavrel_host::parseNetManifest(manifest))
      if (record.legacyRelative() == below &&
          holds(run + "/" + std::string(mavrel_host::kSafetyNetLinksDirectory) + "/" +
                std::string(record.linkName)))
        return true;
  }
  return false;
}

bool readCount(const char* name, std::uint64_t& value, std::string& error) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  const unsigned long long parsed = std::strtoull(text, &end, 10);
  if (*end != '\0') {
    error += std::string(name) + " is not a count: " + text + "\n";
    return false;
  }
  value = parsed;
  return true;
}

// Whether the sweeps can run in `parent`: room for the images and traces, and
// "user." attributes (protection classes and placeholder marks live there).
bool suitsTheSweeps(const std::string& parent) {
  std::error_code error;
  if (!fs::is_directory(parent, error)) return false;
  const fs::space_info space = fs::space(parent, error);
  if (error || space.available < (std::uintmax_t{512} << 20)) return false;
  testing_support::TemporaryDirectory probe(parent);
  return platform::sys::setAttribute(platform::sys::AttributeItem::link(probe.path().c_str()),
                                     "user.mavrel.probe", "1") == 0;
}

}  // namespace

const std::vector<std::string>& mutatingSystemCalls() {
  static const std::vector<std::string> calls = {
      "mkdir",       "mkdirat",         "rename",       "renameat",  "renameat2",
      "unlink",      "unlinkat",        "rmdir",        "link",      "linkat",
      "symlink",     "symlinkat",       "open",         "openat",    "openat2",
      "creat",       "truncate",        "ftruncate",    "fallocate", "fsync",
      "fdatasync",   "syncfs",          "setxattr",     "lsetxattr", "fsetxattr",
      "removexattr", "lremovexattr",    "fremovexattr", "chmod",     "fchmod",
      "fchmodat",    "chown",           "lchown",       "fchown",    "fchownat",
      "utimensat",   "copy_file_range", "sendfile",     "write",     "pwrite64",
      "writev",      "pwritev",         "pwritev2"};
  return calls;
}

std::string TracedCall::pathArgument(std::size_t index) const {
  if (index >= arguments.size()) return {};
  const std::string& argument = arguments[index];
  if (!argument.empty() && argument.front() == '"') return unquote(argument);
  return annotatedPath(argument);
}

std::string TracedCall::pathAt(std::size_t directoryIndex, std::size_t pathIndex) const {
  const std::string path = pathArgument(pathIndex);
  if (path.empty() || path.front() == '/') return path;
  const std::string directory = pathArgument(directoryIndex);
  if (directory.empty()) return path;
  return directory + (directory.back() == '/' ? "" : "/") + path;
}

std::string TracedCall::resultPath() const {
  return annotatedPath(result);
}

bool TracedCall::changesDisk() const {
  // Flushes make data durable but change nothing.
  if (name == "fsync" || name == "fdatasync" || name == "syncfs") return false;
  if (name == "open" || name == "openat" || name == "openat2") {
    // openat(dirfd, path, flags, ...) or open(path, flags, ...).
    const std::size_t flagsIndex = name == "open" ? 1 : 2;
    if (flagsIndex >= arguments.size()) return false;
    const std::string& flags = arguments[flagsIndex];
    return flags.find("O_CREAT") != std::string::npos ||
           flags.find("O_TRUNC") != std::string::npos ||
           flags.find("O_TMPFILE") != std::string::npos;
  }
  const auto& calls = mutatingSystemCalls();
  return std::ranges::find(calls, name) != calls.end();
}

Trace parseTrace(const std::string& text) {
  Trace trace;
  std::map<int, std::string> unfinished;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    char* rest = nullptr;
    const int pid = static_cast<int>(std::strtol(line.c_str(), &rest, 10));
    const std::size_t start = line.find_first_not_of(' ', rest - line.c_str());
    std::string body = start == std::string::npos ? std::string() : line.substr(start);
    if (body.rfind("---", 0) == 0 || body.rfind("+++", 0) == 0 || body.empty()) continue;
    if (const std::size_t cut = body.find(" <unfinished ...>"); cut != std::string::npos) {
      unfinished[pid] = body.substr(0, cut);
      continue;
    }
    if (body.rfind("<... ", 0) == 0) {
      const std::size_t resumed = body.find(" resumed>");
      const auto pending = unfinished.find(pid);
      if (resumed == std::string::npos || pending == unfinished.end()) {
        ++trace.unreadLines;
        continue;
      }
      body = pending->second + body.substr(resumed + 9);
      unfinished.erase(pending);
    }
    TracedCall call;
    call.pid = pid;
    if (parseCall(body, call)) {
      trace.calls.push_back(std::move(call));
    } else {
      ++trace.unreadLines;
    }
  }
  // A call cut short by the kill is printed as unfinished and never resumed.
  for (auto& [pid, body] : unfinished) {
    TracedCall call;
    call.pid = pid;
    if (parseCall(body + ") = ?", call)) trace.calls.push_back(std::move(call));
  }
  return trace;
}

std::vector<std::string> straceArguments(const StracePlan& plan, const std::string& program,
                                         const std::vector<std::string>& arguments) {
  std::string set;
  for (const std::string& call : plan.traced)
    set += (set.empty() ? "?" : ",?") + call;
  // Children followed, descriptors shown with their paths, signals not shown.
  std::vector<std::string> result = {"-f", "-qq", "-y", "-s", "4096", "-e", "signal=none"};
  result.insert(result.end(), {"-e", "trace=" + set, "-o",
                               plan.outputPath.empty() ? "/dev/null" : plan.outputPath});
  if (plan.injectCall)
    result.insert(result.end(), {"-e", "inject=" + *plan.injectCall + ":" + plan.injectAction +
                                           ":when=" + plan.injectWhen});
  result.push_back(program);
  result.insert(result.end(), arguments.begin(), arguments.end());
  return result;
}

std::string SweepSettings::describe() const {
  std::ostringstream text;
  text << "mode "
       << (mode == SweepMode::CI        ? "ci"
           : mode == SweepMode::Sampled ? "sampled"
                                        : "exhaustive")
       << ", image of " << applications << " applications + " << vpnOnly << " VPN-only (seed "
       << seed << ", data scale " << dataScale << "), " << workers << " workers, workspaces in "
       << workspaceParent;
  return text.str();
}

SweepSettings sweepSettings() {
  SweepSettings settings;
  const char* mode = std::getenv("MAVREL_RELIABILITY_MODE");
  const std::string modeName = mode ? mode : "ci";
  if (modeName == "sampled") {
    settings.mode = SweepMode::Sampled;
    settings.applications = 12;
    settings.seed = 17;
    settings.dataScale = 0.2;
  } else if (modeName == "exhaustive") {
    settings.mode = SweepMode::Exhaustive;
  } else if (modeName != "ci") {
    settings.error += "MAVREL_RELIABILITY_MODE must be ci, sampled or exhaustive\n";
  }
  // The CI sample of fault trials; the longer modes run them all.
  settings.faultTrials = settings.mode == SweepMode::CI ? 240 : 0;
  settings.idempotenceEvery = settings.mode == SweepMode::CI ? 8 : 1;
  std::uint64_t value = 0;
  if (readCount("MAVREL_RELIABILITY_APPS", value, settings.error)) settings.applications = value;
  if (readCount("MAVREL_RELIABILITY_VPN", value, settings.error)) settings.vpnOnly = value;
  if (readCount("MAVREL_RELIABILITY_SEED", value, settings.error)) settings.seed = value;
  if (readCount("MAVREL_RELIABILITY_POINTS", value, settings.error))
    settings.sampledKillPoints = settings.faultTrials = value;
  if (readCount("MAVREL_RELIABILITY_RANDOM_KILLS", value, settings.error))
    settings.randomInstantKills = value;
  if (readCount("MAVREL_RELIABILITY_WORKERS", value, settings.error) && value > 0)
    settings.workers = value;
  const char* parent = std::getenv("MAVREL_RELIABILITY_DIR");
  const char* temporary = std::getenv("TMPDIR");
  settings.workspaceParent = parent && *parent            ? parent
                             : suitsTheSweeps("/dev/shm") ? "/dev/shm"
                             : temporary && *temporary    ? temporary
                                                          : "/tmp";
  return settings;
}

bool endedByTheHost(const ChildOutcome& outcome) {
  return outcome.exited() && outcome.exitCode >= 0 && outcome.exitCode <= 3;
}

std::string ImageCheck::describe() const {
  std::ostringstream text;
  const auto list = [&text](const char* title, const std::vector<std::string>& items) {
    if (!items.empty()) text << title << " (" << items.size() << "):\n" << listed(items, 8);
  };
  list("lost", lost);
  list("changed", changed);
  list("still at the legacy place after a successful run", stranded);
  list("registered but missing", missingContainers);
  list("changed outside the image", outsideChanges);
  if (!listingError.empty()) text << "mavrel apps: " << listingError << "\n";
  return text.str();
}

std::unique_ptr<SweepWorkspace> SweepWorkspace::create(const std::string& base,
                                                       const SweepSettings& settings,
                                                       std::string* reason) {
  std::unique_ptr<SweepWorkspace> workspace(new SweepWorkspace());
  SweepWorkspace& w = *workspace;
  w.base_ = base;
  w.root_ = base + "/image";
  w.template_ = base + "/template";
  w.canary_ = base + "/canary";
  w.scratch_ = base + "/scratch";
  testing_support::makeDirectories(w.scratch_);
  // The canary: what a stray write or removal outside the image would hit.
  testing_support::writeFile(w.canary_ + "/keep.txt", "the migration must not touch this\n");
  testing_support::writeFile(w.canary_ + "/nested/Documents.dat", "nor this\n");
  testing_support::makeSymlink(w.root_, w.canary_ + "/image-link");

  CVError generatorError;
  const auto root = samplegen::prepareImageRoot(w.root_, false, &generatorError);
  if (!root) {
    *reason = "cannot prepare " + w.root_ + ": " + generatorError.description();
    return nullptr;
  }
  samplegen::GeneratorOptions options;
  options.root = *root;
  options.applicationCount = settings.applications;
  options.vpnOnlyCount = settings.vpnOnly;
  options.seed = settings.seed;
  options.dataScale = settings.dataScale;
  options.threads = 1;
  auto manifest = samplegen::generateLegacyImage(options, &generatorError);
  if (!manifest) {
    *reason = "cannot generate the image: " + generatorError.description();
    return nullptr;
  }
  w.root_ = *root;
  w.manifest_ = std::move(*manifest);
  if (!w.recordData(reason)) return nullptr;
  const ChildOutcome copy = runChild("cp", {"-a", w.root_, w.template_});
  if (copy.exitCode != 0) {
    *reason = "cp -a of the image failed: " + copy.describe();
    return nullptr;
  }
  w.canarySnapshot_ = snapshotBelow(w.canary_, false);
  return workspace;
}

bool SweepWorkspace::recordData(std::string* reason) {
  const auto record = [this](const std::string& owner, const std::string& kind,
                             const std::string& legacy, const std::string& below) {
    const std::string prefix = below.empty() ? "" : below + "/";
    for (const auto& [relative, digest] : testing_support::digestsBelow(legacy + "/" + below))
      data_.push_back({owner, kind, legacy, prefix + relative, digest});
  };
  std::uint64_t expected = 0;
  for (const auto& container : manifest_.containers) {
    for (const char* item : kUserDataItems)
      record(container.identifier, "container", container.containerPath, item);
    expected += container.dataFiles;
  }
  const std::uint64_t containerFiles = data_.size();
  for (const auto& group : manifest_.groupContainers)
    record(group.identifier, "group", group.path, "");
  for (const auto& harbor : manifest_.harbors)
    record(harbor.path, "harbor", harbor.path, "");
  if (containerFiles != expected || containerFiles == 0) {
    *reason = "recorded " + std::to_string(containerFiles) +
              " user-data files, the manifest says " + std::to_string(expected);
    return false;
  }
  return true;
}

bool SweepWorkspace::restore(std::string* reason) {
  std::error_code error;
  fs::remove_all(root_, error);
  // In process rather than through cp: a trial restores the image several
  // hundred times. Owners and modes are kept; times do not matter here.
  if (!error)
    fs::copy(template_, root_, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
             error);
  if (error) {
    *reason = "cannot restore " + root_ + " from " + template_ + ": " + error.message();
    return false;
  }
  for (const auto& entry : fs::recursive_directory_iterator(template_)) {
    struct stat status {};
    if (::lstat(entry.path().c_str(), &status) != 0) continue;
    const std::string copy = root_ + "/" + fs::relative(entry.path(), template_).string();
    if (::lchown(copy.c_str(), status.st_uid, status.st_gid) != 0) {
      *reason = "cannot give " + copy + " its owner: " + std::strerror(errno);
      return false;
    }
  }
  return true;
}

ChildOutcome SweepWorkspace::run(const std::vector<std::string>& arguments, const std::string& name,
                                 ChildOptions options,
                                 const std::optional<StracePlan>& strace) const {
  // Sanitizer failures get exit codes of their own (77, 78), never the host's
  // 1 or 2; leak checks are off under strace, where LeakSanitizer cannot work.
  options.environment = {
      std::string("ASAN_OPTIONS=exitcode=77:abort_on_error=0:detect_leaks=") + (strace ? "0" : "1"),
      "UBSAN_OPTIONS=exitcode=78:print_stacktrace=1", "LSAN_OPTIONS=exitcode=79"};
  options.outPath = scratch_ + "/" + name + ".out";
  options.errPath = scratch_ + "/" + name + ".err";
  if (!strace) return runChild(kMavrel, arguments, options);
  return runChild("strace", straceArguments(*strace, kMavrel, arguments), options);
}

ChildOutcome SweepWorkspace::migrate(const std::optional<StracePlan>& strace,
                                     std::chrono::milliseconds timeout,
                                     std::chrono::microseconds killAfter) const {
  ChildOptions options;
  options.timeout = timeout;
  options.killAfter = killAfter;
  return run({"migrate", "--root", root_}, "migrate", options, strace);
}

ChildOutcome SweepWorkspace::migrateInjecting(const std::string& call, const std::string& action,
                                              const std::string& when, Trace* trace,
                                              std::chrono::milliseconds timeout) const {
  const StracePlan plan{{call}, scratch_ + "/injection.trace", call, action, when};
  const ChildOutcome run = migrate(plan, timeout);
  *trace = parseTrace(testing_support::readFile(plan.outputPath));
  return run;
}

ChildOutcome SweepWorkspace::listApplications() const {
  return run({"apps", "--root", root_, "--json"}, "apps", ChildOptions());
}

std::string SweepWorkspace::logs() const {
  std::string text;
  for (const char* directory :
       {"/private/var/mobile/Library/Logs/Mavrel", "/private/var/mobile/Library/Logs/Corvane"}) {
    std::error_code error;
    for (fs::directory_iterator it(root_ + directory, error), end; !error && it != end;
         it.increment(error))
      if (it->path().extension() == ".log") text += testing_support::readFile(it->path().string());
  }
  return text;
}

bool SweepWorkspace::onlyMarkersAndAsideFilesLeft() const {
  const std::set<std::string> markers = {"com.zentrel.corvane.container_migrator.plist",
                                         "com.zentrel.corvane.migration_marker",
                                         "com.zentrel.corvane.placeholder"};
  bool asideFile = false;
  for (const std::string& container : testing_support::entriesOf(manifest_.legacyDirectory)) {
    const std::string path = manifest_.legacyDirectory + "/" + container;
    if (!fs::is_directory(path)) return false;
    for (const std::string& name : testing_support::entriesOf(path)) {
      asideFile = asideFile || isAsideName(name);
      if (!markers.contains(name) && !isAsideName(name)) return false;
    }
  }
  return asideFile;
}

TreeSnapshot SweepWorkspace::snapshot() const {
  return snapshotBelow(root_, true);
}

void SweepWorkspace::checkOutside(ImageCheck& result) const {
  for (const std::string& change :
       differences(canarySnapshot_, snapshotBelow(canary_, false), AccessTimes::Ignored))
    result.outsideChanges.push_back("canary/" + change);
  const std::set<std::string> expected = {"image", "template", "canary", "scratch"};
  for (const std::string& name : testing_support::entriesOf(base_))
    if (!expected.contains(name)) result.outsideChanges.push_back(base_ + "/" + name + " appeared");
}

ImageCheck SweepWorkspace::check(bool finished) const {
  ImageCheck result;
  checkOutside(result);
  // What `mavrel apps` lists: every registered application with its
  // containers ("" when null), and the safe harbors.
  const ChildOutcome listed = listApplications();
  std::optional<JSONValue> listing;
  if (listed.exitCode != 0) {
    result.listingError = listed.describe() + ": " + listed.err;
  } else {
    listing = testing_support::readJSON(listed.out, &result.listingError);
    if (listing && (!listing->has("applications") || !listing->has("registryExists"))) {
      result.listingError = "not the listing's JSON object";
      listing.reset();
    }
  }
  const JSONValue& applications = listing ? (*listing)["applications"] : JSONValue();
  const auto application = [&](const std::string& identifier) -> const JSONValue* {
    for (const JSONValue& entry : applications.array)
      if (entry["identifier"].string == identifier) return &entry;
    return nullptr;
  };
  if (listing) {
    result.pendingInstalls = static_cast<long>((*listing)["pendingInstalls"].number);
    for (const JSONValue& entry : applications.array) {
      std::vector<std::string> paths;
      for (const char* key : {"bundleContainer", "bundle", "vpnPlugin", "dataContainer"})
        paths.push_back(entry[key].string);
      for (const auto& [group, path] : entry["groupContainers"].object)
        paths.push_back(path.string);
      for (const std::string& path : paths)
        if (!path.empty() && !testing_support::pathExists(path))
          result.missingContainers.push_back(entry["identifier"].string + ": " + path);
    }
    for (const JSONValue& harbor : (*listing)["safeHarbors"].array)
      if (!testing_support::pathExists(harbor["path"].string))
        result.missingContainers.push_back("harbor of " + harbor["identifier"].string + ": " +
                                           harbor["path"].string);
  }

  std::optional<std::string> logText;
  for (const DataFile& file : data_) {
    std::vector<std::string> places = {file.legacy + "/" + file.relative};
    bool unlisted = false;
    if (listing && file.kind == "container") {
      const JSONValue* owner = application(file.owner);
      if (owner && !(*owner)["dataContainer"].string.empty()) {
        places.push_back((*owner)["dataContainer"].string + "/" + file.relative);
      } else if (!owner) {
        // A VPN plug-in's own data container is not in the listing: any data
        // container of the image will do. Other owners' files of the same
        // name live there too, so a copy with other bytes proves nothing.
        unlisted = true;
        for (const std::string& container : testing_support::entriesOf(root_ + kDataContainers))
          places.push_back(root_ + kDataContainers + "/" + container + "/" + file.relative);
      }
    }
    if (listing && file.kind == "group") {
      for (const JSONValue& entry : applications.array) {
        const JSONValue& group = entry["groupContainers"][file.owner];
        if (!group.isNull()) places.push_back(group.string + "/" + file.relative);
      }
    }
    const std::size_t ownPlaces = unlisted ? 1 : places.size();
    bool found = false, differs = false, onlyLegacy = false;
    for (std::size_t i = 0; i < places.size(); ++i) {
      if (!isRegularFile(places[i])) continue;
      if (CVCreateSHA256Digest(places[i]).value_or("") == file.digest) {
        found = true;
        onlyLegacy = i == 0;
        if (!onlyLegacy) break;
      } else if (i < ownPlaces) {
        differs = true;
      }
    }
    const std::string name = file.kind + " " + file.owner + ": " + file.relative;
    if (found && onlyLegacy && finished && file.kind != "harbor") {
      result.stranded.push_back(name);
    } else if (found) {
      ++result.filesVerified;
      if (unlisted && !isRegularFile(file.legacy + "/" + file.relative))
        ++result.filesInUnlistedContainers;
    } else if (differs) {
      result.changed.push_back(name);
    } else if (keptInSafetyNet(root_, file.legacy, file.relative, file.digest)) {
      // The migration's safety net keeps what its rules discard, under the
      // legacy path.
      ++result.filesInSafetyNet;
    } else {
      if (!logText) logText = logs();
      // A container whose bundle could not be read holds no bundle by the
      // migration's rules and is removed; a group item whose move failed
      // stays in its legacy group container, which is removed all the same.
      const std::string removedContainer =
          "No app or vpn bundle found in container " + file.legacy + " ; removing it";
      const std::string leftInGroup = "Failed to move item " + file.legacy + "/" +
                                      file.relative.substr(0, file.relative.find('/')) + " to ";
      if (file.kind == "container" && logText->find(removedContainer) != std::string::npos) {
        result.lossesByRule.push_back(name + " (" + removedContainer + ")");
      } else if (file.kind == "group" && logText->find(leftInGroup) != std::string::npos) {
        result.lossesByRule.push_back(name + " (" + leftInGroup + "...)");
      } else {
        result.lost.push_back(name);
      }
    }
  }
  return result;
}

Trace traceMigration(SweepWorkspace& workspace, const std::vector<std::string>& traced,
                     std::string* reason) {
  if (!workspace.restore(reason)) return {};
  StracePlan plan;
  plan.traced = traced;
  plan.outputPath = workspace.scratch() + "/reference.trace";
  const ChildOutcome run = workspace.migrate(plan);
  if (run.exitCode != 0) {
    *reason = "the traced migration did not succeed: " + run.describe() + "\n" + run.out + run.err;
    return {};
  }
  return parseTrace(testing_support::readFile(plan.outputPath));
}

std::string lastLines(const std::string& text, std::size_t lines) {
  std::size_t at = text.size();
  for (std::size_t seen = 0; at > 0 && seen <= lines;) {
    --at;
    if (text[at] == '\n') ++seen;
  }
  return text.substr(at == 0 ? 0 : at + 1);
}

void SweepTest::count(const std::string& figure, std::uint64_t amount) {
  std::lock_guard lock(mutex_);
  figures_[figure] += amount;
}

void SweepTest::add(std::vector<std::string>& lines, const std::string& trial,
                    const std::string& what) {
  std::lock_guard lock(mutex_);
  lines.push_back(trial + ": " + what);
}

int SweepTest::rerunUntilSuccess(
    SweepWorkspace& workspace, const std::string& trial,
    const std::function<void(const std::string& when, bool finished)>& check,
    bool unfinishedIsFinding) {
  for (int rerun = 1; rerun <= kMaxReruns; ++rerun) {
    const std::string logsBefore = workspace.logs();
    const ChildOutcome run = workspace.migrate();
    if (!endedByTheHost(run)) {
      problem(trial, "rerun " + std::to_string(rerun) + " " + run.describe() + "\n" +
                         lastLines(run.err, 40));
      return 0;
    }
    check(trial + ", after rerun " + std::to_string(rerun), run.exitCode == 0);
    if (run.exitCode == 0) return rerun;
    const auto errors = newErrorLines(logsBefore, workspace.logs(), workspace.root());
    const std::string first = errors.empty() ? std::string("(no error line)") : errors.front();
    count("reruns failing first with: " + first.substr(0, 220));
    note(trial, "rerun " + std::to_string(rerun) + " failed: " + first);
  }
  if (workspace.onlyMarkersAndAsideFilesLeft()) {
    count("trials ending with a container kept for an aside file left by the interruption");
    return 0;
  }
  const std::string what = "no success after " + std::to_string(kMaxReruns) + " reruns";
  if (unfinishedIsFinding) {
    count("trials never finishing (the migration's rules keep a container)");
    note(trial, what);
  } else {
    problem(trial, what + "; the log ends:\n" + lastLines(workspace.logs(), 12));
  }
  return 0;
}

void SweepTest::SetUp() {
  settings_ = sweepSettings();
  ASSERT_TRUE(settings_.error.empty()) << settings_.error;
  base_.emplace(settings_.workspaceParent);
  std::string reason;
  for (std::size_t i = 0; i < settings_.workers; ++i) {
    auto workspace =
        SweepWorkspace::create(base_->path() + "/worker" + std::to_string(i), settings_, &reason);
    ASSERT_NE(workspace, nullptr) << reason;
    workspaces_.push_back(std::move(workspace));
  }
}

void SweepTest::runTrials(std::size_t count,
                          const std::function<void(SweepWorkspace&, std::size_t index)>& trial) {
  std::atomic<std::size_t> next{0};
  std::vector<std::jthread> threads;  // joined when they go
  for (const auto& workspace : workspaces_) {
    threads.emplace_back([this, &next, &trial, count, &workspace] {
      for (std::size_t index = next++; index < count; index = next++) {
        std::string failure;
        if (workspace->restore(&failure)) {
          trial(*workspace, index);
        } else {
          problem("trial " + std::to_string(index), failure);
        }
      }
    });
  }
}

void SweepTest::countFiles(const ImageCheck& check) {
  count("files verified", check.filesVerified);
  count("files lost", check.lost.size());
  count("files verified in a data container mavrel apps does not list",
        check.filesInUnlistedContainers);
  count("files lost under a rule of the migration", check.lossesByRule.size());
  count("files kept in a safety net", check.filesInSafetyNet);
}

void SweepTest::report(const std::string& title,
                       std::optional<std::chrono::steady_clock::time_point> start) {
  if (start)
    count("seconds", static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                                    std::chrono::steady_clock::now() - *start)
                                                    .count()));
  std::lock_guard lock(mutex_);
  std::string figures;
  for (const auto& [name, value] : figures_)
    figures += "  " + name + ": " + std::to_string(value) + "\n";
  std::printf("%s (%s)\n%sNotes:\n%s", title.c_str(), settings_.describe().c_str(), figures.c_str(),
              listed(notes_, 12).c_str());
  // Every note, for reading the long runs' findings one by one.
  if (const char* path = std::getenv("MAVREL_RELIABILITY_NOTES"); path && *path) {
    std::ofstream file(path, std::ios::app);
    file << "# " << title << " (" << settings_.describe() << ")\n" << listed(notes_);
  }
  const auto lost = figures_.find("files lost");
  EXPECT_EQ(lost == figures_.end() ? 0u : lost->second, 0u);
  EXPECT_TRUE(problems_.empty()) << listed(problems_, 20);
}

}  // namespace reliability
