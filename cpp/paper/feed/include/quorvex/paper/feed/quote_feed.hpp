// The paper broker's live quote feed: ticks and bid/asks of every contract someone subscribes
// to, published on the quote topics as the market clock reaches each trade of the day's tape,
// with the broker's own matches among them and its resting orders shown in the bid/asks.
//
// A stream (a contract on one market: board lots, intraday odd lots, or futures and options)
// is published only while at least one subscription filter covers one of its topics;
// wildcard filters count. A stream that becomes subscribed starts with the first trade after
// the subscription reached the feed: what happened before is in the history services.
//
// Threading:
//   - Publishing runs on the feed's own thread, started by start() and ended by stop() (or
//     the destructor). The publisher and the resting-depth source are called only there, with
//     no lock of the feed held. A stopped feed forgets its subscriptions (they belong to the
//     bus it published on) and may be started again.
//   - on_subscription(), book_changed() and wake() may be called from any thread; they queue
//     the change and return at once, never waiting for publication.
//   - stop() returns once the thread has ended; the publisher is not called after that.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quorvex/core/clock.hpp"
#include "quorvex/paper/feed/quote_content.hpp"
#include "quorvex/paper/matching_engine.hpp"

namespace quorvex::paper {

// Sends one message: the topic and its msgpack body. May throw; the feed counts the failure
// and goes on with the next message.
using QuotePublisher = std::function<void(const std::string& topic, std::string payload)>;
// The resting orders of the broker's book of a contract and board, best levels first; nullopt
// when it has none.
using RestingDepth = std::function<std::optional<BookSnapshot>(const std::string& code, Board board)>;

struct FeedOptions {
  // Real time between two publication rounds; each round publishes every trade the market
  // clock has reached.
  std::chrono::microseconds cadence{2000};
};

class QuoteFeed {
 public:
  struct Stats {
    std::uint64_t messages = 0;        // handed to the publisher
    std::uint64_t publish_errors = 0;  // the publisher threw
    std::size_t streams = 0;           // being published now
    std::uint64_t rounds = 0;          // publication rounds completed
  };

  // `model`, `clock` and `ledger` must outlive the feed.
  QuoteFeed(const MarketModel& model, const core::Clock& clock, const TradeLedger& ledger,
            RestingDepth depth = {}, FeedOptions options = {});
  ~QuoteFeed();
  QuoteFeed(const QuoteFeed&) = delete;
  QuoteFeed& operator=(const QuoteFeed&) = delete;

  // Starts publishing through `publisher`; does nothing while already running.
  void start(QuotePublisher publisher);
  void stop();

  // A subscription filter gained its first subscriber (true) or lost its last (false).
  void on_subscription(const std::string& filter, bool active);
  // The broker's book of a contract changed (a fill, an order resting or leaving): its bid/asks
  // are published again at once rather than with the stream's next trade.
  void book_changed(const std::string& code, Board board);
  // Starts the next round now, e.g. after a trade was recorded in the ledger.
  void wake();

  Stats stats() const;

 private:
  class Streams;

  void run();

  const core::Clock& clock_;
  FeedOptions options_;
  std::unique_ptr<Streams> streams_;  // owned by the feed thread once started

  std::mutex lifecycle_;  // start() and stop() one at a time
  mutable std::mutex mutex_;
  std::condition_variable wakeup_;
  struct FilterChange {
    std::string filter;
    bool active;
    Timestamp at;  // market time of the change
  };
  std::vector<FilterChange> filter_changes_;
  std::set<std::pair<std::string, Board>> changed_books_;
  bool woken_ = false;
  bool stopping_ = false;
  std::thread thread_;

  std::atomic<std::uint64_t> messages_{0};
  std::atomic<std::uint64_t> publish_errors_{0};
  std::atomic<std::size_t> stream_count_{0};
  std::atomic<std::uint64_t> rounds_{0};
};

}  // namespace quorvex::paper
