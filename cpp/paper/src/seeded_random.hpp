// A small seeded generator (splitmix64): the same sequence on every platform and standard
// library, which std::*_distribution does not promise. One owner; not shared between threads.
#pragma once

#include <cstdint>

namespace quorvex::paper {

class SeededRandom {
 public:
  explicit SeededRandom(std::uint64_t seed) : state_(seed) {}

  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  // Uniform in [0, n); n > 0. The modulo bias is irrelevant at these ranges.
  std::uint64_t below(std::uint64_t n) { return next() % n; }
  std::int64_t between(std::int64_t lo, std::int64_t hi) {
    return lo + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(hi - lo + 1)));
  }
  double unit() { return static_cast<double>(next() >> 11) * (1.0 / 9007199254740992.0); }
  bool chance(int percent) { return below(100) < static_cast<std::uint64_t>(percent); }

 private:
  std::uint64_t state_;
};

}  // namespace quorvex::paper
