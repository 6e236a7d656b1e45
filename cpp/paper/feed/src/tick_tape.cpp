#include "quorvex/paper/feed/tick_tape.hpp"

#include <algorithm>
#include <cmath>

#include "seeded_random.hpp"

namespace quorvex::paper {
namespace {

// Near-normal draws from four uniforms: enough shape for a price walk, and exact on every platform.
double normal(SeededRandom& rng) {
  double sum = 0;
  for (int i = 0; i < 4; ++i) sum += rng.unit();
  return (sum - 2.0) * 1.7320508075688772;  // sqrt(3): unit variance
}

// Whole steps with the given expectation: the fraction becomes a chance of one more step.
std::int64_t round_randomly(double x, SeededRandom& rng) {
  const double whole = std::floor(x);
  return static_cast<std::int64_t>(whole) + (rng.unit() < x - whole ? 1 : 0);
}

constexpr Timestamp kMinGap = 1'000'000;  // 1 ms between two trades of one contract
constexpr Timestamp kMicro = 1000;

}  // namespace

std::uint64_t mix_seed(std::uint64_t a, std::uint64_t b) {
  std::uint64_t z = a ^ (b + 0x9E3779B97F4A7C15ULL + (a << 6) + (a >> 2));
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

std::uint64_t text_seed(std::string_view text) {
  std::uint64_t h = 0xcbf29ce484222325ULL;  // FNV-1a
  for (const char c : text) {
    h ^= static_cast<unsigned char>(c);
    h *= 0x100000001b3ULL;
  }
  return h;
}

TickTape::TickTape(TapePlan plan, std::unique_ptr<TickTape> price_source)
    : plan_(std::move(plan)),
      source_(std::move(price_source)),
      rng_(std::make_unique<SeededRandom>(plan_.seed)) {
  const PriceLimits& limits = plan_.prices.limits;
  low_ = ladder_position(plan_.ladder, limits.limit_down);
  high_ = std::max(low_, ladder_position(plan_.ladder, limits.limit_up));
  target_ = std::clamp(ladder_position(plan_.ladder, plan_.prices.close), low_, high_);
  bid_ = std::clamp(ladder_position(plan_.ladder, plan_.prices.reference), low_, high_);
  last_price_ = plan_.prices.reference;
  schedule_session(0);
}

TickTape::TickTape(TickTape&&) noexcept = default;
TickTape& TickTape::operator=(TickTape&&) noexcept = default;
TickTape::~TickTape() = default;

void TickTape::schedule_session(std::size_t session) {
  session_ = session;
  session_opened_ = false;
  if (session >= plan_.sessions.size()) {
    next_ts_ = kNever;
    return;
  }
  const TradingSession& s = plan_.sessions[session];
  if (s.call_interval > 0) {
    next_ts_ = next_periodic(s, s.open);
    if (next_ts_ == kNever) schedule_session(session + 1);
  } else {
    next_ts_ = s.open;
  }
}

// The first auction at or after `from` that trades, or kNever past the session's close.
Timestamp TickTape::next_periodic(const TradingSession& s, Timestamp from) {
  for (Timestamp t = from; t <= s.close; t += s.call_interval) {
    if (plan_.trade_percent >= 100 || rng_->chance(plan_.trade_percent)) return t;
  }
  return kNever;
}

void TickTape::schedule_after(Timestamp ts, bool closing_auction) {
  const TradingSession& s = plan_.sessions[session_];
  if (s.call_interval > 0) {
    next_ts_ = ts + s.call_interval <= s.close ? next_periodic(s, ts + s.call_interval) : kNever;
    if (next_ts_ == kNever) schedule_session(session_ + 1);
    return;
  }
  if (closing_auction) {
    schedule_session(session_ + 1);
    return;
  }
  const double mean = static_cast<double>(plan_.mean_interval) / s.activity;
  const double gap = -std::log(1.0 - rng_->unit()) * mean;
  Timestamp next = ts + std::max(kMinGap, static_cast<Timestamp>(gap) / kMicro * kMicro);
  if (next >= s.last_trade) {
    if (s.closing_auction && ts < s.close) {
      next = s.close;
    } else {
      schedule_session(session_ + 1);
      return;
    }
  }
  next_ts_ = next;
}

// Trades still expected before the day's close: the pull towards the closing price spreads over them.
double TickTape::remaining_trades(Timestamp ts) const {
  double remaining = 1;
  for (std::size_t i = session_; i < plan_.sessions.size(); ++i) {
    const TradingSession& s = plan_.sessions[i];
    const Timestamp from = std::max(ts, s.open);
    if (s.call_interval > 0) {
      if (s.close > from)
        remaining += static_cast<double>(s.close - from) / static_cast<double>(s.call_interval);
      continue;
    }
    if (s.last_trade > from) {
      remaining +=
          static_cast<double>(s.last_trade - from) * s.activity / static_cast<double>(plan_.mean_interval);
    }
    if (s.closing_auction) remaining += 1;
  }
  return remaining;
}

std::int64_t TickTape::walk_step(Timestamp ts, double sigma) {
  std::int64_t step = round_randomly(static_cast<double>(target_ - bid_) / remaining_trades(ts), *rng_);
  if (sigma >= 1.0) {
    step += static_cast<std::int64_t>(std::llround(sigma * normal(*rng_)));
  } else {
    // Single steps with the walk's variance: sigma^2 / 2 up, as much down.
    const double u = rng_->unit();
    const double half = sigma * sigma / 2;
    step += u < half ? 1 : u < 2 * half ? -1 : 0;
  }
  return step;
}

Quantity TickTape::continuous_volume() {
  return 1 + static_cast<Quantity>(-std::log(1.0 - rng_->unit()) * std::max(0.0, plan_.volume_mean - 1.0));
}

TapeTrade TickTape::next() {
  const TradingSession& s = plan_.sessions[session_];
  TapeTrade t;
  t.ts = next_ts_;
  t.night = s.night;
  t.book_seed = rng_->next();
  const bool last_session = session_ + 1 == plan_.sessions.size();
  bool closing = false;

  if (source_) {
    // Odd lots trade at the board's price; the side follows the move since the last auction.
    t.price = source_->price_until(t.ts);
    if (t.price != last_price_) last_side_ = t.price > last_price_ ? TickSide::Buy : TickSide::Sell;
    t.side = last_side_;
    t.volume = static_cast<Quantity>(std::exp(rng_->unit() * std::log(plan_.volume_mean)));
    t.volume = std::clamp<Quantity>(t.volume, 1, 999);
    const Price step = tick_size(plan_.ladder, t.price);
    t.bid = t.side == TickSide::Sell ? t.price : step_down(plan_.ladder, t.price);
    t.ask = t.side == TickSide::Buy ? t.price : t.price + step;
    if (!plan_.prices.limits.contains(t.bid)) t.bid = Price();
    if (!plan_.prices.limits.contains(t.ask)) t.ask = Price();
  } else if (s.call_interval > 0) {
    // Index values: a walk with no book and no volume.
    const bool final_value = last_session && t.ts + s.call_interval > s.close;
    bid_ = final_value ? target_ : std::clamp(bid_ + walk_step(t.ts, plan_.step_sigma), low_, high_);
    t.price = at(bid_);
  } else {
    const bool opening = !session_opened_;
    closing = s.closing_auction && t.ts == s.close;
    if (closing && last_session) {
      bid_ = target_;
    } else {
      const double sigma = opening ? plan_.step_sigma * 4 : plan_.step_sigma;
      const std::int64_t step = walk_step(t.ts, sigma);
      if (opening || closing) {
        bid_ = std::clamp(bid_ + step, low_, high_);
      } else {
        bid_ = std::clamp(bid_ + step, low_ - 1, high_);
        const int buy_percent = step > 0 ? 70 : step < 0 ? 30 : 50;
        t.side = rng_->chance(buy_percent) ? TickSide::Buy : TickSide::Sell;
        if (bid_ < low_) t.side = TickSide::Buy;  // no bids left: only buyers can trade
        if (bid_ >= high_) t.side = TickSide::Sell;
      }
    }
    t.bid = bid_ >= low_ ? at(bid_) : Price();
    t.ask = bid_ < high_ ? at(bid_ + 1) : Price();
    if (opening || closing) {
      // Auctions trade at one price with the book meeting there.
      t.price = t.bid;
      t.volume = static_cast<Quantity>(plan_.volume_mean * (opening ? 25 : 15) * (0.5 + rng_->unit())) + 1;
    } else {
      t.price = t.side == TickSide::Buy ? t.ask : t.bid;
      t.volume = continuous_volume();
    }
    session_opened_ = true;
  }

  last_price_ = t.price;
  if (t.side != TickSide::None) last_side_ = t.side;
  schedule_after(t.ts, closing);
  return t;
}

Price TickTape::price_until(Timestamp t) {
  while (!done() && next_ts_ <= t) next();
  return last_price_;
}

}  // namespace quorvex::paper
