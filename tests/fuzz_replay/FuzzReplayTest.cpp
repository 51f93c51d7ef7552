// Replays every kept fuzz input (corpus and regressions) through its target
// under the sanitizer build: a reader that regresses aborts or is stopped.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

// Every fuzz target under a name of its own, so that all of them live in the
// one replay program, and the targets' shared support (the fuzz directory
// itself is only built with the fuzzers).
#include "fuzz/FuzzSupport.cpp"
#define LLVMFuzzerTestOneInput replayMigrationMarker
#include "fuzz/MigrationMarkerFuzzer.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replayInstallMap
#include "fuzz/InstallMapFuzzer.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replayHarborMap
#include "fuzz/HarborMapFuzzer.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replayVersionRecord
#include "fuzz/VersionRecordFuzzer.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replayPreferences
#include "fuzz/PreferencesFuzzer.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replayInfoPlist
#include "fuzz/InfoPlistFuzzer.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replayEntitlements
#include "fuzz/EntitlementsFuzzer.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replaySystemBuild
#include "fuzz/SystemBuildFuzzer.cpp"
#undef LLVMFuzzerTestOneInput
#define LLVMFuzzerTestOneInput replayIconPNG
#include "fuzz/IconPNGFuzzer.cpp"
#undef LLVMFuzzerTestOneInput

namespace {

namespace fs = std::filesystem;

struct ReplayTarget {
  const char* name;  // directory name under fuzz/corpus and fuzz/regressions
  int (*run)(const std::uint8_t* data, std::size_t size);
};

const ReplayTarget kTargets[] = {
    {"migration_marker", replayMigrationMarker},
    {"install_map", replayInstallMap},
    {"harbor_map", replayHarborMap},
    {"version_record", replayVersionRecord},
    {"preferences", replayPreferences},
    {"info_plist", replayInfoPlist},
    {"entitlements", replayEntitlements},
    {"system_build", replaySystemBuild},
    {"icon_png", replayIconPNG},
};

// Replays the regular files directly inside `directory` (none when it is
// absent) in name order; returns how many there were.
std::size_t replayAll(const ReplayTarget& target, const fs::path& directory) {
  std::set<fs::path> inputs;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory, error))
    if (entry.is_regular_file()) inputs.insert(entry.path());
  for (const fs::path& input : inputs) {
    SCOPED_TRACE(input.string());
    std::ifstream in(input, std::ios::binary);
    const std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(in), {});
    EXPECT_EQ(target.run(bytes.data(), bytes.size()), 0);
  }
  return inputs.size();
}

class FuzzReplayTest : public ::testing::TestWithParam<ReplayTarget> {};

TEST_P(FuzzReplayTest, CorpusAndRegressionInputsRunCleanly) {
  const fs::path fuzzDirectory(MAVREL_FUZZ_DIR);
  const std::size_t corpus = replayAll(GetParam(), fuzzDirectory / "corpus" / GetParam().name);
  replayAll(GetParam(), fuzzDirectory / "regressions" / GetParam().name);
  // An empty corpus would make this suite pass without testing anything.
  EXPECT_GT(corpus, 0u) << "no corpus for " << GetParam().name;
  // The empty input is every reader's first edge case.
  const std::uint8_t nothing = 0;
  EXPECT_EQ(GetParam().run(&nothing, 0), 0);
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplayTest, ::testing::ValuesIn(kTargets),
                         [](const ::testing::TestParamInfo<ReplayTarget>& target) {
                           return std::string(target.param.name);
                         });

}  // namespace
