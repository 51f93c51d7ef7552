// What `mavrel plan` predicts is what `mavrel migrate` does: on generated
// images with every kind of application (built-in duplicates, a bundle
// without its executable, a container with an unexpected item, VPN-only
// containers, the stray note), the plan's outcome, failed step and container
// fate of each legacy entry are those of the report of the real pass, and the
// order of the plan's work list is the order in which the pass migrates.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/host/GeneratedImage.h"

namespace {

using namespace testing_support;

class PlanAgainstPassTest : public ::testing::Test {
 protected:
  void comparePlanWithPass(samplegen::GeneratorOptions options) {
    const auto manifest = host_test::generateImage(directory_.path() + "/image", options);
    const ProgramRun planned =
        runMavrel({"plan", "--root", manifest.root, "--json"}, directory_.path());
    ASSERT_EQ(planned.exitCode, 0) << planned.err;
    const JSONValue plan = parseJSON(planned.out);

    const std::string reportPath = directory_.path() + "/report.json";
    const ProgramRun migrated =
        runMavrel({"migrate", "--root", manifest.root, "--report", reportPath}, directory_.path());
    ASSERT_NE(migrated.exitCode, 2) << migrated.out << migrated.err;
    const JSONValue report = parseJSON(readFile(reportPath));

    const auto predicted = byPath(plan["entries"]);
    const auto happened = byPath(report["entries"]);
    ASSERT_EQ(predicted.size(), happened.size());
    ASSERT_GT(predicted.size(), 0u);
    for (const auto& [path, entry] : predicted) {
      SCOPED_TRACE(path + " (" + entry["kind"].string + ")");
      const auto found = happened.find(path);
      ASSERT_NE(found, happened.end()) << "the report lacks the entry";
      const JSONValue& actual = found->second;
      EXPECT_EQ(entry["outcome"].string, actual["outcome"].string)
          << "predicted because: " << entry["reason"].string
          << "\nthe pass said: " << actual["message"].string;
      EXPECT_EQ(entry["failedStep"].string, actual["failedStep"].string);
      EXPECT_EQ(entry["container"].string, actual["container"].string);
      if (entry["order"].count() > 0) {
        EXPECT_EQ(entry["identifier"].string, actual["identifier"].string);
      }
    }

    // The pass migrates in the plan's work-list order.
    std::vector<std::pair<std::uint64_t, std::string>> order;
    for (const auto& [path, entry] : predicted) {
      if (entry["order"].count() > 0) order.emplace_back(entry["order"].count(), path);
    }
    std::sort(order.begin(), order.end());
    std::vector<std::string> migratedInOrder;
    for (const JSONValue& entry : report["entries"].array) {
      if (!entry["identifier"].isNull()) migratedInOrder.push_back(entry["path"].string);
    }
    ASSERT_EQ(order.size(), migratedInOrder.size());
    for (std::size_t i = 0; i < order.size(); ++i)
      EXPECT_EQ(order[i].second, migratedInOrder[i]);

    EXPECT_EQ(plan["predictedSuccess"].boolean, report["succeeded"].boolean);
    EXPECT_EQ(plan["totals"]["entries"].count(), report["totals"]["entries"].count());
    counts_ = report["totals"];
  }

  TemporaryDirectory directory_;
  JSONValue counts_;
};

TEST_F(PlanAgainstPassTest, EveryKindOfApplication) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 14;
  options.seed = 31;
  options.vpnOnlyCount = 2;
  options.missingExecutable = {"2"};
  options.extraItem = {"5"};
  comparePlanWithPass(options);
  // The image really holds the cases compared above.
  EXPECT_GE(counts_["migrated"].count(), 8u);
  EXPECT_EQ(counts_["refusedBuiltIn"].count(), 1u);
  // No executable and an unexpected item; the VPN-only containers hold plug-ins
  // their applications ship, so they migrate.
  EXPECT_GE(counts_["failed"].count(), 2u);
  EXPECT_EQ(counts_["removed"].count(), 1u);  // the stray note
}

TEST_F(PlanAgainstPassTest, AnImageThatMigratesCleanly) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 10;
  options.seed = 32;
  options.vpnOnlyCount = 0;
  comparePlanWithPass(options);
  EXPECT_EQ(counts_["failed"].count(), 0u);
}

}  // namespace
