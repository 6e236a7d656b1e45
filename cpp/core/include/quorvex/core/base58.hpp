// Base58 with the Bitcoin alphabet, as used by the signed API-key login.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quorvex::core {

using Bytes = std::vector<std::uint8_t>;

// Thrown when a text holds a character outside the Base58 alphabet.
class Base58Error : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

std::string base58_encode(const std::uint8_t* data, std::size_t size);
inline std::string base58_encode(const Bytes& data) { return base58_encode(data.data(), data.size()); }
inline std::string base58_encode(std::string_view data) {
  return base58_encode(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
}

// Leading '1's decode to leading zero bytes; surrounding white space is refused.
Bytes base58_decode(std::string_view text);

}  // namespace quorvex::core
