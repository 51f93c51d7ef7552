// Readers of shared state on several threads at once: a data race under
// ThreadSanitizer, a whole and consistent value everywhere.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/Bundle.h"
#include "platform/IconService.h"
#include "platform/Log.h"
#include "platform/PNGCodec.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/support/CVFileDigest.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/DeviceImage.h"
#include "tests/support/TestSupport.h"

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

// An opaque square of one grey level.
platform::Image greyImage(std::uint32_t side, std::uint8_t level) {
  platform::Image image{side, side, {}};
  for (std::uint32_t i = 0; i < side * side; ++i)
    image.pixels.insert(image.pixels.end(), {level, level, level, 0xFF});
  return image;
}

TEST(ConcurrentReadersTest, IconsMadeAheadOnSomeThreadsAreWholeOnTheOthers) {
  testing_support::DeviceImage image;
  std::vector<CVURL> bundles;
  const auto level = [](int which) { return static_cast<std::uint8_t>(10 * which + 5); };
  for (int i = 0; i < kThreads; ++i) {
    const std::string path = image.rootPath() + "/App" + std::to_string(i) + ".app";
    image.writeBundle(path, "com.example.app" + std::to_string(i));
    const std::vector<std::uint8_t> png = *platform::encodePNG(greyImage(240, level(i)), nullptr);
    testing_support::writeFile(path + "/Icon.png",
                               {reinterpret_cast<const char*>(png.data()), png.size()});
    bundles.push_back(CVURL::fileURLWithPath(path, true));
  }
  platform::IconService& icons = platform::defaultIconService();
  std::atomic<int> wrong{0};
  runOnThreads([&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      const int which = (thread + round) % kThreads;
      if (thread % 2 == 0) {
        icons.prepareHomeScreenIconForBundleAtURL(bundles[which]);
        continue;
      }
      const std::optional<platform::Image> icon =
          icons.homeScreenIconForBundle(*platform::Bundle::create(bundles[which]));
      std::vector<std::uint8_t> encoded;
      const auto destination =
          platform::PVImageDestinationCreateWithData(&encoded, platform::kImageTypePNG, 1);
      if (icon) platform::PVImageDestinationAddImage(*destination, *icon);
      const std::vector<std::uint8_t> expected = greyImage(120, level(which)).pixels;
      const bool finalized = platform::PVImageDestinationFinalize(*destination);
      const auto decoded = platform::decodePNG(encoded, {}, nullptr);
      if (!icon || icon->pixels != expected || !finalized || !decoded ||
          decoded->pixels != expected)
        ++wrong;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
}
