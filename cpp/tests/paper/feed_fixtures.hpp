// Shared pieces of the quote feed and market history tests: a small contract master on a
// known trading day, a market clock set inside its sessions, and a publisher that records.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quorvex/core/codec.hpp"
#include "quorvex/paper/feed/market_data.hpp"

namespace quorvex::paper::testing {

inline constexpr Date kTradingDay{2026, 1, 5};  // a Monday
inline constexpr std::uint64_t kSeed = 42;

inline Timestamp taipei(const Date& day, int hour, int minute, int second = 0) {
  return taipei_instant(day, hour * 3600 + minute * 60 + second);
}

// A market clock that moves only when told to, read and moved in nanosecond time stamps.
class TestClock final : public core::Clock {
 public:
  explicit TestClock(Timestamp start) : ts_(start) {}
  time_point now() const override { return to_time_point(ts_.load()); }
  Timestamp ts() const { return ts_.load(); }
  void set(Timestamp ts) { ts_.store(ts); }
  void advance(Timestamp by) { ts_.fetch_add(by); }

 private:
  std::atomic<Timestamp> ts_;
};

inline const ContractMaster& small_master() {
  static const ContractMaster master({7, 400, kTradingDay});
  return master;
}

inline const Contract& contract(std::string_view code) {
  const Contract* c = small_master().find(code);
  if (c == nullptr) throw std::logic_error("no contract " + std::string(code) + " in the test master");
  return *c;
}

inline const Contract& front_future() { return *small_master().front_month("TXF"); }

// An option near the money on the front delivery: it trades often enough for every test.
inline const Contract& near_option() {
  const Contract& front = front_future();
  const Contract* best = nullptr;
  for (const Contract& c : small_master().contracts(SecurityType::Option)) {
    if (c.delivery_month != front.delivery_month || c.option_right != OptionRight::Call) continue;
    const auto distance = [&](const Contract& o) {
      return std::abs(o.strike_price.units() - front.reference.units());
    };
    if (best == nullptr || distance(c) < distance(*best)) best = &c;
  }
  return *best;
}

// Everything a publisher was handed, safe to read while the feed runs.
class RecordingPublisher {
 public:
  QuotePublisher publisher() {
    return [this](const std::string& topic, std::string payload) {
      std::lock_guard lock(mutex_);
      messages_.emplace_back(topic, std::move(payload));
    };
  }
  std::vector<std::pair<std::string, std::string>> messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return messages_.size();
  }
  void clear() {
    std::lock_guard lock(mutex_);
    messages_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> messages_;
};

// Waits for a condition the feed's thread brings about; false if it never holds.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return condition();
}

using core::decode;

}  // namespace quorvex::paper::testing
