#include "quorvex/paper/feed/quote_feed.hpp"

#include <array>
#include <map>
#include <unordered_map>

#include "quorvex/core/topic.hpp"

namespace quorvex::paper {
namespace {

using TopicMask = std::uint32_t;

constexpr TopicMask bit(QuoteTopic topic, bool night) {
  return TopicMask{1} << (static_cast<int>(topic) * 2 + (night ? 1 : 0));
}

struct StreamKey {
  const Contract* contract;
  Market market;
  bool operator==(const StreamKey& o) const { return contract == o.contract && market == o.market; }
  bool operator<(const StreamKey& o) const {
    return contract != o.contract ? contract->code < o.contract->code : market < o.market;
  }
};

struct StreamKeyHash {
  std::size_t operator()(const StreamKey& k) const {
    return std::hash<const void*>()(k.contract) * 31 + static_cast<std::size_t>(k.market);
  }
};

Board board_of(Market market) { return market == Market::IntradayOdd ? Board::IntradayOdd : Board::Common; }

std::vector<Market> quote_markets(const Contract& c) {
  switch (c.security_type) {
    case SecurityType::Stock: return {Market::Stock, Market::IntradayOdd};
    case SecurityType::Future:
    case SecurityType::Option: return {Market::FuturesOptions};
    case SecurityType::Index: break;
  }
  return {};
}

std::vector<std::string_view> levels_of(std::string_view filter) {
  std::vector<std::string_view> levels;
  std::size_t start = 0;
  for (;;) {
    const std::size_t slash = filter.find('/', start);
    levels.push_back(
        filter.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start));
    if (slash == std::string_view::npos) return levels;
    start = slash + 1;
  }
}

}  // namespace

// Everything the feed thread owns: which streams the filters cover, and each stream's day.
class QuoteFeed::Streams {
 public:
  Streams(const MarketModel& model, const TradeLedger& ledger, RestingDepth depth)
      : model_(model), ledger_(ledger), depth_(std::move(depth)) {}

  // Only while the feed's thread is not running.
  void reset(QuotePublisher publisher) {
    publisher_ = std::move(publisher);
    by_filter_.clear();
    covered_by_.clear();
    live_.clear();
    outbox_.clear();
  }

  void change_filter(const std::string& filter, bool active, Timestamp at) {
    if (!active) {
      const auto it = by_filter_.find(filter);
      if (it == by_filter_.end()) return;
      for (const auto& [key, mask] : it->second) {
        auto& covering = covered_by_[key];
        covering.erase(filter);
        refresh(key);
      }
      by_filter_.erase(it);
      return;
    }
    if (by_filter_.count(filter) != 0) return;
    auto& covered = by_filter_[filter];
    for (const auto& [key, mask] : resolve(filter)) {
      covered.emplace_back(key, mask);
      covered_by_[key][filter] = mask;
      refresh(key, at);
    }
  }

  void book_changed(const std::string& code, Board board) {
    const Contract* c = model_.contracts().find(code);
    if (c == nullptr || c->code != code) return;
    const Market market = board == Board::IntradayOdd ? Market::IntradayOdd : board_market(*c);
    const auto it = live_.find({c, market});
    if (it != live_.end()) it->second.book_dirty = true;
  }

  std::size_t size() const { return live_.size(); }

  // One round: every live stream publishes what the clock has reached.
  void publish_due(Timestamp now, std::atomic<std::uint64_t>& messages, std::atomic<std::uint64_t>& errors) {
    const std::uint64_t version = ledger_.version();
    const bool new_trades = version != ledger_version_;
    ledger_version_ = version;
    for (auto& [key, stream] : live_) produce(stream, now, new_trades);
    for (auto& [topic, payload] : outbox_) {
      try {
        publisher_(*topic, std::move(payload));
        messages.fetch_add(1, std::memory_order_relaxed);
      } catch (...) {
        errors.fetch_add(1, std::memory_order_relaxed);
      }
    }
    outbox_.clear();
  }

 private:
  struct Stream {
    const Contract* contract = nullptr;
    Market market = Market::Stock;
    TopicMask mask = 0;
    std::array<std::string, kQuoteTopicCount * 2> topics;
    std::optional<ContractDay> day;
    std::optional<TickTape> underlying;
    QuoteBook published_book;
    bool fresh = true;  // just subscribed: what happened before `joined` is not sent
    Timestamp joined = 0;
    bool book_dirty = false;
  };

