#include "tests/reliability/StraceTrace.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string_view>

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
  if (!std::all_of(call.name.begin(), call.name.end(),
                   [](unsigned char c) { return std::isalnum(c) || c == '_'; }))
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
  return std::find(calls.begin(), calls.end(), name) != calls.end();
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

}  // namespace reliability
