#include "quorvex/paper/feed/quote_content.hpp"

#include <cstdio>

#include "quorvex/core/codec.hpp"

namespace quorvex::paper {
namespace {

// Writes msgpack straight into the message buffer: the feed encodes every message it sends,
// and building a value tree first would cost more than the encoding itself.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  void map(std::uint32_t n) { header(n, 0x80, 0xde); }
  void array(std::uint32_t n) { header(n, 0x90, 0xdc); }
  void text(std::string_view s) {
    const auto n = static_cast<std::uint32_t>(s.size());
    if (n < 32) {
      out_.push_back(static_cast<char>(0xa0 | n));
    } else if (n < 256) {
      out_.push_back(static_cast<char>(0xd9));
      out_.push_back(static_cast<char>(n));
    } else {
      out_.push_back(static_cast<char>(0xda));
      be(n, 2);
    }
    out_.append(s);
  }
  void integer(std::int64_t v) {
    if (v >= 0 && v < 128) {
      out_.push_back(static_cast<char>(v));
    } else if (v >= -32 && v < 0) {
      out_.push_back(static_cast<char>(v));
    } else if (v >= 0 && v <= 0xffffffffLL) {
      out_.push_back(static_cast<char>(0xce));
      be(static_cast<std::uint64_t>(v), 4);
    } else {
      out_.push_back(static_cast<char>(0xd3));
      be(static_cast<std::uint64_t>(v), 8);
    }
  }
  void real(double d) { core::append_float64(out_, d); }
  void boolean(bool b) { out_.push_back(static_cast<char>(b ? 0xc3 : 0xc2)); }

