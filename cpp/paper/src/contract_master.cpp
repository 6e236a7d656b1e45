#include "quorvex/paper/contract_master.hpp"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "seeded_random.hpp"

namespace quorvex::paper {
namespace {

constexpr Money kTwd = kCentsPerDollar;

struct DemoStock {
  const char* code;
  const char* name;
  const char* category;
  const char* reference;
  bool etf;
};

// Stable references across every ladder band, so tests can rely on them.
constexpr DemoStock kDemoStocks[] = {
    {"2330", "Island Foundry", "24", "1000", false},
    {"2317", "Harbor Precision", "31", "180.5", false},
    {"2454", "Summit Chip Design", "24", "1250", false},
    {"2412", "Unity Telecom", "27", "120.5", false},
    {"2603", "Pearl Marine", "15", "48.35", false},
    {"2881", "Crown Financial", "17", "88.6", false},
    {"1101", "Jade Cement", "01", "32.85", false},
    {"2888", "Maple Financial", "17", "8.76", false},
    {"0050", "Taiwan Top 50 ETF", "00", "195.35", true},
    {"0056", "Taiwan High Dividend ETF", "00", "36.12", true},
    {"00878", "Taiwan Sustainable Dividend ETF", "00", "21.45", true},
};

struct IndexListing {
  const char* code;
  Exchange exchange;
  const char* name;
  const char* reference;
};
constexpr IndexListing kIndices[] = {
    {"001", Exchange::TSE, "Weighted Index", "23000"},
    {"027", Exchange::TSE, "Electronics Index", "1150.25"},
    {"099", Exchange::TSE, "Top 50 Index", "17500.5"},
    {"101", Exchange::OTC, "OTC Index", "255.8"},
};

constexpr const char* kNameStems[] = {"Jade",  "Lotus", "Harbor", "Summit", "Pearl", "Crown",  "Orchid",
                                      "Maple", "Cedar", "Willow", "Coral",  "Amber", "Silver", "Azure",
                                      "North", "East",  "Grand",  "Union",  "Prime", "Sunrise"};

struct Industry {
  const char* category;
  const char* word;
};

// Taiwan industry categories follow the leading digits of the stock code.
Industry industry_for(int code) {
  const int lead = code / 100;
  switch (lead) {
    case 11: return {"01", "Cement"};
    case 12: return {"02", "Foods"};
    case 13: return {"03", "Plastics"};
    case 14: return {"04", "Textile"};
    case 15: return {"05", "Electric"};
    case 16: return {"06", "Cable"};
    case 17: return {"21", "Chemical"};
    case 18: return {"08", "Glass"};
    case 19: return {"09", "Paper"};
    case 20: return {"10", "Steel"};
    case 21: return {"11", "Rubber"};
    case 22: return {"12", "Motor"};
    case 25: return {"14", "Construction"};
    case 26: return {"15", "Marine"};
    case 27: return {"16", "Tourism"};
    case 28: return {"17", "Financial"};
    case 29: return {"18", "Trading"};
    default: break;
  }
  if (lead / 10 == 4) return {"22", "Biotech"};
  if (lead / 10 == 9) return {"20", "Industries"};
  static constexpr Industry kElectronics[] = {{"24", "Semiconductor"}, {"25", "Computer"},
                                              {"26", "Optronics"},     {"27", "Telecom"},
                                              {"28", "Components"},    {"31", "Electronics"}};
  return kElectronics[code % 6];
}

// Codes in 3xxx-8xxx lean towards the OTC market.
Exchange exchange_for(int code, SeededRandom& rng) {
  static constexpr int kOtcPercent[] = {0, 10, 10, 50, 60, 70, 55, 0, 65, 30};
  if (!rng.chance(kOtcPercent[code / 1000])) return Exchange::TSE;
  return rng.chance(3) ? Exchange::OES : Exchange::OTC;
}

std::string pad_code(int code, int width) {
  std::string text = std::to_string(code);
  return std::string(static_cast<std::size_t>(std::max(0, width - static_cast<int>(text.size()))), '0') +
         text;
}

Price ladder_price(TickLadder ladder, double value) {
  const Price p = round_down_to_ladder(ladder, Price::from_double(value));
  const Price smallest = tick_size(ladder, Price::from_units(1));
  return p < smallest ? smallest : p;
}

void set_limits(Contract& c) {
  const PriceLimits limits = price_limits(c.ladder, c.reference);
  c.limit_up = limits.limit_up;
  c.limit_down = limits.limit_down;
}

Contract make_stock(std::string code, Exchange exchange, std::string name, std::string category,
                    TickLadder ladder, Price reference, const Date& day, SeededRandom& rng) {
  Contract c;
  c.security_type = SecurityType::Stock;
  c.exchange = exchange;
  c.symbol = std::string(to_text(exchange)) + code;
  c.code = std::move(code);
  c.name = std::move(name);
  c.category = std::move(category);
  c.ladder = ladder;
  c.reference = reference;
  c.update_date = day;
  c.unit = 1000;
  c.multiplier = 1;
  const int day_trade_roll = static_cast<int>(rng.below(100));
  c.day_trade = day_trade_roll < 85 ? DayTrade::Yes : day_trade_roll < 95 ? DayTrade::OnlyBuy : DayTrade::No;
  c.margin_trading = exchange != Exchange::OES && rng.chance(80);
  c.short_selling = c.margin_trading && rng.chance(85);
  c.margin_trading_balance = c.margin_trading ? rng.between(500, 20000) : 0;
  c.short_selling_balance = c.short_selling ? rng.between(100, 5000) : 0;
  set_limits(c);
  return c;
}

struct Delivery {
  int year;
  int month;
  Date date;
};

std::vector<Delivery> deliveries(const Date& day, int consecutive, int quarterly) {
  int y = day.year, m = day.month;
  if (day > third_wednesday(y, m)) {
    if (++m > 12) m = 1, ++y;
  }
  std::vector<Delivery> out;
  auto push_and_advance = [&] {
    out.push_back({y, m, third_wednesday(y, m)});
    if (++m > 12) m = 1, ++y;
  };
  for (int i = 0; i < consecutive; ++i) push_and_advance();
  while (quarterly > 0) {
    if (m % 3 == 0) {
      push_and_advance();
      --quarterly;
    } else if (++m > 12) {
      m = 1, ++y;
    }
  }
  return out;
}

char month_letter(int month, bool put) { return static_cast<char>((put ? 'M' : 'A') + month - 1); }
char year_digit(int year) { return static_cast<char>('0' + year % 10); }
std::string two_digit_month(int month) { return pad_code(month, 2); }

Contract make_future(const std::string& product, const std::string& product_name, const Delivery& d,
                     const Contract& underlying, TickLadder ladder, std::int64_t multiplier,
                     const Date& day) {
  Contract c;
  c.security_type = SecurityType::Future;
  c.exchange = Exchange::TAIFEX;
  c.code = product + month_letter(d.month, false) + year_digit(d.year);
  c.symbol = product + d.date.year_month();
  c.name = product_name + " " + two_digit_month(d.month);
  c.category = product;
  c.ladder = ladder;
  c.reference = round_down_to_ladder(ladder, underlying.reference);
  c.update_date = day;
  c.unit = 1;
  c.multiplier = multiplier;
  c.delivery_month = d.date.year_month();
  c.delivery_date = d.date;
  c.underlying_kind = underlying.security_type == SecurityType::Index ? "I" : "S";
  c.underlying_code = underlying.code;
  set_limits(c);
  return c;
}

// Intrinsic value plus a time value that fades away from the money: plausible premiums
// on the option ladder, not a pricing model.
Price option_premium(double index, double strike, OptionRight right, double years) {
  const double intrinsic = std::max(0.0, right == OptionRight::Call ? index - strike : strike - index);
  const double spread = std::max(index * 0.2 * std::sqrt(std::max(years, 1.0 / 365)), 1.0);
  const double distance = std::abs(strike - index) / spread;
  return ladder_price(TickLadder::Option, intrinsic + 0.4 * spread * std::exp(-0.5 * distance * distance));
}

Contract make_option(const Delivery& d, int strike, OptionRight right, const Contract& index,
                     const Date& day) {
  const bool put = right == OptionRight::Put;
  Contract c;
  c.security_type = SecurityType::Option;
  c.exchange = Exchange::TAIFEX;
  c.code = "TXO" + std::to_string(strike) + month_letter(d.month, put) + year_digit(d.year);
  c.symbol = "TXO" + d.date.year_month() + std::to_string(strike) + (put ? "P" : "C");
  c.name = "Index Options " + d.date.year_month() + " " + std::to_string(strike) + (put ? " Put" : " Call");
  c.category = "TXO";
  c.ladder = TickLadder::Option;
  const double years = static_cast<double>(d.date.serial() - day.serial()) / 365.0;
  c.reference = option_premium(index.reference.to_double(), strike, right, years);
  const PriceLimits limits = option_price_limits(c.reference, index.reference);
  c.limit_up = limits.limit_up;
  c.limit_down = limits.limit_down;
  c.update_date = day;
  c.unit = 1;
  c.multiplier = 50;
  c.delivery_month = d.date.year_month();
  c.delivery_date = d.date;
  c.underlying_kind = "I";
  c.underlying_code = index.code;
  c.strike_price = Price::from_whole(strike);
  c.option_right = right;
  c.initial_margin = 45000 * kTwd;
  c.maintenance_margin = 35000 * kTwd;
  return c;
}

constexpr int kStrikeStep = 50;
constexpr int kMaxStrikesPerSide = 300;
constexpr int kStockFutureProducts = 16 * 26;

std::string stock_future_product(std::size_t i) {
  static constexpr char kFirst[] = "CDEFGHIJKLNOPQRS";
  return std::string{kFirst[i / 26 % 16], static_cast<char>('A' + i % 26), 'F'};
}

}  // namespace

ContractMaster::ContractMaster(const ContractMasterConfig& config) : trading_day_(config.trading_day) {
  SeededRandom rng(config.seed);
  const Date& day = trading_day_;
  const std::size_t size = config.size;

  auto& indices = by_type_[static_cast<int>(SecurityType::Index)];
  for (const IndexListing& listing : kIndices) {
    Contract c;
    c.security_type = SecurityType::Index;
    c.exchange = listing.exchange;
    c.code = listing.code;
    c.symbol = std::string(to_text(listing.exchange)) + listing.code;
    c.name = listing.name;
    c.category = "IND";
    c.ladder = TickLadder::IndexFuture;
    c.reference = *Price::parse(listing.reference);
    c.update_date = day;
    c.unit = 1;
    indices.push_back(std::move(c));
  }
  const Contract weighted = indices.front();

  // Stocks: the demo set, then seeded picks from the code ranges in use.
  auto& stocks = by_type_[static_cast<int>(SecurityType::Stock)];
  for (const DemoStock& demo : kDemoStocks) {
    stocks.push_back(make_stock(demo.code, Exchange::TSE, demo.name, demo.category,
                                demo.etf ? TickLadder::Etf : TickLadder::Stock, *Price::parse(demo.reference),
                                day, rng));
  }
  for (Contract& c : stocks) {  // the demo set always allows every kind of trade
    c.day_trade = DayTrade::Yes;
    c.margin_trading = c.short_selling = true;
    c.margin_trading_balance = 20000;
    c.short_selling_balance = 5000;
  }
  std::vector<std::string> candidates;
  for (int code = 50; code <= 99; ++code) candidates.push_back(pad_code(code, 4));
  for (int code = 600; code <= 999; ++code) candidates.push_back(pad_code(code, 5));
  for (int code = 1101; code <= 9958; ++code) {
    if (code / 1000 != 7) candidates.push_back(std::to_string(code));
  }
  candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                  [](const std::string& code) {
                                    return std::find(std::begin(kDemoStockCodes), std::end(kDemoStockCodes),
                                                     code) != std::end(kDemoStockCodes);
                                  }),
                   candidates.end());
  const std::size_t wanted_stocks = std::min(candidates.size(), size * 35 / 100);
  for (std::size_t i = 0; i < wanted_stocks; ++i) {  // partial Fisher-Yates: a seeded choice of codes
    std::swap(candidates[i], candidates[i + rng.below(candidates.size() - i)]);
    const std::string& code = candidates[i];
    const bool etf = code[0] == '0';
    const TickLadder ladder = etf ? TickLadder::Etf : TickLadder::Stock;
    const double reference = etf ? 15.0 * std::exp(rng.unit() * std::log(200.0 / 15.0))
                                 : 8.0 * std::exp(rng.unit() * std::log(1200.0 / 8.0));
    const char* stem = kNameStems[rng.below(std::size(kNameStems))];
    if (etf) {
      stocks.push_back(make_stock(code, Exchange::TSE, std::string("Taiwan ") + stem + " ETF", "00", ladder,
                                  ladder_price(ladder, reference), day, rng));
    } else {
      const int number = std::stoi(code);
      const Industry industry = industry_for(number);
      stocks.push_back(make_stock(code, exchange_for(number, rng), std::string(stem) + " " + industry.word,
                                  industry.category, ladder, ladder_price(ladder, reference), day, rng));
    }
  }

  // Futures: index futures on five deliveries, stock futures on two for the margin stocks.
  auto& futures = by_type_[static_cast<int>(SecurityType::Future)];
  for (const Delivery& d : deliveries(day, 3, 2)) {
    Contract txf = make_future("TXF", "Index Futures", d, weighted, TickLadder::IndexFuture, 200, day);
    txf.initial_margin = 184000 * kTwd;
    txf.maintenance_margin = 141000 * kTwd;
    futures.push_back(std::move(txf));
    Contract mxf = make_future("MXF", "Mini Index Futures", d, weighted, TickLadder::IndexFuture, 50, day);
    mxf.initial_margin = 46000 * kTwd;
    mxf.maintenance_margin = 35250 * kTwd;
    futures.push_back(std::move(mxf));
  }
  const std::vector<Delivery> stock_deliveries = deliveries(day, 2, 0);
  const std::size_t wanted_stock_futures = std::min<std::size_t>(kStockFutureProducts, size * 10 / 100 / 2);
  std::size_t products = 0;
  for (const Contract& stock : stocks) {
    if (products >= std::max<std::size_t>(wanted_stock_futures, 3)) break;
    if (stock.is_etf() || !stock.margin_trading) continue;
    const std::string product = stock_future_product(products++);
    for (const Delivery& d : stock_deliveries) {
      Contract c = make_future(product, stock.name + " Futures", d, stock, TickLadder::Stock, 2000, day);
      const Money value = trade_value(c.reference, 1, c.multiplier);
      c.initial_margin = value * 135 / 1000 / kTwd * kTwd;
      c.maintenance_margin = value * 1035 / 10000 / kTwd * kTwd;
      futures.push_back(std::move(c));
    }
  }

  // Index options: both rights around the index; larger sizes widen the strikes, then
  // stretch the series over more deliveries.
  const std::size_t taken = indices.size() + stocks.size() + futures.size();
  const std::size_t wanted_options = size > taken ? size - taken : 0;
  std::size_t months = 5;
  const int index_points = static_cast<int>(weighted.reference.units() / Price::kScale);
  const int max_side = std::min(kMaxStrikesPerSide, index_points / kStrikeStep - 1);
  int side = static_cast<int>((wanted_options / (2 * months) + 1) / 2);
  side = std::max(1, side);
  if (side > max_side) {
    side = max_side;
    const std::size_t per_month = 2 * (2 * static_cast<std::size_t>(side) + 1);
    months = std::max<std::size_t>(months, (wanted_options + per_month - 1) / per_month);
  }
  const int at_the_money = index_points / kStrikeStep * kStrikeStep;
  auto& options = by_type_[static_cast<int>(SecurityType::Option)];
  for (const Delivery& d : deliveries(day, static_cast<int>(months) - 2, 2)) {
    for (int k = -side; k <= side; ++k) {
      const int strike = at_the_money + k * kStrikeStep;
      options.push_back(make_option(d, strike, OptionRight::Call, weighted, day));
      options.push_back(make_option(d, strike, OptionRight::Put, weighted, day));
    }
  }

  for (auto& list : by_type_) {
    std::sort(list.begin(), list.end(), [](const Contract& a, const Contract& b) { return a.code < b.code; });
  }
  index_contracts();
}

