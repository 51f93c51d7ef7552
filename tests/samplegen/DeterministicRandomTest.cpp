// The generator's random source: fixed sequences (images made today stay the
// images made tomorrow), independent streams and sane distributions.
#include <gtest/gtest.h>

#include <cctype>
#include <set>

#include "samplegen/DeterministicRandom.h"

namespace {

using samplegen::DeterministicRandom;

TEST(DeterministicRandomTest, SequencesAreFixedForASeed) {
  DeterministicRandom random(1);
  EXPECT_EQ(random.next(), 12966619160104079557ULL);
  EXPECT_EQ(random.next(), 9600361134598540522ULL);
  EXPECT_EQ(DeterministicRandom::stream(1, 2, 3).uuid(), "3C114613-9A96-4F1E-A85A-2B4FB95D867E");
}

TEST(DeterministicRandomTest, StreamsDoNotRepeatOneAnother) {
  std::set<std::uint64_t> firsts;
  for (std::uint64_t purpose = 0; purpose < 4; ++purpose) {
    for (std::uint64_t index = 0; index < 50; ++index) {
      firsts.insert(DeterministicRandom::stream(9, purpose, index).next());
    }
  }
  EXPECT_EQ(firsts.size(), 200u);
  EXPECT_NE(DeterministicRandom::stream(9, 1, 0).next(),
            DeterministicRandom::stream(10, 1, 0).next());
}

TEST(DeterministicRandomTest, DistributionsStayInTheirRanges) {
  DeterministicRandom random(42);
  std::set<std::uint64_t> seen;
  for (int i = 0; i < 10000; ++i) {
    const std::uint64_t value = random.below(7);
    ASSERT_LT(value, 7u);
    seen.insert(value);
    const std::uint64_t between = random.between(10, 12);
    ASSERT_GE(between, 10u);
    ASSERT_LE(between, 12u);
    const double unit = random.unit();
    ASSERT_GE(unit, 0.0);
    ASSERT_LT(unit, 1.0);
    const double logUniform = random.logUniform(1024, 8192);
    ASSERT_GE(logUniform, 1024.0);
    ASSERT_LE(logUniform, 8192.0);
  }
  EXPECT_EQ(seen.size(), 7u);
  EXPECT_EQ(random.below(0), 0u);
  EXPECT_EQ(random.between(5, 3), 5u);

  // Upper-case "8-4-4-4-12" hexadecimal, version 4, RFC variant.
  for (int i = 0; i < 20; ++i) {
    const std::string uuid = random.uuid();
    ASSERT_EQ(uuid.size(), 36u);
    for (std::size_t at = 0; at < uuid.size(); ++at) {
      if (at == 8 || at == 13 || at == 18 || at == 23) {
        EXPECT_EQ(uuid[at], '-') << uuid;
      } else {
        EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(uuid[at])) &&
                    !std::islower(static_cast<unsigned char>(uuid[at])))
            << uuid;
      }
    }
    EXPECT_EQ(uuid[14], '4') << uuid;
    EXPECT_NE(std::string("89AB").find(uuid[19]), std::string::npos) << uuid;
  }
}

TEST(DeterministicRandomTest, FillCoversOddLengths) {
  DeterministicRandom a(3), b(3);
  std::vector<std::uint8_t> whole(13), parts(13);
  a.fill(whole);
  b.fill(std::span(parts).first(8));
  b.fill(std::span(parts).subspan(8));
  EXPECT_EQ(whole, parts);
  EXPECT_NE(whole, std::vector<std::uint8_t>(13, 0));
}

}  // namespace