 private:
  void header(std::uint32_t n, int fix, int wide) {
    if (n < 16) {
      out_.push_back(static_cast<char>(fix | static_cast<int>(n)));
    } else {
      out_.push_back(static_cast<char>(wide));
      be(n, 2);
    }
  }
  void be(std::uint64_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out_.push_back(static_cast<char>(v >> (8 * i)));
  }
  std::string& out_;
};

double dollars(Price p) { return p.to_double(); }

// The change from the reference in price units, exact before it becomes a float.
double price_change(const QuoteState& s) {
  return static_cast<double>(s.last_price().units() - s.reference.units()) / Price::kScale;
}

// Each level's volume change since the previous message, matched by price.
Quantity diff_at(const std::array<BookLevel, kBookDepth>& now,
                 const std::array<BookLevel, kBookDepth>& before, std::size_t i) {
  if (!now[i].price.is_positive()) return 0;
  for (const BookLevel& b : before) {
    if (b.price == now[i].price) return now[i].volume - b.volume;
  }
  return now[i].volume;
}

void prices(Writer& w, const std::array<BookLevel, kBookDepth>& side) {
  w.array(kBookDepth);
  for (const BookLevel& l : side) w.real(dollars(l.price));
}

void volumes(Writer& w, const std::array<BookLevel, kBookDepth>& side) {
  w.array(kBookDepth);
  for (const BookLevel& l : side) w.integer(l.volume);
}

void diffs(Writer& w, const std::array<BookLevel, kBookDepth>& side,
           const std::array<BookLevel, kBookDepth>& before) {
  w.array(kBookDepth);
  for (std::size_t i = 0; i < kBookDepth; ++i) w.integer(diff_at(side, before, i));
}

std::int64_t micros(Timestamp ts) { return ts / 1000; }

// The run both tick layouts share: amount, total_amount, volume, total_volume, tick_type,
// chg_type, price_chg, pct_chg.
void trade_fields(Writer& w, const QuoteState& s) {
  w.real(to_dollars(s.amount));
  w.real(to_dollars(s.total_amount));
  w.integer(s.volume);
  w.integer(s.total_volume);
  w.integer(static_cast<int>(s.tick_type));
  w.integer(static_cast<int>(s.change_type()));
  w.real(price_change(s));
  w.real(s.percent_change());
}

// Elements 0 to 20 of the stock tick (and of the joined quote).
void stock_tick_fields(Writer& w, const QuoteFrame& f) {
  const QuoteState& s = *f.state;
  w.text(f.contract->code);
  w.integer(micros(f.ts));
  w.real(dollars(s.open));
  w.real(dollars(s.close));
  w.real(dollars(s.high));
  w.real(dollars(s.low));
  w.real(s.average_price());
  trade_fields(w, s);
  w.integer(s.bid_side_total_vol);
  w.integer(s.ask_side_total_vol);
  w.integer(s.bid_side_total_cnt);
  w.integer(s.ask_side_total_cnt);
  w.integer(s.closing_oddlot_shares);
  w.integer(s.fixed_trade_vol);
}

void book_fields(Writer& w, const QuoteFrame& f) {
  prices(w, f.book.bids);
  volumes(w, f.book.bids);
  diffs(w, f.book.bids, f.previous_book.bids);
  prices(w, f.book.asks);
  volumes(w, f.book.asks);
  diffs(w, f.book.asks, f.previous_book.asks);
}

void tick_v1(Writer& w, Market market, const QuoteFrame& f) {
  const QuoteState& s = *f.state;
  if (market != Market::FuturesOptions) {
    w.array(23);
    stock_tick_fields(w, f);
    w.boolean(false);  // suspend
    w.boolean(false);  // simtrade
    return;
  }
  w.array(19);
  w.text(f.contract->code);
  w.integer(micros(f.ts));
  w.real(dollars(s.open));
  w.real(dollars(f.underlying));
  w.integer(s.bid_side_total_vol);
  w.integer(s.ask_side_total_vol);
  w.real(s.average_price());
  w.real(dollars(s.close));
  w.real(dollars(s.high));
  w.real(dollars(s.low));
  trade_fields(w, s);
  w.boolean(false);  // simtrade
}

void bidask_v1(Writer& w, Market market, const QuoteFrame& f) {
  if (market != Market::FuturesOptions) {
    w.array(10);
    w.text(f.contract->code);
    w.integer(micros(f.ts));
    book_fields(w, f);
    w.boolean(false);  // suspend
    w.boolean(false);  // simtrade
    return;
  }
  w.array(16);
  w.text(f.contract->code);
  w.integer(micros(f.ts));
  w.integer(f.book.bid_total());
  w.integer(f.book.ask_total());
  book_fields(w, f);
  // The paper market takes no spread orders, so nothing is implied from them.
  w.real(0.0);
  w.real(0.0);
  w.integer(0);
  w.integer(0);
  w.real(dollars(f.underlying));
  w.boolean(false);  // simtrade
}

void quote_v2(Writer& w, const QuoteFrame& f) {
  w.array(29);
  stock_tick_fields(w, f);
  book_fields(w, f);
  w.boolean(false);  // suspend
  w.boolean(false);  // simtrade
}

// "YYYY/MM/DD" and "HH:MM:SS.ffffff" in Taipei time, as the untyped messages carry them.
void date_and_time(Writer& w, Timestamp ts) {
  const Timestamp wall = taipei_wall_nanos(ts);
  const Date date = taipei_date(ts);
  const std::int64_t of_day =
      (wall % (86400 * kNanosPerSecond) + 86400 * kNanosPerSecond) % (86400 * kNanosPerSecond);
  const std::int64_t us = of_day / 1000;
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d/%02d/%02d", date.year, date.month, date.day);
  w.text("Date");
  w.text(buf);
  std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%06d", static_cast<int>(us / 3'600'000'000LL),
                static_cast<int>(us / 60'000'000LL % 60), static_cast<int>(us / 1'000'000LL % 60),
                static_cast<int>(us % 1'000'000LL));
  w.text("Time");
  w.text(buf);
}

