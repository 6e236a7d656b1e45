// An index of topic filters, each with a value, that finds the filters matching a topic without
// testing every filter in turn.
//
// Filters without wildcards sit in a hash map keyed by their text, so a topic's exact filter is
// one lookup (find(topic)). Filters with a "*" or ">" level are also kept in a tree of their
// levels: each node has children by literal level text, one child for "*" and the filters that
// end in ">" there. Matching a topic walks that tree level by level, so its cost grows with the
// topic's levels and the wildcard branches it meets, not with the number of filters. Matching
// follows core::topic_matches exactly, including empty levels and "*" or ">" inside longer levels.
//
// Threading: no locking of its own. Callers guard it like a standard container: const members may
// run concurrently with each other, anything else needs exclusive access. Callbacks run on the
// calling thread, must not change the index, and see references valid until the filter is erased.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "quorvex/core/topic.hpp"

namespace quorvex::core {

template <class T>
class TopicFilterIndex {
 public:
  // The value of `filter`, default-constructed and indexed when the filter is new.
  T& operator[](const std::string& filter) {
    auto [it, added] = entries_.try_emplace(filter);
    if (added && has_wildcard(filter)) add_to_tree(*it);
    return it->second;
  }

  // The value stored under exactly this filter text, or nullptr. For a topic (which has no
  // wildcard levels) this is the one filter without wildcards that matches it.
  T* find(const std::string& filter) {
    auto it = entries_.find(filter);
    return it == entries_.end() ? nullptr : &it->second;
  }
  const T* find(const std::string& filter) const {
    auto it = entries_.find(filter);
    return it == entries_.end() ? nullptr : &it->second;
  }

  // Removes `filter` and its value; false when it was not there.
  bool erase(const std::string& filter) {
    auto it = entries_.find(filter);
    if (it == entries_.end()) return false;
    if (has_wildcard(filter)) remove_from_tree(filter);
    entries_.erase(it);
    return true;
  }

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }

  // f(filter, value) for every filter, in no particular order.
  template <class F>
  void for_each(F&& f) const {
    for (const auto& entry : entries_) f(entry.first, entry.second);
  }

  // f(filter, value) for every filter with a wildcard level that matches `topic`, in no particular
  // order. When f returns bool, true stops the walk; the result says whether it was stopped.
  template <class F>
  bool for_each_wildcard_match(std::string_view topic, F&& f) const {
    auto visit = [&f](const Entry& entry) {
      if constexpr (std::is_same_v<std::invoke_result_t<F&, const std::string&, const T&>, bool>) {
        return f(entry.first, entry.second);
      } else {
        f(entry.first, entry.second);
        return false;
      }
    };
    return walk(root_, topic, 0, visit);
  }

  // Whether any filter, with wildcards or without, matches `topic`.
  bool matches_any(const std::string& topic) const {
    return find(topic) != nullptr ||
           for_each_wildcard_match(topic, [](const std::string&, const T&) { return true; });
  }

 private:
  using Entry = std::pair<const std::string, T>;  // entries_ never moves these, so the tree points at them

  struct Node {
    std::string level;  // the literal level leading here; the parent's key views this text
    std::unordered_map<std::string_view, std::unique_ptr<Node>> children;
    std::unique_ptr<Node> any_level;   // the "*" level
    const Entry* ends_here = nullptr;  // the filter whose last level leads here
    const Entry* rest = nullptr;       // the filter with ">" after the levels leading here
    bool unused() const { return children.empty() && !any_level && !ends_here && !rest; }
  };

  static constexpr std::size_t kNoLevels = std::string_view::npos;

  // Calls f(level, is_last) for each level of a filter.
  template <class F>
  static void split(std::string_view text, F&& f) {
    std::size_t start = 0;
    while (true) {
      const std::size_t slash = text.find('/', start);
      const bool last = slash == std::string_view::npos;
      f(text.substr(start, last ? std::string_view::npos : slash - start), last);
      if (last) return;
      start = slash + 1;
    }
  }

  void add_to_tree(const Entry& entry) {
    Node* node = &root_;
    split(entry.first, [&](std::string_view level, bool last) {
      if (level == ">" && last) {
        node->rest = &entry;
        return;
      }
      if (level == "*") {
        if (!node->any_level) node->any_level = std::make_unique<Node>();
        node = node->any_level.get();
      } else {
        auto it = node->children.find(level);
        if (it == node->children.end()) {
          auto child = std::make_unique<Node>();
          child->level = std::string(level);
          const std::string_view key = child->level;
          it = node->children.emplace(key, std::move(child)).first;
        }
        node = it->second.get();
      }
      if (last) node->ends_here = &entry;
    });
  }

  // Clears the filter's mark and drops the nodes it alone kept.
  void remove_from_tree(std::string_view filter) {
    std::vector<Node*> path{&root_};
    split(filter, [&](std::string_view level, bool last) {
      Node* node = path.back();
      if (node == nullptr) return;
      if (level == ">" && last) {
        node->rest = nullptr;
        return;
      }
      Node* next = nullptr;
      if (level == "*") {
        next = node->any_level.get();
      } else if (auto it = node->children.find(level); it != node->children.end()) {
        next = it->second.get();
      }
      path.push_back(next);
      if (next != nullptr && last) next->ends_here = nullptr;
    });
    for (std::size_t i = path.size() - 1; i > 0 && path[i] != nullptr && path[i]->unused(); --i) {
      Node& parent = *path[i - 1];
      if (parent.any_level.get() == path[i]) {
        parent.any_level.reset();
      } else {
        parent.children.erase(parent.children.find(path[i]->level));
      }
    }
  }

  // `start` is where the topic's next level begins, kNoLevels once every level has been used.
  template <class V>
  static bool walk(const Node& node, std::string_view topic, std::size_t start, V& visit) {
    if (start == kNoLevels) return node.ends_here != nullptr && visit(*node.ends_here);
    if (node.rest != nullptr && visit(*node.rest)) return true;  // ">" takes one level or more
    const std::size_t slash = topic.find('/', start);
    const std::size_t next = slash == std::string_view::npos ? kNoLevels : slash + 1;
    if (!node.children.empty()) {
      const std::string_view level =
          topic.substr(start, slash == std::string_view::npos ? slash : slash - start);
      auto it = node.children.find(level);
      if (it != node.children.end() && walk(*it->second, topic, next, visit)) return true;
    }
    return node.any_level != nullptr && walk(*node.any_level, topic, next, visit);
  }

  std::unordered_map<std::string, T> entries_;  // every filter, by its text
  Node root_;                                   // the filters with wildcards, by their levels
};

}  // namespace quorvex::core
