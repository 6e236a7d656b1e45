#include <gtest/gtest.h>

#include <map>
#include <random>

#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/futures_account.hpp"

namespace quorvex::paper {
namespace {

constexpr Money kTwd = kCentsPerDollar;
const Date kMonday{2026, 1, 5};

Timestamp at(Date day) { return taipei_instant(day, 10 * 3600); }

MarkPrice marks(std::map<std::string, Price> prices) {
  return [prices = std::move(prices)](std::string_view code) -> std::optional<Price> {
    const auto it = prices.find(std::string(code));
    if (it == prices.end()) return std::nullopt;
    return it->second;
  };
}

class FuturesAccountTest : public ::testing::Test {
 protected:
  FuturesAccountTest() : master_({1, 200, kMonday}), book_("F0000001", 1'000'000 * kTwd, kMonday) {}

  Result<FuturesFillOutcome> fill(const Contract& c, Side side, const char* price, Quantity qty,
                                  Date day = kMonday, FuturesOCType octype = FuturesOCType::Auto) {
    FuturesFill f;
    f.order_id = f.deal_id = ++last_id_;
    f.side = side;
    f.octype = octype;
    f.price = *Price::parse(price);
    f.quantity = qty;
    f.ts = at(day);
    return book_.apply_fill(c, f);
  }

