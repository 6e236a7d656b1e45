// Enumerations and the texts they travel as, both ways.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

namespace quorvex::paper {

template <typename Enum, std::size_t N>
using EnumNames = std::array<std::pair<Enum, std::string_view>, N>;

template <typename Enum, std::size_t N>
std::optional<Enum> from_text(const EnumNames<Enum, N>& names, std::string_view text) {
  for (const auto& [value, name] : names) {
    if (name == text) return value;
  }
  return std::nullopt;
}

template <typename Enum, std::size_t N>
std::string_view name_of(const EnumNames<Enum, N>& names, Enum value) {
  for (const auto& [v, name] : names) {
    if (v == value) return name;
  }
  return "";
}

}  // namespace quorvex::paper
