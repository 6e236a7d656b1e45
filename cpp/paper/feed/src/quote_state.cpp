#include "quorvex/paper/feed/quote_state.hpp"

#include <algorithm>
#include <cmath>

namespace quorvex::paper {
namespace {

Quantity level_volume(double typical, std::uint64_t seed, std::size_t level, bool bid) {
  const std::uint64_t h = mix_seed(seed, level * 2 + (bid ? 1 : 0));
  const double u = static_cast<double>(h >> 11) * (1.0 / 9007199254740992.0);
  // Deeper levels hold more, as resting books usually do.
  return 1 + static_cast<Quantity>(u * typical * (2.0 + static_cast<double>(level)));
}

template <typename Better>
void merge_side(std::array<BookLevel, kBookDepth>& side, const std::vector<DepthLevel>& resting,
                Better better, Price bound) {
  std::vector<BookLevel> levels;
  for (const BookLevel& l : side) {
    if (l.price.is_positive()) levels.push_back(l);
  }
  for (const DepthLevel& r : resting) {
    if (!r.price.is_positive() || r.quantity <= 0) continue;
    if (bound.is_positive() && !better(bound, r.price)) continue;  // would cross the other side
    const auto same =
        std::find_if(levels.begin(), levels.end(), [&](const BookLevel& l) { return l.price == r.price; });
    if (same != levels.end()) {
      same->volume += r.quantity;
    } else {
      levels.push_back({r.price, r.quantity});
    }
  }
  std::sort(levels.begin(), levels.end(),
            [&](const BookLevel& a, const BookLevel& b) { return better(a.price, b.price); });
  side = {};
  for (std::size_t i = 0; i < kBookDepth && i < levels.size(); ++i) side[i] = levels[i];
}

}  // namespace

Quantity QuoteBook::bid_total() const {
  Quantity total = 0;
  for (const BookLevel& l : bids) total += l.volume;
  return total;
}

Quantity QuoteBook::ask_total() const {
  Quantity total = 0;
  for (const BookLevel& l : asks) total += l.volume;
  return total;
}

bool operator==(const QuoteBook& a, const QuoteBook& b) {
  auto same = [](const std::array<BookLevel, kBookDepth>& x, const std::array<BookLevel, kBookDepth>& y) {
    for (std::size_t i = 0; i < kBookDepth; ++i) {
      if (x[i].price != y[i].price || x[i].volume != y[i].volume) return false;
    }
    return true;
  };
  return same(a.bids, b.bids) && same(a.asks, b.asks);
}

QuoteBook shape_book(Price best_bid, Price best_ask, TickLadder ladder, const PriceLimits& limits,
                     double typical_volume, std::uint64_t seed) {
  QuoteBook book;
  const double typical = std::max(1.0, typical_volume);
  if (best_bid.is_positive()) {
    Price p = best_bid;
    for (std::size_t i = 0; i < kBookDepth && limits.contains(p) && p.is_positive(); ++i) {
      book.bids[i] = {p, level_volume(typical, seed, i, true)};
      p = step_down(ladder, p);
    }
  }
  if (best_ask.is_positive()) {
    Price p = best_ask;
    for (std::size_t i = 0; i < kBookDepth && limits.contains(p); ++i) {
      book.asks[i] = {p, level_volume(typical, seed, i, false)};
      p = step_up(ladder, p);
    }
  }
  return book;
}

QuoteBook merge_resting(const QuoteBook& market, const std::vector<DepthLevel>& bids,
                        const std::vector<DepthLevel>& asks) {
  QuoteBook merged = market;
  // A zero best price on the other side leaves nothing to cross.
  merge_side(
      merged.bids, bids, [](Price a, Price b) { return a > b; }, market.asks[0].price);
  merge_side(
      merged.asks, asks, [](Price a, Price b) { return a < b; }, market.bids[0].price);
  return merged;
}

QuoteBook BookShape::levels() const {
  return shape_book(best_bid, best_ask, ladder, limits, typical_volume, seed);
}

BookLevel BookShape::best_bid_level() const {
  if (!best_bid.is_positive() || !limits.contains(best_bid)) return {};
  return {best_bid, level_volume(std::max(1.0, typical_volume), seed, 0, true)};
}

BookLevel BookShape::best_ask_level() const {
  if (!best_ask.is_positive() || !limits.contains(best_ask)) return {};
  return {best_ask, level_volume(std::max(1.0, typical_volume), seed, 0, false)};
}

ChangeType QuoteState::change_type() const {
  const Price p = last_price();
  if (traded() && p >= limits.limit_up) return ChangeType::LimitUp;
  if (traded() && p <= limits.limit_down) return ChangeType::LimitDown;
  if (p > reference) return ChangeType::Up;
  if (p < reference) return ChangeType::Down;
  return ChangeType::Unchanged;
}

double QuoteState::percent_change() const {
  if (!reference.is_positive()) return 0.0;
  const double pct = static_cast<double>(last_price().units() - reference.units()) * 100.0 /
                     static_cast<double>(reference.units());
  return std::round(pct * 100.0) / 100.0;
}

double QuoteState::average_price() const {
  if (total_volume <= 0 || value_per_unit <= 0) return last_price().to_double();
  const double avg =
      to_dollars(total_amount) / (static_cast<double>(total_volume) * static_cast<double>(value_per_unit));
  return std::round(avg * 100.0) / 100.0;
}

ContractDay::ContractDay(const MarketModel& model, const Contract& contract, Market market, const Date& day)
    : model_(&model),
      contract_(&contract),
      market_(market),
      day_(day),
      tape_(model.tape(contract, market, day)) {
  const TapePlan& plan = tape_.plan();
  state_.day = day;
  state_.market = market;
  state_.reference = plan.prices.reference;
  state_.limits = plan.prices.limits;
  switch (market) {
    case Market::Stock: state_.value_per_unit = contract.unit; break;
    case Market::IntradayOdd: state_.value_per_unit = 1; break;
    case Market::FuturesOptions: state_.value_per_unit = contract.multiplier; break;
    case Market::Index: state_.value_per_unit = 0; break;
  }
  state_.book_shape.ladder = plan.ladder;
  state_.book_shape.limits = plan.prices.limits;
  state_.book_shape.typical_volume =
      market == Market::IntradayOdd ? 200.0 : std::max(1.0, plan.volume_mean) * 4;
  // Before the first trade the book stands around the reference.
  const Price ref = plan.prices.reference;
  if (market != Market::Index) set_book(step_down(plan.ladder, ref), ref, plan.seed);
  switch (market) {
    case Market::Stock: boards_ = {{Board::Common}, {Board::Odd}, {Board::Fixing}}; break;
    case Market::IntradayOdd: boards_ = {{Board::IntradayOdd}}; break;
    case Market::FuturesOptions: boards_ = {{Board::Common}}; break;
    case Market::Index: break;
  }
}

void ContractDay::sync(const TradeLedger& ledger) {
  std::vector<OwnTrade> fresh;
  for (BoardCursor& cursor : boards_) {
    cursor.read = ledger.read(contract_->code, cursor.board, cursor.read, fresh);
  }
  for (OwnTrade& trade : fresh) {
    if (trading_day_at(market_, trade.ts) == day_) pending_.push_back(std::move(trade));
  }
}

Timestamp ContractDay::next_ts() const {
  Timestamp next = tape_.next_ts();
  for (const OwnTrade& own : pending_) next = std::min(next, own.ts);
  return next;
}

Money ContractDay::value_of(Price price, Quantity volume) const {
  return trade_value(price, volume, state_.value_per_unit);
}

std::optional<AppliedTrade> ContractDay::step(Timestamp t) {
  // The earliest of the broker's pending trades; at equal times the market's trade comes first.
  auto earliest = std::min_element(pending_.begin(), pending_.end(),
                                   [](const OwnTrade& a, const OwnTrade& b) { return a.ts < b.ts; });
  const bool own_due = earliest != pending_.end() && earliest->ts <= t && earliest->ts < tape_.next_ts();
  if (own_due) {
    const OwnTrade own = *earliest;
    pending_.erase(earliest);
    return apply_own(own);
  }
  if (tape_.done() || tape_.next_ts() > t) return std::nullopt;
  AppliedTrade applied;
  applied.trade = tape_.next();
  applied.value = value_of(applied.trade.price, applied.trade.volume);
  apply(applied.trade, applied.value);
  if (market_ != Market::Index) set_book(applied.trade.bid, applied.trade.ask, applied.trade.book_seed);
  return applied;
}

void ContractDay::advance_to(Timestamp t) {
  while (step(t)) {
  }
}

AppliedTrade ContractDay::apply_own(const OwnTrade& own) {
  AppliedTrade applied;
  applied.own = true;
  applied.trade.ts = own.ts;
  applied.trade.price = own.price;
  applied.trade.volume = own.quantity;
  applied.trade.side = own.aggressor == Side::Buy ? TickSide::Buy : TickSide::Sell;
  applied.trade.book_seed = mix_seed(model_->seed(), own.deal);
  if (own.board == Board::Odd || own.board == Board::Fixing) {
    // After-hours boards: counted on the day's quote, not traded on its board.
    applied.board = false;
    (own.board == Board::Odd ? state_.closing_oddlot_shares : state_.fixed_trade_vol) += own.quantity;
    return applied;
  }
  const TickLadder ladder = contract_->ladder;
  const Price p = own.price;
  // The book meets at the trade: the taken side starts at the trade's price.
  Price bid = applied.trade.side == TickSide::Sell ? p : step_down(ladder, p);
  Price ask = applied.trade.side == TickSide::Buy ? p : step_up(ladder, p);
  if (!state_.limits.contains(bid)) bid = Price();
  if (!state_.limits.contains(ask)) ask = Price();
  applied.trade.bid = bid;
  applied.trade.ask = ask;
  applied.trade.night = !tape_.plan().sessions.empty() && tape_.plan().sessions.front().night &&
                        own.ts < tape_.plan().sessions.front().close;
  applied.value = value_of(p, own.quantity);
  apply(applied.trade, applied.value);
  set_book(bid, ask, applied.trade.book_seed);
  return applied;
}

void ContractDay::set_book(Price bid, Price ask, std::uint64_t seed) {
  state_.book_shape.best_bid = bid;
  state_.book_shape.best_ask = ask;
  state_.book_shape.seed = seed;
}

void ContractDay::apply(const TapeTrade& t, Money value) {
  QuoteState& s = state_;
  if (s.trades == 0) s.open = s.high = s.low = t.price;
  s.high = std::max(s.high, t.price);
  s.low = std::min(s.low, t.price);
  s.close = t.price;
  s.ts = std::max(s.ts, t.ts);
  s.volume = t.volume;
  s.total_volume += t.volume;
  s.amount = value;
  s.total_amount += value;
  ++s.trades;
  s.tick_type = t.side;
  s.night = t.night;
  if (t.side == TickSide::Buy) {
    s.ask_side_total_vol += t.volume;
    ++s.ask_side_total_cnt;
  } else if (t.side == TickSide::Sell) {
    s.bid_side_total_vol += t.volume;
    ++s.bid_side_total_cnt;
  }
}

}  // namespace quorvex::paper