  ContractMaster master_;
  FuturesAccountBook book_;
  OrderId last_id_ = 0;
};

TEST_F(FuturesAccountTest, IndexFuturesRoundTripAndMarginSheet) {
  const Contract& txf = *master_.front_month("TXF");
  ASSERT_TRUE(fill(txf, Side::Buy, "23000", 2).ok());
  const auto close = fill(txf, Side::Sell, "23100", 1);
  ASSERT_TRUE(close.ok());
  EXPECT_EQ(close->realised, 20'000 * kTwd);
  ASSERT_TRUE(close->profit_loss_id.has_value());

  const MarginSheet m = book_.margin(marks({{txf.code, Price::from_whole(23050)}}), kMonday);
  EXPECT_EQ(m.fee, 180 * kTwd);
  EXPECT_EQ(m.tax, (184 + 92) * kTwd);
  EXPECT_EQ(m.future_settle_profitloss, 20'000 * kTwd);
  EXPECT_EQ(m.today_balance, (1'000'000 + 20'000 - 180 - 276) * kTwd);
  EXPECT_EQ(m.future_open_position, 10'000 * kTwd);
  EXPECT_EQ(m.today_future_open_position, 10'000 * kTwd);
  EXPECT_EQ(m.equity, m.today_balance + m.future_open_position);
  EXPECT_EQ(m.equity_amount, m.equity);
  EXPECT_EQ(m.initial_margin, 184'000 * kTwd);
  EXPECT_EQ(m.maintenance_margin, 141'000 * kTwd);
  EXPECT_EQ(m.available_margin, m.equity_amount - m.initial_margin);
  EXPECT_EQ(m.margin_call, 0);
  EXPECT_NEAR(m.risk_indicator,
              static_cast<double>(m.equity_amount) * 100 / static_cast<double>(m.initial_margin), 1e-9);

  const auto rows = book_.profit_loss(kMonday, kMonday);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].direction, Side::Buy);
  EXPECT_EQ(rows[0].fee, 120 * kTwd);  // half the entry fee and the cover fee
  EXPECT_EQ(rows[0].tax, (92 + 92) * kTwd);
  EXPECT_EQ(rows[0].pnl, (20'000 - 120 - 184) * kTwd);
  const auto details = book_.profit_loss_detail(rows[0].id).value();
  ASSERT_EQ(details.size(), 1u);
  EXPECT_EQ(details[0].trade_type, "DayTrade");

  const auto positions = book_.positions(nullptr);
  ASSERT_EQ(positions.size(), 1u);
  EXPECT_EQ(positions[0].quantity, 1);
  EXPECT_EQ(positions[0].pnl, 0);  // valued at its own price without a mark
}

TEST_F(FuturesAccountTest, TheNextDayStartsFromTodaysBalance) {
  const Contract& txf = *master_.front_month("TXF");
  fill(txf, Side::Sell, "23000", 1);
  const Money monday = book_.margin(nullptr, kMonday).today_balance;
  const MarginSheet tuesday = book_.margin(nullptr, kMonday.plus_days(1));
  EXPECT_EQ(tuesday.yesterday_balance, monday);
  EXPECT_EQ(tuesday.fee, 0);
  EXPECT_EQ(tuesday.today_balance, monday);
  EXPECT_EQ(tuesday.today_future_open_position, 0);
}

TEST_F(FuturesAccountTest, OptionPremiumsAndShortOptionMargin) {
  const Contract& call = *master_.find("TXO23000A6");
  ASSERT_TRUE(fill(call, Side::Buy, "150", 2).ok());
  ASSERT_TRUE(fill(call, Side::Sell, "160", 3).ok());  // closes 2, sells 1 short
  const auto index_at = [&](const char* index, const char* premium) {
    return marks({{call.code, *Price::parse(premium)}, {"001", *Price::parse(index)}});
  };
  const MarginSheet m = book_.margin(index_at("22900", "120"), kMonday);
  EXPECT_EQ(m.royalty_revenue_expenditure, (-15'000 + 24'000) * kTwd);
  EXPECT_EQ(m.option_settle_profitloss, 1'000 * kTwd);
  EXPECT_EQ(m.option_opensell_market_value, 6'000 * kTwd);
  EXPECT_EQ(m.option_open_position, 2'000 * kTwd);  // sold at 160, marked at 120
  EXPECT_EQ(m.equity_amount, m.equity - m.option_opensell_market_value);
  // Premium 6,000 plus the larger of A (45,000) less 100 points out of the money (5,000) and A / 2.
  EXPECT_EQ(m.initial_margin, (6'000 + 40'000) * kTwd);
  EXPECT_EQ(book_.margin(index_at("21000", "120"), kMonday).initial_margin, (6'000 + 22'500) * kTwd);
}

TEST_F(FuturesAccountTest, CoverNeedsSomethingToOffset) {
  const Contract& mxf = *master_.front_month("MXF");
  const auto r = fill(mxf, Side::Sell, "23000", 1, kMonday, FuturesOCType::Cover);
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.refusal().code, RefusalCode::InsufficientHoldings);
  EXPECT_EQ(book_.margin(nullptr, kMonday).fee, 0);
  EXPECT_EQ(
      book_.reserve_for_order(1, mxf, Side::Sell, FuturesOCType::Cover, mxf.reference, 1, nullptr, kMonday)
          ->code,
      RefusalCode::InsufficientHoldings);
}

TEST_F(FuturesAccountTest, OrdersHoldMarginUntilReleased) {
  const Contract& txf = *master_.front_month("TXF");
  ASSERT_FALSE(
      book_.reserve_for_order(1, txf, Side::Buy, FuturesOCType::Auto, txf.reference, 5, nullptr, kMonday));
  EXPECT_EQ(book_.margin(nullptr, kMonday).order_margin_premium, 5 * 184'000 * kTwd);
  const Outcome more =
      book_.reserve_for_order(2, txf, Side::Buy, FuturesOCType::Auto, txf.reference, 1, nullptr, kMonday);
  ASSERT_TRUE(more.has_value());
  EXPECT_EQ(more->code, RefusalCode::InsufficientFunds);
  book_.release_order(1);
  EXPECT_EQ(book_.margin(nullptr, kMonday).order_margin_premium, 0);
  EXPECT_EQ(book_.withdraw(2'000'000 * kTwd, nullptr, kMonday)->code, RefusalCode::InsufficientFunds);
  EXPECT_EQ(book_.deposit(0, kMonday)->code, RefusalCode::InvalidAmount);
  ASSERT_FALSE(book_.deposit(500'000 * kTwd, kMonday));
  ASSERT_FALSE(book_.withdraw(200'000 * kTwd, nullptr, kMonday));
  EXPECT_EQ(book_.margin(nullptr, kMonday).deposit_withdrawal, 300'000 * kTwd);
}

// Over seeded random fills in futures and options across several days, the balance equals the
// opening balance plus realised futures results and premiums less fees and taxes; positions net
// out exactly as the fills do; itemised profit and loss adds up.
TEST(FuturesAccountRandom, BalanceAndPositionsAgreeWithTheFills) {
  const ContractMaster master({1, 200, kMonday});
  const Contract* contracts[] = {master.front_month("TXF"), master.front_month("MXF"),
                                 master.find("TXO23000A6"), master.find("TXO23000M6")};
  for (std::uint32_t seed = 1; seed <= 40; ++seed) {
    std::mt19937 rng(seed);
    FuturesAccountBook book("F", 5'000'000 * kTwd, kMonday);
    std::map<std::string, Quantity> net;  // long minus short
    Money expected_balance = 5'000'000 * kTwd;
    Money realised_net = 0;
    Date day = kMonday;
    for (int i = 0; i < 200; ++i) {
      if (rng() % 20 == 0) day = day.plus_business_days(1);
      const Contract& c = *contracts[rng() % 4];
      FuturesFill f;
      f.order_id = f.deal_id = static_cast<OrderId>(i + 1);
      f.side = rng() % 2 ? Side::Buy : Side::Sell;
      f.price = step_up(c.ladder, c.reference, static_cast<std::int64_t>(rng() % 21) - 10);
      f.quantity = 1 + static_cast<Quantity>(rng() % 4);
      f.ts = at(day);
      const auto r = book.apply_fill(c, f);
      ASSERT_TRUE(r.ok()) << r.refusal().text;
      net[c.code] += f.side == Side::Buy ? f.quantity : -f.quantity;
      expected_balance += r->premium - r->fee - r->tax;
      if (c.security_type == SecurityType::Future) expected_balance += r->realised;
    }
    const MarginSheet m = book.margin(nullptr, day);
    EXPECT_EQ(m.today_balance, expected_balance) << "seed " << seed;
    EXPECT_EQ(m.future_open_position, 0);  // marked at their own prices
    for (const FuturePosition& p : book.positions(nullptr)) {
      EXPECT_EQ(p.direction == Side::Buy ? p.quantity : -p.quantity, net[p.code])
          << p.code << " seed " << seed;
      net.erase(p.code);
    }
    for (const auto& [code, left] : net) EXPECT_EQ(left, 0) << code << " seed " << seed;
    for (const FutureProfitLoss& row : book.profit_loss(kMonday, day)) {
      realised_net += row.pnl;
      Money detailed = 0;
      for (const FutureProfitDetail& d : book.profit_loss_detail(row.id).value()) detailed += d.pnl;
      EXPECT_EQ(detailed, row.pnl);
    }
    EXPECT_EQ(book.profit_loss_summary(kMonday, day).total.pnl, realised_net);
  }
}

// Over seeded sequences of order holds, fills against them and releases: every hold gives back
// exactly the margin and the offset it took. With the open orders released no margin is held for
// orders, and each open position can be covered in full again.
TEST(FuturesAccountRandom, HoldsGiveBackExactlyWhatTheyTook) {
  const ContractMaster master({1, 200, kMonday});
  const Contract* contracts[] = {master.front_month("TXF"), master.front_month("MXF")};
  struct Open {
    const Contract* contract;
    Side side;
    Quantity quantity;  // not yet filled
  };
  for (std::uint32_t seed = 1; seed <= 30; ++seed) {
    std::mt19937 rng(seed);
    FuturesAccountBook book("F", 50'000'000 * kTwd, kMonday);
    std::map<OrderId, Open> open;
    OrderId next = 0;
    DealId deal = 0;
    for (int i = 0; i < 300; ++i) {
      const unsigned step = rng() % 4;
      if (step < 2 || open.empty()) {
        const Contract& c = *contracts[rng() % 2];
        const Side side = rng() % 2 ? Side::Buy : Side::Sell;
        const Quantity quantity = 1 + static_cast<Quantity>(rng() % 3);
        const OrderId id = ++next;
        if (!book.reserve_for_order(id, c, side, FuturesOCType::Auto, c.reference, quantity, nullptr,
                                    kMonday)) {
          open[id] = {&c, side, quantity};
        }
        continue;
      }
      auto it = open.begin();
      std::advance(it, static_cast<long>(rng() % open.size()));
      Open& order = it->second;
      if (step == 2) {
        book.release_order(it->first);
        open.erase(it);
        continue;
      }
      FuturesFill f;
      f.order_id = it->first;
      f.deal_id = ++deal;
      f.side = order.side;
      f.price = order.contract->reference;
      f.quantity = 1 + static_cast<Quantity>(rng() % order.quantity);
      f.ts = at(kMonday);
      ASSERT_TRUE(book.apply_fill(*order.contract, f).ok()) << "seed " << seed;
      order.quantity -= f.quantity;
      if (order.quantity == 0) open.erase(it);
    }
    for (const auto& [id, order] : open) book.release_order(id);
    EXPECT_EQ(book.margin(nullptr, kMonday).order_margin_premium, 0) << "seed " << seed;
    for (const FuturePosition& p : book.positions(nullptr)) {
      const Contract& c = *master.find(p.code);
      EXPECT_FALSE(book.reserve_for_order(++next, c, opposite(p.direction), FuturesOCType::Cover, c.reference,
                                          p.quantity, nullptr, kMonday))
          << p.code << " seed " << seed;
    }
  }
}

}  // namespace
}  // namespace quorvex::paper