  // The streams a filter covers and which of their topics it matches.
  std::vector<std::pair<StreamKey, TopicMask>> resolve(const std::string& filter) const {
    std::vector<std::pair<StreamKey, TopicMask>> out;
    try {
      core::check_topic_filter(filter);
    } catch (const core::TopicError&) {
      return out;
    }
    const std::vector<std::string_view> levels = levels_of(filter);
    bool open_before_code = false;
    for (std::size_t i = 0; i < levels.size() && i < 5; ++i) open_before_code |= levels[i] == ">";
    std::vector<const Contract*> candidates;
    if (levels.size() >= 6 && !open_before_code && levels[5] != "*" && levels[5] != ">") {
      const Contract* c = model_.contracts().find(levels[5]);
      if (c != nullptr && c->code == levels[5]) candidates.push_back(c);
    } else {
      for (SecurityType type : {SecurityType::Stock, SecurityType::Future, SecurityType::Option}) {
        for (const Contract& c : model_.contracts().contracts(type)) candidates.push_back(&c);
      }
    }
    for (const Contract* c : candidates) {
      for (Market market : quote_markets(*c)) {
        TopicMask mask = 0;
        for (QuoteTopic topic : kQuoteTopics) {
          for (bool night : {false, true}) {
            if (night && market != Market::FuturesOptions) continue;
            const std::string t = quote_topic(topic, market, night, *c);
            if (!t.empty() && core::topic_matches(filter, t)) mask |= bit(topic, night);
          }
        }
        if (mask != 0) out.emplace_back(StreamKey{c, market}, mask);
      }
    }
    return out;
  }

  void refresh(const StreamKey& key, Timestamp joined = 0) {
    TopicMask mask = 0;
    const auto covering = covered_by_.find(key);
    if (covering != covered_by_.end()) {
      for (const auto& [filter, m] : covering->second) mask |= m;
      if (covering->second.empty()) covered_by_.erase(covering);
    }
    if (mask == 0) {
      live_.erase(key);
      return;
    }
    auto [it, added] = live_.try_emplace(key);
    Stream& s = it->second;
    if (added) {
      s.joined = joined;
      s.contract = key.contract;
      s.market = key.market;
      for (QuoteTopic topic : kQuoteTopics) {
        for (bool night : {false, true}) {
          s.topics[static_cast<std::size_t>(topic) * 2 + (night ? 1 : 0)] =
              quote_topic(topic, key.market, night, *key.contract);
        }
      }
    }
    s.mask = mask;
  }

  void open_day(Stream& s, const Date& day) {
    s.day.emplace(model_, *s.contract, s.market, day);
    s.underlying.reset();
    if (const Contract* u = model_.underlying(*s.contract))
      s.underlying.emplace(model_.tape(*u, board_market(*u), day));
  }

  QuoteBook book_of(const Stream& s) {
    const QuoteBook market_book = s.day->state().book();
    if (!depth_) return market_book;
    const std::optional<BookSnapshot> resting = depth_(s.contract->code, board_of(s.market));
    return resting ? merge_resting(market_book, resting->bids, resting->asks) : market_book;
  }

  void emit(Stream& s, Timestamp ts, bool night, bool with_tick) {
    QuoteFrame frame;
    frame.contract = s.contract;
    frame.state = &s.day->state();
    frame.ts = ts;
    // Shaping the book costs more than a tick: only for streams that publish it.
    constexpr TopicMask kBookTopics = bit(QuoteTopic::BidAskV1, false) | bit(QuoteTopic::BidAskV1, true) |
                                      bit(QuoteTopic::QuoteV2, false) | bit(QuoteTopic::QuoteV2, true) |
                                      bit(QuoteTopic::BidAskV0, false) | bit(QuoteTopic::BidAskV0, true);
    const bool with_book = (s.mask & kBookTopics) != 0;
    if (with_book) {
      frame.book = book_of(s);
      frame.previous_book = s.published_book;
    }
    if (s.underlying) frame.underlying = s.underlying->price_until(ts);
    for (QuoteTopic topic : kQuoteTopics) {
      if ((s.mask & bit(topic, night)) == 0 || (is_tick(topic) && !with_tick)) continue;
      outbox_.emplace_back(&s.topics[static_cast<std::size_t>(topic) * 2 + (night ? 1 : 0)],
                           encode_quote(topic, s.market, frame));
    }
    if (with_book) s.published_book = frame.book;
  }

