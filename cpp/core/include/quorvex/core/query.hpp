// The options after "?" in a host address: "key=value" pairs joined by '&'.
#pragma once

#include <string>
#include <string_view>

namespace quorvex::core {

// Calls `option(key, value)` for each pair of `query` in order; empty pairs are skipped and a
// pair without '=' has an empty value. What the options mean is the caller's.
template <class Option>
void for_each_query_option(std::string_view query, Option&& option) {
  while (!query.empty()) {
    const std::size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    if (pair.empty()) continue;
    const std::size_t eq = pair.find('=');
    option(std::string(pair.substr(0, eq)),
           std::string(eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1)));
  }
}

}  // namespace quorvex::core
