#include "quorvex/core/topic.hpp"

#include <algorithm>
#include <string>

namespace quorvex::core {
namespace {

// Calls f(level, is_last) for each level; stops early when f returns false.
template <class F>
bool for_each_level(std::string_view text, F&& f) {
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = text.find('/', start);
    const bool last = slash == std::string_view::npos;
    if (!f(text.substr(start, last ? std::string_view::npos : slash - start), last)) return false;
    if (last) return true;
    start = slash + 1;
  }
}

void check_common(std::string_view text, const char* what) {
  if (text.empty()) throw TopicError(std::string(what) + " is empty; expected levels separated by '/'");
  if (text.find('\0') != std::string_view::npos) {
    throw TopicError(std::string(what) + " '" + std::string(text.data()) + "...' holds a NUL byte");
  }
}

}  // namespace

void check_topic(std::string_view topic) {
  check_common(topic, "topic");
  for_each_level(topic, [&](std::string_view level, bool) {
    if (level == "*" || level == ">") {
      throw TopicError("topic '" + std::string(topic) + "' has the wildcard level '" + std::string(level) +
                       "'; a message is sent on a topic without wildcards");
    }
    return true;
  });
}

void check_topic_filter(std::string_view filter) {
  check_common(filter, "topic filter");
  for_each_level(filter, [&](std::string_view level, bool last) {
    if (level == ">" && !last) {
      throw TopicError("topic filter '" + std::string(filter) +
                       "' has '>' before its last level; '>' may only end a filter");
    }
    return true;
  });
}

bool has_wildcard(std::string_view filter) {
  return !for_each_level(filter, [](std::string_view level, bool) { return level != "*" && level != ">"; });
}

bool topic_matches(std::string_view filter, std::string_view topic) {
  std::size_t f = 0;
  std::size_t t = 0;
  while (true) {
    const std::size_t f_end = std::min(filter.find('/', f), filter.size());
    const std::string_view level = filter.substr(f, f_end - f);
    // Reaching a level of the filter means the topic has a level here too (see the return below).
    if (level == ">" && f_end == filter.size()) return true;
    const std::size_t t_end = std::min(topic.find('/', t), topic.size());
    if (level != "*" && level != topic.substr(t, t_end - t)) return false;
    const bool filter_done = f_end == filter.size();
    const bool topic_done = t_end == topic.size();
    if (filter_done || topic_done) return filter_done && topic_done;
    f = f_end + 1;
    t = t_end + 1;
  }
}

}  // namespace quorvex::core
