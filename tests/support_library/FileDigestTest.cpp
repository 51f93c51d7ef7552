// File digests: known answers, agreement with the system's sha256sum, how the
// file is read, and every way a read fails.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/Log.h"
#include "shared/support/CVFileDigest.h"
#include "shared/support/CVFileDigestTesting.h"
#include "tests/support/TestSupport.h"

namespace {

using platform::kLogLevelError;
using testing_support::CapturedLine;
using testing_support::CapturedLog;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

constexpr char kEmptyDigest[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes)
    byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}

struct PipeClose {
  void operator()(FILE* pipe) const { ::pclose(pipe); }
};

// The digest as the system's own tool computes it, in a child process.
std::string sha256sum(const std::string& path) {
  const std::unique_ptr<FILE, PipeClose> pipe(::popen(("sha256sum '" + path + "'").c_str(), "r"));
  if (!pipe) return "popen failed";
  std::string output;
  char chunk[256];
  while (const std::size_t count = std::fread(chunk, 1, sizeof chunk, pipe.get()))
    output.append(chunk, count);
  return output.substr(0, 64);
}

// Records what the reader does and lets a test act right after the size is taken.
class RecordingObserver : public CVReadFileObserver {
 public:
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
};

class ScopedObserver {
 public:
  explicit ScopedObserver(CVReadFileObserver* observer)
      : previous_(CVSetReadFileObserverForTesting(observer)) {}
  ~ScopedObserver() { CVSetReadFileObserverForTesting(previous_); }
  ScopedObserver(const ScopedObserver&) = delete;
  ScopedObserver& operator=(const ScopedObserver&) = delete;

 private:
  CVReadFileObserver* previous_;
};

void expectLines(const CapturedLog& log,
                 const std::vector<std::pair<std::string, std::string>>& expected) {
  const std::vector<CapturedLine> lines = log.lines();
  ASSERT_EQ(lines.size(), expected.size()) << log.dump();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].level, kLogLevelError) << log.dump();
    EXPECT_EQ(lines[i].function, expected[i].first) << log.dump();
    EXPECT_EQ(lines[i].message, expected[i].second) << log.dump();
  }
}

// ---- Known answers

struct KnownAnswer {
  std::string message;  // raw bytes
  std::string digest;
};

std::string fromHex(std::string_view hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  return bytes;
}

// Reads a NIST CAVP response file: "Len = <bits>", "Msg = <hex>", "MD = <hex>"
// records, CRLF line endings; Len 0 comes with the placeholder Msg "00".
std::vector<KnownAnswer> readResponseFile(const std::string& name) {
  std::ifstream file(std::string(MAVREL_TESTDATA_DIR) + "/sha256/nist-cavp/" + name);
  std::vector<KnownAnswer> answers;
  std::size_t bits = 0;
  std::string message;
  std::string line;
  while (std::getline(file, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const auto value = [&](std::string_view prefix) -> std::optional<std::string> {
      if (line.rfind(prefix, 0) != 0) return std::nullopt;
      return line.substr(prefix.size());
    };
    if (auto length = value("Len = ")) {
      bits = std::stoul(*length);
    } else if (auto hex = value("Msg = ")) {
      message = fromHex(*hex).substr(0, bits / 8);
    } else if (auto digest = value("MD = ")) {
      answers.push_back(KnownAnswer{message, *digest});
    }
  }
  return answers;
}

class KnownAnswerTest : public testing::TestWithParam<const char*> {};

TEST_P(KnownAnswerTest, EveryVectorMatches) {
  const std::vector<KnownAnswer> answers = readResponseFile(GetParam());
  ASSERT_GE(answers.size(), 60U) << "test vectors missing";
  TemporaryDirectory directory;
  const std::string path = directory / "message";
  for (std::size_t i = 0; i < answers.size(); ++i) {
    SCOPED_TRACE("vector " + std::to_string(i) + ", " + std::to_string(answers[i].message.size()) +
                 " bytes");
    writeFile(path, answers[i].message);
    EXPECT_EQ(CVCreateSHA256Digest(path), answers[i].digest);
  }
}

INSTANTIATE_TEST_SUITE_P(NistCavp, KnownAnswerTest,
                         testing::Values("SHA256ShortMsg.rsp", "SHA256LongMsg.rsp"));

// ---- Agreement with sha256sum, and the chunking behind it

class DigestTest : public testing::Test {
 protected:
  std::string makeFile(std::string_view name, std::size_t size, unsigned seed = 1) {
    const std::string path = directory_ / name;
    writeFile(path, randomBytes(size, seed));
    return path;
  }
  TemporaryDirectory directory_;
};

TEST_F(DigestTest, AgreesWithSha256sumAroundTheChunkSize) {
  unsigned seed = 7;
  for (const std::size_t size : {0UL, 1UL, 65'535UL, 65'536UL, 65'537UL, 3'000'017UL}) {
    SCOPED_TRACE(size);
    const std::string path = makeFile("file-" + std::to_string(size), size, ++seed);
    const auto digest = CVCreateSHA256Digest(path);
    ASSERT_TRUE(digest.has_value());
    EXPECT_EQ(*digest, sha256sum(path));
    EXPECT_EQ(digest->size(), 64U);
  }
}

TEST_F(DigestTest, EmptyFileIsTheDigestOfNothingWithoutARead) {
  const std::string path = makeFile("empty", 0);
  RecordingObserver observer;
  const ScopedObserver scope(&observer);
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(CVCreateSHA256Digest(path), kEmptyDigest);
  EXPECT_TRUE(observer.requested.empty());
  EXPECT_EQ(log.count(), 0U) << log.dump();
}

TEST_F(DigestTest, ReadsInChunksOfAtMost64KiB) {
  const struct {
    std::size_t size;
    std::vector<std::size_t> reads;
  } cases[] = {{1, {1}},
               {65'535, {65'535}},
               {65'536, {65'536}},
               {65'537, {65'536, 1}},
               {3 * 65'536 + 5, {65'536, 65'536, 65'536, 5}}};
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.size);
    const std::string path = makeFile("chunks", expected.size);
    RecordingObserver observer;
    const ScopedObserver scope(&observer);
    ASSERT_TRUE(CVCreateSHA256Digest(path).has_value());
    EXPECT_EQ(observer.requested, expected.reads);
    EXPECT_EQ(std::vector<ssize_t>(observer.received.begin(), observer.received.end()),
              std::vector<ssize_t>(expected.reads.begin(), expected.reads.end()));
  }
}

