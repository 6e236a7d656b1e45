#include <gtest/gtest.h>

#include <random>

#include "quorvex/core/base58.hpp"

using quorvex::core::base58_decode;
using quorvex::core::base58_encode;
using quorvex::core::Base58Error;
using quorvex::core::Bytes;

struct Vector {
  const char* hex;
  const char* text;
};

static Bytes from_hex(const std::string& hex) {
  Bytes out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

class Base58Vectors : public ::testing::TestWithParam<Vector> {};

TEST_P(Base58Vectors, EncodesAndDecodes) {
  const Bytes raw = from_hex(GetParam().hex);
  EXPECT_EQ(base58_encode(raw), GetParam().text);
  EXPECT_EQ(base58_decode(GetParam().text), raw);
}

// Vectors from the Bitcoin reference test set.
INSTANTIATE_TEST_SUITE_P(
    Bitcoin, Base58Vectors,
    ::testing::Values(Vector{"", ""}, Vector{"61", "2g"}, Vector{"626262", "a3gV"}, Vector{"636363", "aPEr"},
                      Vector{"73696d706c792061206c6f6e6720737472696e67", "2cFupjhnEsSn59qHXstmK2ffpLv2"},
                      Vector{"00eb15231dfceb60925886b67d065299925915aeb172c06647",
                             "1NS17iag9jJgTHD1VXjvLCEnZuQ3rJDE9L"},
                      Vector{"516b6fcd0f", "ABnLTmg"}, Vector{"000000287fb4cd", "111233QC4"},
                      Vector{"00000000000000000000", "1111111111"}));

TEST(Base58, RejectsCharactersOutsideTheAlphabet) {
  for (const char* bad : {"0", "O", "I", "l", "abc def", "2g\n"}) {
    EXPECT_THROW(base58_decode(bad), Base58Error) << bad;
  }
}

TEST(Base58, RandomRoundTrip) {
  std::mt19937 rng(7);
  for (int n = 0; n < 500; ++n) {
    Bytes raw(rng() % 80);
    for (auto& b : raw) b = static_cast<std::uint8_t>(rng() % 4 == 0 ? 0 : rng());
    ASSERT_EQ(base58_decode(base58_encode(raw)), raw);
  }
}
