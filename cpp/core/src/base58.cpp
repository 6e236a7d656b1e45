#include "quorvex/core/base58.hpp"

#include <array>

namespace quorvex::core {
namespace {

constexpr char kAlphabet[] = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";

constexpr std::array<std::int8_t, 256> make_index() {
  std::array<std::int8_t, 256> index{};
  for (auto& v : index) v = -1;
  for (int i = 0; i < 58; ++i) index[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
  return index;
}
constexpr auto kIndex = make_index();

}  // namespace

std::string base58_encode(const std::uint8_t* data, std::size_t size) {
  std::size_t zeros = 0;
  while (zeros < size && data[zeros] == 0) ++zeros;
  // log(256) / log(58) < 1.38; digits are kept little-endian while converting.
  std::vector<std::uint8_t> digits;
  digits.reserve((size - zeros) * 138 / 100 + 1);
  for (std::size_t i = zeros; i < size; ++i) {
    std::uint32_t carry = data[i];
    for (auto& d : digits) {
      carry += static_cast<std::uint32_t>(d) << 8;
      d = static_cast<std::uint8_t>(carry % 58);
      carry /= 58;
    }
    while (carry) {
      digits.push_back(static_cast<std::uint8_t>(carry % 58));
      carry /= 58;
    }
  }
  std::string out(zeros, '1');
  out.reserve(zeros + digits.size());
  for (auto it = digits.rbegin(); it != digits.rend(); ++it) out.push_back(kAlphabet[*it]);
  return out;
}

Bytes base58_decode(std::string_view text) {
  std::size_t ones = 0;
  while (ones < text.size() && text[ones] == '1') ++ones;
  std::vector<std::uint8_t> bytes;  // little-endian while converting
  bytes.reserve(text.size() * 733 / 1000 + 1);
  for (std::size_t i = ones; i < text.size(); ++i) {
    const std::int8_t value = kIndex[static_cast<unsigned char>(text[i])];
    if (value < 0) {
      throw Base58Error("invalid base58 character at position " + std::to_string(i));
    }
    std::uint32_t carry = static_cast<std::uint8_t>(value);
    for (auto& b : bytes) {
      carry += static_cast<std::uint32_t>(b) * 58;
      b = static_cast<std::uint8_t>(carry & 0xff);
      carry >>= 8;
    }
    while (carry) {
      bytes.push_back(static_cast<std::uint8_t>(carry & 0xff));
      carry >>= 8;
    }
  }
  Bytes out(ones, 0);
  out.insert(out.end(), bytes.rbegin(), bytes.rend());
  return out;
}

}  // namespace quorvex::core
