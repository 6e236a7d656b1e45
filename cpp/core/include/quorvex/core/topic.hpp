// Topic names and subscription filters of the bus.
//
// A topic is a non-empty text of levels separated by "/" ("api/v1/portfolio/account_balance" has
// four levels; empty levels are allowed). In a filter two whole levels are wildcards:
//   "*"  matches exactly one level, whatever its text (also an empty one);
//   ">"  as the last level matches one or more remaining levels (never zero).
// A "*" or ">" inside a longer level ("TIC*") is plain text. A ">" level anywhere but last is refused.
// Topics that messages are sent on may not contain wildcard levels.
//
// Threading: free functions with no shared state.
#pragma once

#include <stdexcept>
#include <string_view>

namespace quorvex::core {

class TopicError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// Throws TopicError when `topic` is empty, holds a NUL byte or a wildcard level.
void check_topic(std::string_view topic);
// Throws TopicError when `filter` is empty, holds a NUL byte or a ">" level that is not the last.
void check_topic_filter(std::string_view filter);
// True when `filter` has a "*" or ">" level.
bool has_wildcard(std::string_view filter);
// Whether `topic` matches `filter` under the rules above; both are assumed checked.
bool topic_matches(std::string_view filter, std::string_view topic);

}  // namespace quorvex::core