TEST_F(DigestTest, BytesAppendedDuringTheReadAreNotHashed) {
  const std::string original = randomBytes(100'000, 3);
  const std::string path = directory_ / "growing";
  writeFile(path, original);
  const std::string expected = sha256sum(path);

  RecordingObserver observer;
  observer.onStat = [](const char* statPath) {
    std::ofstream(statPath, std::ios::app | std::ios::binary) << std::string(70'000, 'x');
  };
  const ScopedObserver scope(&observer);
  EXPECT_EQ(CVCreateSHA256Digest(path), expected);
  EXPECT_EQ(std::accumulate(observer.requested.begin(), observer.requested.end(), std::size_t{0}),
            original.size());
}

TEST_F(DigestTest, ConcurrentDigestsDoNotInterfere) {
  std::vector<std::string> paths;
  std::vector<std::string> expected;
  for (unsigned i = 0; i < 4; ++i) {
    paths.push_back(makeFile("concurrent-" + std::to_string(i), 200'000 + i, i));
    expected.push_back(sha256sum(paths.back()));
  }
  std::vector<std::optional<std::string>> results(paths.size());
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < paths.size(); ++i)
      threads.emplace_back([&, i] { results[i] = CVCreateSHA256Digest(paths[i]); });
  }
  for (std::size_t i = 0; i < paths.size(); ++i)
    EXPECT_EQ(results[i], expected[i]);
}

// ---- Failures: nullopt, the reader's message, then the digest's

TEST_F(DigestTest, MissingFileLogsOpenFailureThenReadFailure) {
  const std::string path = directory_ / "absent";
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(CVCreateSHA256Digest(path), std::nullopt);
  expectLines(
      log, {{"_ReadFile", "failed to open " + path + " : No such file or directory"},
            {"CVCreateSHA256Digest", "Failed to read " + path + " : No such file or directory"}});
}

TEST_F(DigestTest, DirectoryFailsOnItsFirstRead) {
  const std::string path = directory_ / "folder";
  testing_support::makeDirectories(path);
  writeFile(path + "/entry", "x");  // a directory with an entry reports a nonzero size
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  ASSERT_GT(status.st_size, 0) << "this file system gives directories no size";

  CapturedLog log(platform::installerLog());
  EXPECT_EQ(CVCreateSHA256Digest(path), std::nullopt);
  expectLines(log, {{"_ReadFile", "read failed for " + path + " : Is a directory"},
                    {"CVCreateSHA256Digest", "Failed to read " + path + " : Is a directory"}});
}

TEST_F(DigestTest, FileThatShrinksDuringTheReadFails) {
  const std::string path = makeFile("shrinking", 200'000);
  RecordingObserver observer;
  observer.onStat = [](const char* statPath) { ASSERT_EQ(::truncate(statPath, 70'000), 0); };
  const ScopedObserver scope(&observer);
  CapturedLog log(platform::installerLog());

  EXPECT_EQ(CVCreateSHA256Digest(path), std::nullopt);
  // Two chunks hold what is left (65,536 + 4,464 bytes); the third read finds nothing.
  EXPECT_EQ(observer.received, (std::vector<ssize_t>{65'536, 4'464, 0}));
  const std::vector<CapturedLine> lines = log.lines();
  ASSERT_EQ(lines.size(), 2U) << log.dump();
  EXPECT_EQ(lines[0].function, "_ReadFile");
  EXPECT_EQ(lines[0].message, "read failed for " + path + ", got 0 bytes");
  EXPECT_EQ(lines[1].function, "CVCreateSHA256Digest");
  EXPECT_EQ(lines[1].message.rfind("Failed to read " + path + " : ", 0), 0U) << log.dump();
}

TEST_F(DigestTest, PathWithEmbeddedNulNamesNoFile) {
  // Without the check, the path would be cut at the NUL and name "prefix".
  makeFile("prefix", 10);
  const std::string path = (directory_ / "prefix") + std::string(1, '\0') + "rest";
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(CVCreateSHA256Digest(path), std::nullopt);
  ASSERT_EQ(log.count(), 1U) << log.dump();
  EXPECT_EQ(log.lines()[0].function, "CVCreateSHA256Digest");
  EXPECT_NE(log.lines()[0].message.find(" : Invalid argument"), std::string::npos) << log.dump();
}

}  // namespace
