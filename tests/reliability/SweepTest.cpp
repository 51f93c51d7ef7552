#include "tests/reliability/SweepTest.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace reliability {

void SweepTest::SetUp() {
  settings_ = sweepSettings();
  ASSERT_TRUE(settings_.error.empty()) << settings_.error;
  base_.emplace(settings_.workspaceParent);
  std::string reason;
  workspaces_ = makeWorkspaces(base_->path(), settings_, &reason);
  ASSERT_FALSE(workspaces_.empty()) << reason;
}

void SweepTest::countFiles(const ImageCheck& check) {
  findings_.count("files verified", check.filesVerified);
  findings_.count("files lost", check.lost.size());
  findings_.count("files verified in a data container mavrel apps does not list",
                  check.filesInUnlistedContainers);
  findings_.count("files lost under a rule of the migration", check.lossesByRule.size());
  findings_.count("files kept in a safety net", check.filesInSafetyNet);
}

void SweepTest::countSecondsSince(std::chrono::steady_clock::time_point start) {
  const auto elapsed = std::chrono::steady_clock::now() - start;
  findings_.count("seconds",
                  static_cast<std::uint64_t>(
                      std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()));
}

void SweepTest::report(const std::string& title) {
  std::printf("%s (%s)\n%s", title.c_str(), settings_.describe().c_str(),
              findings_.figures().c_str());
  std::printf("Notes:\n%s", findings_.noteReport().c_str());
  // Every note, for reading the long runs' findings one by one.
  if (const char* path = std::getenv("MAVREL_RELIABILITY_NOTES"); path && *path) {
    std::ofstream file(path, std::ios::app);
    file << "# " << title << " (" << settings_.describe() << ")\n";
    for (const std::string& note : findings_.notes())
      file << note << "\n";
  }
  EXPECT_EQ(findings_.figure("files lost"), 0u);
  EXPECT_TRUE(findings_.problems().empty()) << findings_.problemReport();
}

}  // namespace reliability