void ContractMaster::index_contracts() {
  lookup_.clear();
  lookup_.reserve(size() * 2);
  for (SecurityType type : kSecurityTypes) {
    const auto& list = by_type_[static_cast<int>(type)];
    for (std::uint32_t i = 0; i < list.size(); ++i) {
      lookup_.emplace(list[i].code, Location{type, i});
      lookup_.emplace(list[i].symbol, Location{type, i});
    }
  }
}

const Contract* ContractMaster::find(std::string_view code_or_symbol) const {
  const auto it = lookup_.find(code_or_symbol);
  if (it == lookup_.end()) return nullptr;
  return &by_type_[static_cast<int>(it->second.type)][it->second.index];
}

const std::vector<Contract>& ContractMaster::contracts(SecurityType type) const {
  return by_type_[static_cast<int>(type)];
}

std::size_t ContractMaster::size() const {
  std::size_t n = 0;
  for (const auto& list : by_type_) n += list.size();
  return n;
}

Result<ContractPage> ContractMaster::page(SecurityType type, int page, int page_size) const {
  if (page_size < 1 || page_size > kMaxPageSize) {
    return refuse(RefusalCode::InvalidPageSize, "page_size " + std::to_string(page_size) +
                                                    " is out of range; expected 1 to " +
                                                    std::to_string(kMaxPageSize));
  }
  const auto& list = contracts(type);
  const auto size = static_cast<std::size_t>(page_size);
  const int max_page = static_cast<int>((list.size() + size - 1) / size);
  if (page < 0 || page > max_page) {
    return refuse(RefusalCode::PageOutOfRange,
                  "page " + std::to_string(page) + " of " + std::string(to_text(type)) +
                      " is out of range; expected 0 (probe) to " + std::to_string(max_page));
  }
  ContractPage out;
  out.security_type = type;
  out.page = page;
  out.max_page = max_page;
  if (page > 0) {
    const std::size_t from = static_cast<std::size_t>(page - 1) * size;
    out.first = list.data() + from;
    out.count = std::min(size, list.size() - from);
  }
  return out;
}

const Contract* ContractMaster::front_month(std::string_view product) const {
  const Contract* best = nullptr;
  for (const Contract& c : contracts(SecurityType::Future)) {
    if (c.category == product && (best == nullptr || c.delivery_date < best->delivery_date)) best = &c;
  }
  return best;
}

}  // namespace quorvex::paper
