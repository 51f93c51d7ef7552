// File digests: the chunks read, checked against sha256sum, and failed reads.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "shared/support/CVFileDigest.h"
#include "shared/support/CVFileDigestTesting.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes)
    byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}

// The digest as the system's own tool computes it.
std::string sha256sum(const std::string& path, const std::string& scratch) {
  return runProgram("sha256sum", {path}, scratch).out.substr(0, 64);
}

// Records what the reader does and lets a test act right after the size is
// taken; installed for its lifetime.
class RecordingObserver : public CVReadFileObserver {
 public:
  RecordingObserver() : previous_(CVSetReadFileObserverForTesting(this)) {}
  ~RecordingObserver() override { CVSetReadFileObserverForTesting(previous_); }
  void afterStat(const char* path) override {
    if (onStat) onStat(path);
  }
  void afterRead(std::size_t wanted, ssize_t got) override {
    requested.push_back(wanted);
    received.push_back(got);
  }
  std::function<void(const char*)> onStat;
  std::vector<std::size_t> requested;
  std::vector<ssize_t> received;

 private:
  CVReadFileObserver* previous_;
};

// Every chunk is hashed (checked against the system's sha256sum), none is
// read of an empty file. A file already open keeps its descriptor: closing it
// would make the caller's own close hit whatever file took the number next.
TEST(FileDigestTest, ReadsInChunksOfAtMost64KiBAndLeavesAnOpenFileToTheCaller) {
  TemporaryDirectory directory;
  const std::string path = directory / "chunks";
  const std::vector<std::pair<std::size_t, std::vector<std::size_t>>> cases = {
      {0, {}},
      {1, {1}},
      {65'535, {65'535}},
      {65'536, {65'536}},
      {65'537, {65'536, 1}},
      {3 * 65'536 + 5, {65'536, 65'536, 65'536, 5}}};
  for (const auto& [size, reads] : cases) {
    writeFile(path, randomBytes(size, 1));
    RecordingObserver observer;
    CapturedLog log(platform::installerLog());
    EXPECT_EQ(CVCreateSHA256Digest(path), sha256sum(path, directory.path())) << size;
    EXPECT_EQ(observer.requested, reads) << size;
    EXPECT_EQ(std::vector<std::size_t>(observer.received.begin(), observer.received.end()), reads);
    EXPECT_EQ(log.count(), 0U) << log.dump();
  }
  const platform::sys::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(fd);
  EXPECT_EQ(CVCreateSHA256DigestOfOpenFile(fd.get(), path), sha256sum(path, directory.path()));
  EXPECT_NE(::fcntl(fd.get(), F_GETFD), -1) << "the caller's descriptor was closed";
}

TEST(FileDigestTest, BytesAppendedDuringTheReadAreNotHashed) {
  TemporaryDirectory directory;
  const std::string path = directory / "growing";
  writeFile(path, randomBytes(100'000, 3));
  const std::string expected = sha256sum(path, directory.path());
  RecordingObserver observer;
  observer.onStat = [](const char* statPath) {
    std::ofstream(statPath, std::ios::app | std::ios::binary) << std::string(70'000, 'x');
  };
  EXPECT_EQ(CVCreateSHA256Digest(path), expected);
  EXPECT_EQ(std::accumulate(observer.requested.begin(), observer.requested.end(), std::size_t{0}),
            100'000U);
}

TEST(FileDigestTest, EveryFailedReadIsNoDigestAndTwoLines) {
  TemporaryDirectory directory;
  const std::string absent = directory / "absent", folder = directory / "folder",
                    shrinking = directory / "shrinking", prefix = directory / "prefix";
  writeFile(folder + "/entry", "x");  // a directory with an entry reports a nonzero size
  writeFile(shrinking, randomBytes(200'000, 1));
  writeFile(prefix, "ten bytes.");
  struct Case {
    std::string path;
    std::vector<std::pair<std::string, std::string>> lines;  // (function, message start)
  };
  const std::vector<Case> cases = {
      {absent,
       {{"_ReadFile", "failed to open " + absent + " : No such file or directory"},
        {"CVCreateSHA256Digest", "Failed to read " + absent + " : No such file or directory"}}},
      {folder,
       {{"_ReadFile", "read failed for " + folder + " : Is a directory"},
        {"CVCreateSHA256Digest", "Failed to read " + folder + " : Is a directory"}}},
      // Cut to 70,000 bytes after its size was taken: two chunks hold what is
      // left, the third read finds nothing.
      {shrinking,
       {{"_ReadFile", "read failed for " + shrinking + ", got 0 bytes"},
        {"CVCreateSHA256Digest", "Failed to read " + shrinking + " : "}}},
      // Without the check, the path would be cut at the NUL and name "prefix".
      {prefix + std::string(1, '\0') + "rest", {{"CVCreateSHA256Digest", ""}}},
  };
  for (const Case& each : cases) {
    RecordingObserver observer;
    if (each.path == shrinking)
      observer.onStat = [](const char* path) { ASSERT_EQ(::truncate(path, 70'000), 0); };
    CapturedLog log(platform::installerLog());
    EXPECT_EQ(CVCreateSHA256Digest(each.path), std::nullopt) << each.path;
    const std::vector<CapturedLine> lines = log.lines();
    ASSERT_EQ(lines.size(), each.lines.size()) << log.dump();
    for (std::size_t i = 0; i < lines.size(); ++i) {
      EXPECT_EQ(lines[i].level, platform::kLogLevelError);
      EXPECT_EQ(lines[i].function, each.lines[i].first);
      EXPECT_EQ(lines[i].message.rfind(each.lines[i].second, 0), 0U) << log.dump();
    }
    if (each.path == shrinking) {
      EXPECT_EQ(observer.received, (std::vector<ssize_t>{65'536, 4'464, 0}));
    }
    if (each.path.find('\0') != std::string::npos) {
      EXPECT_NE(lines.at(0).message.find(" : Invalid argument"), std::string::npos);
    }
  }
}

}  // namespace