void tick_v0(Writer& w, Market market, const QuoteFrame& f) {
  const QuoteState& s = *f.state;
  if (market == Market::IntradayOdd) {
    w.map(7);
    w.text("Code");
    w.text(f.contract->code);
    date_and_time(w, f.ts);
    w.text("Close");
    w.real(dollars(s.close));
    w.text("Volume");
    w.integer(s.volume);
    w.text("TickType");
    w.integer(static_cast<int>(s.tick_type));
    w.text("Simtrade");
    w.integer(0);
    return;
  }
  w.map(17);
  w.text("Code");
  w.text(f.contract->code);
  date_and_time(w, f.ts);
  const std::pair<const char*, Price> price_fields[] = {
      {"Open", s.open}, {"High", s.high}, {"Low", s.low}, {"Close", s.close}};
  for (const auto& [key, value] : price_fields) {
    w.text(key);
    w.real(dollars(value));
  }
  w.text("AvgPrice");
  w.real(s.average_price());
  w.text("Amount");
  w.real(to_dollars(s.amount));
  w.text("TotalAmount");
  w.real(to_dollars(s.total_amount));
  w.text("Volume");
  w.integer(s.volume);
  w.text("TotalVolume");
  w.integer(s.total_volume);
  w.text("TickType");
  w.integer(static_cast<int>(s.tick_type));
  w.text("ChgType");
  w.integer(static_cast<int>(s.change_type()));
  w.text("PriceChg");
  w.real(price_change(s));
  w.text("PctChg");
  w.real(s.percent_change());
  w.text("Simtrade");
  w.integer(0);
}

// One side of an untyped book: "<Side>Price", "<Side>Volume" and, for board lots, "Diff<Side>Vol".
void side_v0(Writer& w, const std::string& side_name, const std::array<BookLevel, kBookDepth>& side,
             const std::array<BookLevel, kBookDepth>* before) {
  w.text(side_name + "Price");
  prices(w, side);
  w.text(side_name + "Volume");
  volumes(w, side);
  if (before != nullptr) {
    w.text("Diff" + side_name + "Vol");
    diffs(w, side, *before);
  }
}

void bidask_v0(Writer& w, Market market, const QuoteFrame& f) {
  const bool odd = market == Market::IntradayOdd;
  w.map(odd ? 8 : 10);
  w.text("Code");
  w.text(f.contract->code);
  date_and_time(w, f.ts);
  side_v0(w, "Bid", f.book.bids, odd ? nullptr : &f.previous_book.bids);
  side_v0(w, "Ask", f.book.asks, odd ? nullptr : &f.previous_book.asks);
  w.text("Simtrade");
  w.integer(0);
}

}  // namespace

bool publishes(Market market, QuoteTopic topic) {
  if (market == Market::Index) return false;
  return topic != QuoteTopic::QuoteV2 || market == Market::Stock;
}

std::string_view topic_exchange(const Contract& contract) {
  return contract.is_derivative() ? std::string_view("TFE") : to_text(contract.exchange);
}

std::string quote_topic(QuoteTopic topic, Market market, bool night, const Contract& contract) {
  if (!publishes(market, topic)) return {};
  std::string t;
  t.reserve(32);
  t += is_tick(topic) ? "TIC/" : "QUO/";
  t += topic == QuoteTopic::QuoteV2                                     ? "v2/"
       : (topic == QuoteTopic::TickV0 || topic == QuoteTopic::BidAskV0) ? "v0/"
                                                                        : "v1/";
  t += to_text(market);
  t += night ? "/N/" : "/D/";
  t += topic_exchange(contract);
  t += '/';
  t += contract.code;
  if (market == Market::IntradayOdd && (topic == QuoteTopic::TickV0 || topic == QuoteTopic::BidAskV0))
    t += "/ODDLOT";
  return t;
}

std::string encode_quote(QuoteTopic topic, Market market, const QuoteFrame& frame) {
  std::string out;
  out.reserve(320);
  Writer w(out);
  const bool v0 = topic == QuoteTopic::TickV0 || topic == QuoteTopic::BidAskV0;
  if (!v0) {
    w.map(1);
    w.text("content");
  }
  switch (topic) {
    case QuoteTopic::TickV1: tick_v1(w, market, frame); break;
    case QuoteTopic::BidAskV1: bidask_v1(w, market, frame); break;
    case QuoteTopic::QuoteV2: quote_v2(w, frame); break;
    case QuoteTopic::TickV0: tick_v0(w, market, frame); break;
    case QuoteTopic::BidAskV0: bidask_v0(w, market, frame); break;
  }
  return out;
}

}  // namespace quorvex::paper
