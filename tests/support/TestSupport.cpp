#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

namespace testing_support {

namespace {

std::string systemTemporaryDirectory() {
  const char* base = std::getenv("TMPDIR");
  return base && *base ? base : "/tmp";
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() : TemporaryDirectory(systemTemporaryDirectory()) {}

TemporaryDirectory::TemporaryDirectory(const std::string& parent) {
  std::string pattern = parent + "/mavrel-test.XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed for " << pattern;
  }
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  // Some tests make items undeletable on purpose; clear the flags first.
  std::system(("chattr -R -i -a '" + path_ + "' >/dev/null 2>&1").c_str());
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::operator/(std::string_view relative) const {
  return path_ + "/" + std::string(relative);
}

CVURL TemporaryDirectory::fileURL(std::string_view relative) const {
  return CVURL::fileURLWithPath(*this / relative, false);
}

CVURL TemporaryDirectory::directoryURL(std::string_view relative) const {
  return CVURL::fileURLWithPath(*this / relative, true);
}

class CapturedLog::Sink final : public platform::LogSink {
 public:
  void write(const platform::LogLine& line) override {
    std::lock_guard lock(mutex);
    lines.push_back(CapturedLine{line.level, std::string(line.function), std::string(line.message),
                                 std::string(line.category), std::string(line.file), line.line});
  }
  mutable std::mutex mutex;
  std::vector<CapturedLine> lines;
};

CapturedLog::CapturedLog(platform::Log& log, std::optional<int> handleLevel)
    : sink_(std::make_shared<Sink>()),
      scope_(std::make_unique<platform::ScopedLogSink>(log, sink_, handleLevel)) {}

CapturedLog::~CapturedLog() = default;

std::vector<CapturedLine> CapturedLog::lines() const {
  std::lock_guard lock(sink_->mutex);
  return sink_->lines;
}

std::vector<std::string> CapturedLog::messages() const {
  std::vector<std::string> result;
  for (const CapturedLine& line : lines())
    result.push_back(line.message);
  return result;
}

bool CapturedLog::contains(int level, std::string_view message) const {
  return std::ranges::any_of(lines(), [&](const CapturedLine& line) {
    return line.level == level && line.message == message;
  });
}

bool CapturedLog::containsFragment(std::string_view fragment) const {
  return std::ranges::any_of(lines(), [&](const CapturedLine& line) {
    return line.message.find(fragment) != std::string::npos;
  });
}

std::size_t CapturedLog::count() const {
  return lines().size();
}

void CapturedLog::clear() {
  std::lock_guard lock(sink_->mutex);
  sink_->lines.clear();
}

std::string CapturedLog::dump() const {
  std::ostringstream text;
  for (const CapturedLine& line : lines()) {
    text << "  <" << line.level << "> " << line.function << ": " << line.message << "\n";
  }
  return text.str();
}

void writeFile(const std::string& path, std::string_view contents, mode_t mode) {
  const auto slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0) {
    std::error_code ignored;
    std::filesystem::create_directories(path.substr(0, slash), ignored);
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  ASSERT_TRUE(out.good()) << "cannot write " << path;
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  out.close();
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

std::vector<std::string> entriesOf(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

void makeDirectories(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  ASSERT_FALSE(error) << path << ": " << error.message();
}

void makeSymlink(const std::string& target, const std::string& linkPath) {
  ASSERT_EQ(::symlink(target.c_str(), linkPath.c_str()), 0) << linkPath;
}

bool pathExists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

std::optional<std::int32_t> protectionClassOf(const std::string& path) {
  std::int32_t value = 0;
  if (::lgetxattr(path.c_str(), "user.mavrel.protection-class", &value, sizeof value) !=
      static_cast<ssize_t>(sizeof value))
    return std::nullopt;
  return value;
}

}  // namespace testing_support
