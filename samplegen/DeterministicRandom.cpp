#include "samplegen/DeterministicRandom.h"

#include <cmath>
#include <cstring>

namespace samplegen {
namespace {

std::uint64_t splitMix(std::uint64_t& x) {
  std::uint64_t z = (x += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

std::uint64_t rotateLeft(std::uint64_t x, int k) {
  return (x << k) | (x >> (64 - k));
}

constexpr double kPi = 3.14159265358979323846;

}  // namespace

DeterministicRandom::DeterministicRandom(std::uint64_t seed) {
  std::uint64_t x = seed;
  for (std::uint64_t& word : state_)
    word = splitMix(x);
}

DeterministicRandom DeterministicRandom::stream(std::uint64_t seed, std::uint64_t purpose,
                                                std::uint64_t index) {
  std::uint64_t x = seed;
  std::uint64_t mixed = splitMix(x);
  x = mixed ^ (purpose * 0xD6E8FEB86659FD93ULL);
  mixed = splitMix(x);
  x = mixed ^ (index * 0xA0761D6478BD642FULL);
  return DeterministicRandom(splitMix(x));
}

std::uint64_t DeterministicRandom::next() {
  const std::uint64_t result = rotateLeft(state_[1] * 5, 7) * 9;
  const std::uint64_t t = state_[1] << 17;
  state_[2] ^= state_[0];
  state_[3] ^= state_[1];
  state_[1] ^= state_[2];
  state_[0] ^= state_[3];
  state_[2] ^= t;
  state_[3] = rotateLeft(state_[3], 45);
  return result;
}

std::uint64_t DeterministicRandom::below(std::uint64_t bound) {
  if (bound == 0) return 0;
  // Rejection of the short top range keeps every value equally likely.
  const std::uint64_t limit = ~std::uint64_t{0} - (~std::uint64_t{0} % bound);
  std::uint64_t value = next();
  while (value >= limit)
    value = next();
  return value % bound;
}

std::uint64_t DeterministicRandom::between(std::uint64_t low, std::uint64_t high) {
  if (high < low) return low;
  if (high - low == ~std::uint64_t{0}) return next();
  return low + below(high - low + 1);
}

double DeterministicRandom::unit() {
  return static_cast<double>(next() >> 11) * 0x1.0p-53;
}

double DeterministicRandom::normal() {
  const double u1 = 1.0 - unit();  // (0, 1]: the logarithm stays finite
  const double u2 = unit();
  return std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * kPi * u2);
}

double DeterministicRandom::logNormal(double mu, double sigma) {
  return std::exp(mu + sigma * normal());
}

double DeterministicRandom::logUniform(double low, double high) {
  return low * std::exp(unit() * std::log(high / low));
}

void DeterministicRandom::fill(std::span<std::uint8_t> bytes) {
  std::size_t offset = 0;
  while (offset + 8 <= bytes.size()) {
    const std::uint64_t word = next();
    std::memcpy(bytes.data() + offset, &word, 8);
    offset += 8;
  }
  if (offset < bytes.size()) {
    const std::uint64_t word = next();
    std::memcpy(bytes.data() + offset, &word, bytes.size() - offset);
  }
}

std::string DeterministicRandom::uuid() {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::uint8_t raw[16];
  fill(raw);
  raw[6] = static_cast<std::uint8_t>((raw[6] & 0x0F) | 0x40);
  raw[8] = static_cast<std::uint8_t>((raw[8] & 0x3F) | 0x80);
  std::string text;
  text.reserve(36);
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHex[raw[i] >> 4];
    text += kHex[raw[i] & 0x0F];
  }
  return text;
}

}  // namespace samplegen