  void produce(Stream& s, Timestamp now, bool new_trades) {
    const Date today = trading_day_at(s.market, now);
    if (s.day && s.day->day() != today) {
      if (!s.fresh) publish_trades(s, now, new_trades);  // the rest of the finished day
      open_day(s, today);
      new_trades = true;
    }
    if (!s.day) open_day(s, today);
    if (s.fresh) {
      // Joining mid-day: the state catches up silently to the subscription, and every trade
      // after it is sent.
      s.day->sync(ledger_);
      s.day->advance_to(std::min(s.joined, now));
      s.published_book = book_of(s);
      s.fresh = false;
      s.book_dirty = false;
      new_trades = true;
    }
    if (!publish_trades(s, now, new_trades) && s.book_dirty) {
      const QuoteBook book = book_of(s);
      if (!(book == s.published_book)) emit(s, now, s.day->state().night, false);
    }
    s.book_dirty = false;
  }

  // Publishes every trade due by `now`; false when there was none.
  bool publish_trades(Stream& s, Timestamp now, bool new_trades) {
    if (new_trades) s.day->sync(ledger_);
    bool any = false;
    while (std::optional<AppliedTrade> applied = s.day->step(now)) {
      if (!applied->board) continue;
      emit(s, applied->trade.ts, applied->trade.night, true);
      any = true;
    }
    return any;
  }

  const MarketModel& model_;
  const TradeLedger& ledger_;
  QuotePublisher publisher_;
  RestingDepth depth_;
  std::uint64_t ledger_version_ = 0;
  std::map<std::string, std::vector<std::pair<StreamKey, TopicMask>>> by_filter_;
  std::unordered_map<StreamKey, std::map<std::string, TopicMask>, StreamKeyHash> covered_by_;
  std::unordered_map<StreamKey, Stream, StreamKeyHash> live_;
  std::vector<std::pair<const std::string*, std::string>> outbox_;
};

QuoteFeed::QuoteFeed(const MarketModel& model, const core::Clock& clock, const TradeLedger& ledger,
                     RestingDepth depth, FeedOptions options)
    : clock_(clock),
      options_(options),
      streams_(std::make_unique<Streams>(model, ledger, std::move(depth))) {}

QuoteFeed::~QuoteFeed() { stop(); }

void QuoteFeed::start(QuotePublisher publisher) {
  std::lock_guard lifecycle(lifecycle_);
  if (thread_.joinable()) return;
  streams_->reset(std::move(publisher));
  stream_count_.store(0);
  {
    std::lock_guard lock(mutex_);
    stopping_ = false;
  }
  thread_ = std::thread([this] { run(); });
}

void QuoteFeed::stop() {
  if (thread_.joinable() && thread_.get_id() == std::this_thread::get_id()) {
    std::lock_guard lock(mutex_);  // from the publisher itself: the thread ends after this round
    stopping_ = true;
    return;
  }
  std::lock_guard lifecycle(lifecycle_);
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wakeup_.notify_all();
  if (thread_.joinable()) thread_.join();
  stream_count_.store(0);
}

void QuoteFeed::on_subscription(const std::string& filter, bool active) {
  const Timestamp at = to_timestamp(clock_.now());
  {
    std::lock_guard lock(mutex_);
    // Changes that reach a stopped feed are kept for its next start, whose bus replays its
    // active filters anyway; a removal is then harmless.
    filter_changes_.push_back({filter, active, at});
    woken_ = true;
  }
  wakeup_.notify_one();
}

void QuoteFeed::book_changed(const std::string& code, Board board) {
  {
    std::lock_guard lock(mutex_);
    changed_books_.emplace(code, board);
    woken_ = true;
  }
  wakeup_.notify_one();
}

void QuoteFeed::wake() {
  {
    std::lock_guard lock(mutex_);
    woken_ = true;
  }
  wakeup_.notify_one();
}

QuoteFeed::Stats QuoteFeed::stats() const {
  return {messages_.load(), publish_errors_.load(), stream_count_.load(), rounds_.load()};
}

void QuoteFeed::run() {
  std::vector<FilterChange> filters;
  std::set<std::pair<std::string, Board>> books;
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      wakeup_.wait_for(lock, options_.cadence, [this] { return stopping_ || woken_; });
      if (stopping_) return;
      woken_ = false;
      filters.swap(filter_changes_);
      books.swap(changed_books_);
    }
    for (const FilterChange& change : filters)
      streams_->change_filter(change.filter, change.active, change.at);
    for (const auto& [code, board] : books) streams_->book_changed(code, board);
    filters.clear();
    books.clear();
    stream_count_.store(streams_->size(), std::memory_order_relaxed);
    streams_->publish_due(to_timestamp(clock_.now()), messages_, publish_errors_);
    rounds_.fetch_add(1, std::memory_order_release);
  }
}

}  // namespace quorvex::paper
