#include "quorvex/paper/feed/market_data.hpp"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace quorvex::paper {
namespace {

using core::Array;
using core::Map;
using core::Value;

constexpr int kBadRequest = 400;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;

// A request the service will not answer: its status code and the detail the client shows.
struct RequestRefused : std::runtime_error {
  RequestRefused(int status, const std::string& detail) : std::runtime_error(detail), status(status) {}
  int status;
};

[[noreturn]] void refuse(int status, const std::string& detail) { throw RequestRefused(status, detail); }

Value ok(Value response) {
  Map reply;
  reply.append_new("status", Value::map({{"status_code", 200}}));
  reply.append_new("response", std::move(response));
  return reply;
}

Value refused(int status, const std::string& detail) {
  Map reply;
  reply.append_new("status", Value::map({{"status_code", status}, {"detail", detail}}));
  reply.append_new("response", Value::map({{"detail", detail}}));
  return reply;
}

const char* tick_type_text(TickSide side) {
  switch (side) {
    case TickSide::Buy: return "Buy";
    case TickSide::Sell: return "Sell";
    case TickSide::None: break;
  }
  return "None";
}

const char* change_type_text(ChangeType type) {
  switch (type) {
    case ChangeType::LimitUp: return "LimitUp";
    case ChangeType::Up: return "Up";
    case ChangeType::Unchanged: return "Unchanged";
    case ChangeType::Down: return "Down";
    case ChangeType::LimitDown: return "LimitDown";
  }
  return "Unchanged";
}

std::string taipei_text(Timestamp ts) {
  const Date date = taipei_date(ts);
  const std::int64_t seconds = taipei_time_of_day(ts) / kNanosPerSecond;
  char buf[32];
  std::snprintf(buf, sizeof buf, "%s %02d:%02d:%02d", date.to_string().c_str(),
                static_cast<int>(seconds / 3600), static_cast<int>(seconds / 60 % 60),
                static_cast<int>(seconds % 60));
  return buf;
}

std::string describe(const Value& v) { return core::to_display_string(v); }

Date date_of(const Value& payload, const char* key) {
  const Value& v = payload.get(key);
  if (!v.is_string()) {
    refuse(kBadRequest, std::string(key) + " must be a date text \"YYYY-MM-DD\", got " + describe(v));
  }
  const std::optional<Date> date = Date::parse(v.as_string());
  if (!date)
    refuse(kBadRequest, std::string(key) + " must be a date \"YYYY-MM-DD\", got \"" + v.as_string() + "\"");
  return *date;
}

bool flag_of(const Value& payload, const char* key) {
  const Value& v = payload.get(key);
  if (v.is_nil()) return false;
  if (v.is_bool()) return v.as_bool();
  if (v.is_int()) return v.as_int() != 0;
  refuse(kBadRequest, std::string(key) + " must be true or false, got " + describe(v));
}

// The contract a request names, by its code; a continuous futures contract by its target.
const Contract& contract_of(const MarketModel& model, const Value& contract) {
  if (!contract.is_map())
    refuse(kBadRequest, "contract must be a contract's fields, got " + describe(contract));
  const Value& target = contract.get("target_code");
  const Value& code = target.is_string() && !target.as_string().empty() ? target : contract.get("code");
  if (!code.is_string() || code.as_string().empty()) {
    refuse(kBadRequest, "a contract needs its code as text, got " + describe(code));
  }
  const Contract* found = model.contracts().find(code.as_string());
  if (found == nullptr || found->code != code.as_string()) {
    refuse(kNotFound,
           "unknown contract code \"" + code.as_string() + "\"; expected a code of the contract master");
  }
  return *found;
}

const Array& contracts_of(const Value& payload) {
  const Value& v = payload.get("contracts");
  if (!v.is_array()) refuse(kBadRequest, "contracts must be a list of contracts, got " + describe(v));
  return v.as_array();
}

Timestamp time_of_day(const Value& v, const char* which) {
  const std::string text = v.is_string() ? v.as_string() : std::string();
  auto digits = [&](std::size_t at) {
    return at + 1 < text.size() && std::isdigit(static_cast<unsigned char>(text[at])) &&
           std::isdigit(static_cast<unsigned char>(text[at + 1]));
  };
  auto two = [&](std::size_t at) { return (text[at] - '0') * 10 + (text[at + 1] - '0'); };
  const bool shape = (text.size() == 5 || text.size() >= 8) && digits(0) && text[2] == ':' && digits(3) &&
                     (text.size() == 5 || (text[5] == ':' && digits(6)));
  int micros = 0;
  bool fraction_ok = text.size() <= 8;
  if (shape && text.size() > 8 && text[8] == '.' && text.size() <= 15) {
    fraction_ok = text.size() > 9;
    std::string fraction = text.substr(9);
    for (char c : fraction) fraction_ok &= std::isdigit(static_cast<unsigned char>(c)) != 0;
    if (fraction_ok) micros = std::stoi((fraction + "000000").substr(0, 6));
  }
  if (!shape || !fraction_ok || two(0) > 23 || two(3) > 59 || (text.size() >= 8 && two(6) > 59)) {
    refuse(kBadRequest,
           std::string("time_range ") + which + " must be a time of day \"HH:MM:SS\", got " + describe(v));
  }
  const int seconds = two(0) * 3600 + two(3) * 60 + (text.size() >= 8 ? two(6) : 0);
  return seconds * kNanosPerSecond + static_cast<Timestamp>(micros) * 1000;
}

template <typename Row, typename Field>
Value column(const std::vector<Row>& rows, Field field) {
  Array out;
  out.reserve(rows.size());
  for (const Row& row : rows) out.emplace_back(field(row));
  return out;
}

Value ticks_reply(const MarketHistory& history, const Value& payload) {
  const Contract& contract = contract_of(history.model(), payload.get("contract"));
  const Date day = date_of(payload, "date");
  const Value& type = payload.get("query_type");
  const std::string query = type.is_string() ? type.as_string() : std::string();
  TickSelection selection;
  if (query == "AllDay") {
    selection.kind = TickSelection::Kind::AllDay;
  } else if (query == "RangeTime") {
    const Value& range = payload.get("time_range");
    if (!range.is_map()) {
      refuse(kBadRequest, "a RangeTime query needs time_range with start and end, got " + describe(range));
    }
    selection.kind = TickSelection::Kind::RangeTime;
    selection.from_time_of_day = time_of_day(range.get("start"), "start");
    selection.to_time_of_day = time_of_day(range.get("end"), "end");
  } else if (query == "LastCount") {
    const Value& last = payload.get("last_cnt");
    if (!last.is_int() || last.as_int() <= 0) {
      refuse(kBadRequest, "a LastCount query needs last_cnt above zero, got " + describe(last));
    }
    selection.kind = TickSelection::Kind::LastCount;
    selection.last = static_cast<std::size_t>(last.as_int());
  } else {
    refuse(kBadRequest, "query_type must be AllDay, RangeTime or LastCount, got " + describe(type));
  }
  const std::vector<TickRow> rows = history.ticks(contract, day, selection);
  Map response;
  response.append_new("ts", column(rows, [](const TickRow& r) { return taipei_wall_nanos(r.ts); }));
  response.append_new("close", column(rows, [](const TickRow& r) { return r.close.to_double(); }));
  response.append_new("volume", column(rows, [](const TickRow& r) { return r.volume; }));
  response.append_new("bid_price", column(rows, [](const TickRow& r) { return r.bid_price.to_double(); }));
  response.append_new("bid_volume", column(rows, [](const TickRow& r) { return r.bid_volume; }));
  response.append_new("ask_price", column(rows, [](const TickRow& r) { return r.ask_price.to_double(); }));
  response.append_new("ask_volume", column(rows, [](const TickRow& r) { return r.ask_volume; }));
  response.append_new("tick_type",
                      column(rows, [](const TickRow& r) { return static_cast<int>(r.tick_type); }));
  return ok(std::move(response));
}

constexpr std::int64_t kMaxKbarDays = 366;

Value kbars_reply(const MarketHistory& history, const Value& payload) {
  const Contract& contract = contract_of(history.model(), payload.get("contract"));
  const Date start = date_of(payload, "start");
  const Date end = date_of(payload, "end");
  if (end < start) refuse(kBadRequest, "end " + end.to_string() + " is before start " + start.to_string());
  if (end.serial() - start.serial() >= kMaxKbarDays) {
    refuse(kBadRequest, "kbars cover at most " + std::to_string(kMaxKbarDays) +
                            " days at a time; asked for " + start.to_string() + " to " + end.to_string());
  }
  const std::vector<MinuteBar> bars = history.kbars(contract, start, end);
  Map response;
  response.append_new("ts", column(bars, [](const MinuteBar& b) { return taipei_wall_nanos(b.ts); }));
  response.append_new("Open", column(bars, [](const MinuteBar& b) { return b.open.to_double(); }));
  response.append_new("High", column(bars, [](const MinuteBar& b) { return b.high.to_double(); }));
  response.append_new("Low", column(bars, [](const MinuteBar& b) { return b.low.to_double(); }));
  response.append_new("Close", column(bars, [](const MinuteBar& b) { return b.close.to_double(); }));
  response.append_new("Volume", column(bars, [](const MinuteBar& b) { return b.volume; }));
  response.append_new("Amount", column(bars, [](const MinuteBar& b) { return to_dollars(b.amount); }));
  return ok(std::move(response));
}

Value daily_quotes_reply(const MarketHistory& history, const Value& payload) {
  const Date day = date_of(payload, "date");
  const std::vector<DailyQuote> rows = history.daily_quotes(day, flag_of(payload, "exclude"));
  Map response;
  response.append_new("Date", column(rows, [](const DailyQuote& q) { return q.date.to_string(); }));
  response.append_new("Code", column(rows, [](const DailyQuote& q) { return q.contract->code; }));
  response.append_new("Open", column(rows, [](const DailyQuote& q) { return q.open.to_double(); }));
  response.append_new("High", column(rows, [](const DailyQuote& q) { return q.high.to_double(); }));
  response.append_new("Low", column(rows, [](const DailyQuote& q) { return q.low.to_double(); }));
  response.append_new("Close", column(rows, [](const DailyQuote& q) { return q.close.to_double(); }));
  response.append_new("Volume", column(rows, [](const DailyQuote& q) { return q.volume; }));
  response.append_new("Transaction", column(rows, [](const DailyQuote& q) { return q.transactions; }));
  response.append_new("Amount", column(rows, [](const DailyQuote& q) { return to_dollars(q.amount); }));
  return ok(std::move(response));
}

double volume_ratio(const ContractSnapshot& s) {
  if (s.yesterday_volume <= 0) return 0.0;
  const double ratio = static_cast<double>(s.state.total_volume) / static_cast<double>(s.yesterday_volume);
  return std::round(ratio * 100.0) / 100.0;
}

// The fields a snapshot and a scanner row share.
void market_fields(Map& m, const ContractSnapshot& s) {
  const QuoteState& q = s.state;
  m.append_new("ts", taipei_wall_nanos(s.ts));
  m.append_new("open", q.open.to_double());
  m.append_new("high", q.high.to_double());
  m.append_new("low", q.low.to_double());
  m.append_new("close", q.last_price().to_double());
  m.append_new("tick_type", tick_type_text(q.tick_type));
  m.append_new("change_price", q.price_change());
  m.append_new("change_type", change_type_text(q.change_type()));
  m.append_new("average_price", q.average_price());
  m.append_new("volume", q.volume);
  m.append_new("total_volume", q.total_volume);
  m.append_new("amount", to_dollars(q.amount));
  m.append_new("total_amount", to_dollars(q.total_amount));
  m.append_new("yesterday_volume", static_cast<double>(s.yesterday_volume));
  m.append_new("volume_ratio", volume_ratio(s));
  m.append_new("buy_price", s.book.bids[0].price.to_double());
  m.append_new("buy_volume", static_cast<double>(s.book.bids[0].volume));
  m.append_new("sell_price", s.book.asks[0].price.to_double());
  m.append_new("sell_volume", static_cast<double>(s.book.asks[0].volume));
}

Value snapshots_reply(const MarketHistory& history, const Value& payload) {
  Array snapshots;
  for (const Value& item : contracts_of(payload)) {
    const Contract& contract = contract_of(history.model(), item);
    const ContractSnapshot s = history.snapshot(contract);
    Map m;
    m.append_new("code", contract.code);
    m.append_new("exchange", std::string(to_text(contract.exchange)));
    market_fields(m, s);
    m.append_new("change_rate", s.state.percent_change());
    snapshots.emplace_back(std::move(m));
  }
  return ok(Value::map({{"snapshot", std::move(snapshots)}}));
}

constexpr std::pair<std::string_view, ScannerKind> kScanners[] = {
    {"ChangePercentRank", ScannerKind::ChangePercent},
    {"ChangePriceRank", ScannerKind::ChangePrice},
    {"DayRangeRank", ScannerKind::DayRange},
    {"VolumeRank", ScannerKind::Volume},
    {"AmountRank", ScannerKind::Amount},
    {"TickCountRank", ScannerKind::TickCount}};
constexpr std::int64_t kMaxScannerCount = 200;

Value scanner_reply(const MarketHistory& history, const Value& payload) {
  const Value& type = payload.get("scanner_type");
  std::optional<ScannerKind> kind;
  for (const auto& [name, k] : kScanners) {
    if (type.is_string() && type.as_string() == name) kind = k;
  }
  if (!kind) {
    refuse(kBadRequest,
           "scanner_type must be one of ChangePercentRank, ChangePriceRank, DayRangeRank, VolumeRank, "
           "AmountRank, TickCountRank; got " +
               describe(type));
  }
  const Value& ascending = payload.get("ascending");
  if (!ascending.is_bool())
    refuse(kBadRequest, "ascending must be true or false, got " + describe(ascending));
  const Value& count = payload.get("count");
  if (!count.is_int() || count.as_int() < 1 || count.as_int() > kMaxScannerCount) {
    refuse(kBadRequest, "count must be a whole number from 1 to 200, got " + describe(count));
  }
  const Date day = date_of(payload, "date");
  const std::vector<ScannerRow> rows =
      history.scan(*kind, ascending.as_bool(), day, static_cast<std::size_t>(count.as_int()));
  Array out;
  for (const ScannerRow& row : rows) {
    const ContractSnapshot& s = row.snapshot;
    const QuoteState& q = s.state;
    Map m;
    m.append_new("date", day.to_string());
    m.append_new("code", s.contract->code);
    m.append_new("name", s.contract->name);
    market_fields(m, s);
    m.append_new("price_range", static_cast<double>(q.high.units() - q.low.units()) / Price::kScale);
    m.append_new("bid_orders", q.bid_side_total_cnt);
    m.append_new("bid_volumes", q.bid_side_total_vol);
    m.append_new("ask_orders", q.ask_side_total_cnt);
    m.append_new("ask_volumes", q.ask_side_total_vol);
    m.append_new("rank_value", row.rank_value);
    out.emplace_back(std::move(m));
  }
  return ok(Value::map({{"scanners", std::move(out)}}));
}

const Contract& stock_of(const MarketModel& model, const Value& item, const char* what) {
  const Contract& contract = contract_of(model, item);
  if (contract.security_type != SecurityType::Stock) {
    refuse(kBadRequest, std::string(what) + " are kept for stocks only; " + contract.code +
                            " is of security type " + std::string(to_text(contract.security_type)));
  }
  return contract;
}

Value credit_reply(const MarketHistory& history, const Value& payload) {
  const std::string update_time = taipei_text(history.now());
  Array out;
  for (const Value& item : contracts_of(payload)) {
    const Contract& c = stock_of(history.model(), item, "credit figures");
    out.emplace_back(Value::map({{"update_time", update_time},
                                 {"system", "PAPER"},
                                 {"stock_id", c.code},
                                 {"margin_unit", c.margin_trading_balance},
                                 {"short_unit", c.short_selling_balance}}));
  }
  return ok(Value::map({{"credit_enquire", std::move(out)}}));
}

Value short_sources_reply(const MarketHistory& history, const Value& payload, bool paper_session) {
  if (paper_session) {
    refuse(kForbidden,
           "short-stock sources are not served to simulation sessions; log in with a live account");
  }
  const Timestamp ts = taipei_wall_nanos(history.now());
  Array out;
  for (const Value& item : contracts_of(payload)) {
    const Contract& c = stock_of(history.model(), item, "short-stock sources");
    out.emplace_back(
        Value::map({{"code", c.code}, {"short_stock_source", c.short_selling_balance * c.unit}, {"ts", ts}}));
  }
  return ok(Value::map({{"short_stock_sources", std::move(out)}}));
}

}  // namespace

