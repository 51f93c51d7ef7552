// Readers of shared state on several threads at once: a data race under
// ThreadSanitizer, a whole and consistent value everywhere.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/Log.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/support/CVFileDigest.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/DeviceImage.h"

namespace {

constexpr int kThreads = 6;
constexpr int kRounds = 40;

void runOnThreads(const std::function<void(int thread)>& body) {
  std::vector<std::jthread> threads;  // joined when they go
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back(body, i);
}

TEST(ConcurrentReadersTest, CachedBundleMapsAreWholeWhileOtherThreadsRescan) {
  testing_support::DeviceImage image;
  image.writeBundle(image.rootPath() + "/Applications/Mail.app", "com.example.mail");
  image.writeBundle(image.rootPath() + "/Applications/Clock.app", "com.example.clock");
  image.writeBundle(image.rootPath() + "/System/Library/CoreServices/Setup.app",
                    "com.example.setup");
  image.writeBundle(image.rootPath() + "/System/Library/Frameworks/Kit.framework",
                    "com.example.kit");
  CVGlobalConfiguration configuration(image.root());
  std::atomic<int> incomplete{0};

  runOnThreads([&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      if (thread == 0) configuration.reScanSystemApps();
      if (thread == 1) configuration.reScanCoreServicesApps();
      const auto system = configuration.systemAppBundleIDToInfoMap();
      if (!system || system->count() != 2) ++incomplete;
      const auto frameworks = configuration.builtInFrameworkBundleIDs();
      if (!frameworks || !frameworks->contains("com.example.kit")) ++incomplete;
      if (configuration.builtInApplicationBundleIDs() !=
          CVSet{"com.example.mail", "com.example.clock"})
        ++incomplete;
      const auto coreServices = configuration.coreServicesAppBundleIDToInfoMap();
      if (!coreServices || !coreServices->contains("com.example.setup")) ++incomplete;
      configuration.dataDirectory();
      configuration.stagingRoot();
    }
  });
  EXPECT_EQ(incomplete.load(), 0);
}

TEST(ConcurrentReadersTest, LogLinesFromManyThreadsAllArrive) {
  testing_support::CapturedLog log(platform::migrationLog());
  runOnThreads([](int thread) {
    for (int round = 0; round < kRounds; ++round)
      platform::logMigration(platform::kLogLevelNotice, "reader", "thread %d round %d", thread,
                             round);
  });
  EXPECT_EQ(log.count(), static_cast<std::size_t>(kThreads * kRounds));
}

TEST(ConcurrentReadersTest, ConcurrentDigestsDoNotInterfere) {
  testing_support::TemporaryDirectory directory;
  std::vector<std::string> paths, expected;
  for (int i = 0; i < kThreads; ++i) {
    paths.push_back(directory / ("file-" + std::to_string(i)));
    testing_support::writeFile(paths.back(), std::string(200'000 + i, static_cast<char>('a' + i)));
    expected.push_back(testing_support::runProgram("sha256sum", {paths.back()}, directory.path())
                           .out.substr(0, 64));
  }
  std::vector<std::optional<std::string>> results(paths.size());
  runOnThreads([&](int thread) { results[thread] = CVCreateSHA256Digest(paths[thread]); });
  for (std::size_t i = 0; i < paths.size(); ++i)
    EXPECT_EQ(results[i], expected[i]);
}

}  // namespace
