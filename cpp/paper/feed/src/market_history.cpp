#include "quorvex/paper/feed/market_history.hpp"

#include <algorithm>
#include <cmath>
#include <deque>

namespace quorvex::paper {
namespace {

Timestamp minute_start(Timestamp ts) {
  const Timestamp of_day = taipei_time_of_day(ts);
  return ts - of_day % kNanosPerMinute;
}

bool in_time_range(Timestamp ts, const TickSelection& s) {
  const Timestamp t = taipei_time_of_day(ts);
  if (s.from_time_of_day <= s.to_time_of_day) return s.from_time_of_day <= t && t <= s.to_time_of_day;
  return t >= s.from_time_of_day || t <= s.to_time_of_day;
}

double rank_value(ScannerKind kind, const QuoteState& s) {
  switch (kind) {
    case ScannerKind::ChangePercent: return s.percent_change();
    case ScannerKind::ChangePrice: return s.price_change();
    case ScannerKind::DayRange: {
      if (!s.reference.is_positive()) return 0;
      const double range = static_cast<double>(s.high.units() - s.low.units()) * 100.0 /
                           static_cast<double>(s.reference.units());
      return std::round(range * 100.0) / 100.0;
    }
    case ScannerKind::Volume: return static_cast<double>(s.total_volume);
    case ScannerKind::Amount: return to_dollars(s.total_amount);
    case ScannerKind::TickCount: return static_cast<double>(s.trades);
  }
  return 0;
}

}  // namespace

std::vector<MinuteBar> minute_bars(const std::vector<TickRow>& ticks) {
  std::vector<MinuteBar> bars;
  for (const TickRow& t : ticks) {
    const Timestamp minute = minute_start(t.ts);
    if (bars.empty() || bars.back().ts != minute) {
      MinuteBar bar;
      bar.ts = minute;
      bar.open = bar.high = bar.low = t.close;
      bars.push_back(bar);
    }
    MinuteBar& bar = bars.back();
    bar.high = std::max(bar.high, t.close);
    bar.low = std::min(bar.low, t.close);
    bar.close = t.close;
    bar.volume += t.volume;
    bar.amount += t.amount;
  }
  return bars;
}

MarketHistory::MarketHistory(const MarketModel& model, const core::Clock& clock, const TradeLedger& ledger,
                             RestingDepth depth)
    : model_(model), clock_(clock), ledger_(ledger), depth_(std::move(depth)) {}

std::vector<TickRow> MarketHistory::ticks(const Contract& contract, const Date& day,
                                          const TickSelection& selection) const {
  const Timestamp now = this->now();
  ContractDay replay(model_, contract, board_market(contract), day);
  replay.sync(ledger_);
  std::vector<TickRow> rows;
  std::deque<TickRow> last;
  while (std::optional<AppliedTrade> applied = replay.step(now)) {
    if (!applied->board) continue;
    const TapeTrade& t = applied->trade;
    const BookLevel bid = replay.state().book_shape.best_bid_level();
    const BookLevel ask = replay.state().book_shape.best_ask_level();
    const TickRow row{t.ts,      t.price,    t.volume, bid.price,     bid.volume,
                      ask.price, ask.volume, t.side,   applied->value};
    switch (selection.kind) {
      case TickSelection::Kind::AllDay: rows.push_back(row); break;
      case TickSelection::Kind::RangeTime:
        if (in_time_range(t.ts, selection)) rows.push_back(row);
        break;
      case TickSelection::Kind::LastCount:
        last.push_back(row);
        if (last.size() > selection.last) last.pop_front();
        break;
    }
  }
  if (selection.kind == TickSelection::Kind::LastCount) rows.assign(last.begin(), last.end());
  // The broker's trades reach the ledger a moment after they happen; keep time order.
  std::stable_sort(rows.begin(), rows.end(), [](const TickRow& a, const TickRow& b) { return a.ts < b.ts; });
  return rows;
}

std::vector<MinuteBar> MarketHistory::kbars(const Contract& contract, const Date& start,
                                            const Date& end) const {
  std::vector<MinuteBar> bars;
  const Timestamp now = this->now();
  const Market market = board_market(contract);
  for (Date day = start; day <= end; day = day.plus_days(1)) {
    if (!day.is_business_day() || day_open(market, day) > now) continue;
    const std::vector<MinuteBar> of_day = minute_bars(ticks(contract, day, {}));
    bars.insert(bars.end(), of_day.begin(), of_day.end());
  }
  return bars;
}

const QuoteState& MarketHistory::day_state(const Contract& contract, Market market, const Date& day,
                                           Timestamp now) const {
  if (days_.size() >= kMaxCachedDays) days_.clear();
  DayKey key{contract.code, market, day.serial()};
  auto it = days_.find(key);
  if (it == days_.end()) it = days_.try_emplace(std::move(key), model_, contract, market, day).first;
  ContractDay& cursor = it->second;
  cursor.sync(ledger_);
  cursor.advance_to(now);
  return cursor.state();
}

Quantity MarketHistory::volume_before(const Contract& contract, const Date& day, Timestamp now) const {
  const Market market = board_market(contract);
  return day_state(contract, market, day.plus_business_days(-1), now).total_volume;
}

ContractSnapshot MarketHistory::snapshot_locked(const Contract& contract, Market market, const Date& day,
                                                Timestamp now) const {
  ContractSnapshot snap;
  snap.contract = &contract;
  snap.state = day_state(contract, market, day, now);
  snap.book = snap.state.book();
  snap.ts = snap.state.traded() ? snap.state.ts : now;
  snap.yesterday_volume = volume_before(contract, day, now);
  return snap;
}

void MarketHistory::add_resting(ContractSnapshot& snapshot, Board board) const {
  if (!depth_ || snapshot.state.market == Market::Index) return;
  const std::optional<BookSnapshot> resting = depth_(snapshot.contract->code, board);
  if (resting) snapshot.book = merge_resting(snapshot.book, resting->bids, resting->asks);
}

ContractSnapshot MarketHistory::snapshot(const Contract& contract) const {
  const Timestamp now = this->now();
  const Market market = board_market(contract);
  ContractSnapshot snap;
  {
    std::lock_guard lock(mutex_);
    snap = snapshot_locked(contract, market, trading_day_at(market, now), now);
  }
  add_resting(snap, Board::Common);
  return snap;
}

std::vector<DailyQuote> MarketHistory::daily_quotes(const Date& day, bool exclude_funds) const {
  std::vector<DailyQuote> out;
  const Timestamp now = this->now();
  if (!day.is_business_day() || day_open(Market::Stock, day) > now) return out;
  std::lock_guard lock(mutex_);
  for (const Contract& c : model_.contracts().contracts(SecurityType::Stock)) {
    if (exclude_funds && c.is_etf()) continue;
    const QuoteState& s = day_state(c, Market::Stock, day, now);
    if (!s.traded()) continue;
    out.push_back({day, &c, s.open, s.high, s.low, s.close, s.total_volume, s.trades, s.total_amount});
  }
  return out;
}

std::vector<ScannerRow> MarketHistory::scan(ScannerKind kind, bool ascending, const Date& day,
                                            std::size_t count) const {
  std::vector<ScannerRow> rows;
  const Timestamp now = this->now();
  if (!day.is_business_day() || day_open(Market::Stock, day) > now) return rows;
  {
    std::lock_guard lock(mutex_);
    for (const Contract& c : model_.contracts().contracts(SecurityType::Stock)) {
      ContractSnapshot snap = snapshot_locked(c, Market::Stock, day, now);
      if (!snap.state.traded()) continue;
      const double value = rank_value(kind, snap.state);
      rows.push_back({std::move(snap), value});
    }
  }
  const auto order = [ascending](const ScannerRow& a, const ScannerRow& b) {
    if (a.rank_value != b.rank_value)
      return ascending ? a.rank_value < b.rank_value : a.rank_value > b.rank_value;
    return a.snapshot.contract->code < b.snapshot.contract->code;
  };
  const std::size_t keep = std::min(count, rows.size());
  std::partial_sort(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(keep), rows.end(), order);
  rows.resize(keep);
  if (day == trading_day_at(Market::Stock, now)) {
    for (ScannerRow& row : rows) add_resting(row.snapshot, Board::Common);
  }
  return rows;
}

}  // namespace quorvex::paper
