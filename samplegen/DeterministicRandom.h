// DeterministicRandom: the one source of variety of the sample-image generator.
//
// The same seed gives the same sequence on every run and build: the generator
// (xoshiro256**, seeded through splitmix64) and every distribution below are
// our own code, not the standard library's distributions, whose results differ
// between library implementations. Independent streams are derived from
// (seed, purpose, index), so that what one application gets never depends on
// how many numbers another one drew.
//
// Error contract: nothing here fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace samplegen {

class DeterministicRandom {
 public:
  explicit DeterministicRandom(std::uint64_t seed);
  // The stream for one purpose and one index under `seed`.
  static DeterministicRandom stream(std::uint64_t seed, std::uint64_t purpose,
                                    std::uint64_t index = 0);

  std::uint64_t next();
  // Uniform in [0, bound); 0 when bound is 0.
  std::uint64_t below(std::uint64_t bound);
  // Uniform in [low, high], inclusive; low when high < low.
  std::uint64_t between(std::uint64_t low, std::uint64_t high);
  // Uniform in [0, 1).
  double unit();
  bool chance(double probability) { return unit() < probability; }
  // Standard normal (Box-Muller).
  double normal();
  // exp(N(mu, sigma)).
  double logNormal(double mu, double sigma);
  // Exp-uniform in [low, high] (low > 0): every order of magnitude equally likely.
  double logUniform(double low, double high);

  template <typename T>
  const T& pick(std::span<const T> items) {
    return items[below(items.size())];
  }
  template <typename T>
  const T& pick(const std::vector<T>& items) {
    return items[below(items.size())];
  }

  // Fills `bytes` with pseudo-random bytes.
  void fill(std::span<std::uint8_t> bytes);
  // A version-4 style UUID in upper case ("8-4-4-4-12" hexadecimal).
  std::string uuid();

 private:
  std::uint64_t state_[4];
};

}  // namespace samplegen