PaperMarketData::PaperMarketData(const ContractMaster& contracts, const core::Clock& clock,
                                 RestingDepth depth, MarketDataOptions options)
    : model_(contracts, options.seed),
      history_(model_, clock, ledger_, depth),
      feed_(model_, clock, ledger_, std::move(depth), options.feed) {}

PaperMarketData::~PaperMarketData() { feed_.stop(); }

void PaperMarketData::on_order_event(const OrderEvent& event) {
  if (event.synthetic) return;
  if (const std::optional<OwnTrade> trade = TradeLedger::from_event(event)) ledger_.record(*trade);
  feed_.book_changed(event.code, event.board);
}

void PaperMarketData::record_trade(const OwnTrade& trade) {
  if (ledger_.record(trade)) feed_.book_changed(trade.code, trade.board);
}

Value PaperMarketData::answer(std::string_view service, const Value& payload, bool paper_session) const {
  try {
    if (!payload.is_map())
      refuse(kBadRequest, "the request must be a map of fields, got " + describe(payload));
    if (service == "ticks") return ticks_reply(history_, payload);
    if (service == "kbars") return kbars_reply(history_, payload);
    if (service == "daily_quotes") return daily_quotes_reply(history_, payload);
    if (service == "snapshots") return snapshots_reply(history_, payload);
    if (service == "scanner") return scanner_reply(history_, payload);
    if (service == "credit_enquire") return credit_reply(history_, payload);
    if (service == "short_stock_sources") return short_sources_reply(history_, payload, paper_session);
    refuse(kNotFound, "no market-data service named \"" + std::string(service) + "\"");
  } catch (const RequestRefused& r) {
    return refused(r.status, r.what());
  } catch (const core::ValueError& e) {
    return refused(kBadRequest, e.what());
  }
}

}  // namespace quorvex::paper
