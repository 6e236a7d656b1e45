#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <random>

#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/reservation.hpp"
#include "quorvex/paper/stock_account.hpp"

namespace quorvex::paper {
namespace {

constexpr Money kTwd = kCentsPerDollar;
const Date kMonday{2026, 1, 5};

Timestamp at(Date day, int hour = 10) { return taipei_instant(day, hour * 3600); }

class StockAccountTest : public ::testing::Test {
 protected:
  StockAccountTest() : master_({1, 50, kMonday}), book_("9A95-0000001", 10'000'000 * kTwd, kMonday) {}

  Result<StockFillOutcome> fill(const char* code, Side side, StockOrderCond cond, const char* price,
                                Quantity shares, Date day, Board board = Board::Common) {
    StockFill f;
    f.order_id = ++last_id_;
    f.deal_id = last_id_;
    f.seqno = std::to_string(last_id_);
    f.code = code;
    f.etf = master_.find(code)->is_etf();
    f.board = board;
    f.side = side;
    f.cond = cond;
    f.price = *Price::parse(price);
    f.shares = shares;
    f.ts = at(day);
    return book_.apply_fill(f);
  }

  ContractMaster master_;
  StockAccountBook book_;
  OrderId last_id_ = 0;
};

// Buy 2,000 shares at 1000, sell 1,000 at 1050 the next day: the figures a broker would show.
TEST_F(StockAccountTest, CashRoundTripSettlesOnTPlusTwo) {
  const Date tuesday = kMonday.plus_days(1);
  const auto buy = fill("2330", Side::Buy, StockOrderCond::Cash, "1000", 2000, kMonday);
  ASSERT_TRUE(buy.ok());
  EXPECT_EQ(buy->fee, 2850 * kTwd);
  EXPECT_EQ(buy->settlement, -2'002'850 * kTwd);
  EXPECT_EQ(buy->settlement_date, (Date{2026, 1, 7}));
  const auto sell = fill("2330", Side::Sell, StockOrderCond::Cash, "1050", 1000, tuesday);
  ASSERT_TRUE(sell.ok());
  EXPECT_EQ(sell->fee, 1496 * kTwd);
  EXPECT_EQ(sell->tax, 3150 * kTwd);
  EXPECT_EQ(sell->pnl, (1'050'000 - 1496 - 3150 - 1'001'425) * kTwd);
  ASSERT_TRUE(sell->profit_loss_id.has_value());

  EXPECT_EQ(book_.balance(tuesday), 10'000'000 * kTwd);
  EXPECT_EQ(book_.balance({2026, 1, 7}), (10'000'000 - 2'002'850) * kTwd);
  EXPECT_EQ(book_.balance({2026, 1, 8}), (10'000'000 - 2'002'850 + 1'045'354) * kTwd);
  const auto days = book_.settlements(tuesday);
  EXPECT_EQ(days[0].date, tuesday);
  EXPECT_EQ(days[0].amount, 0);
  EXPECT_EQ(days[1].date, (Date{2026, 1, 7}));
  EXPECT_EQ(days[1].amount, -2'002'850 * kTwd);
  EXPECT_EQ(days[2].amount, 1'045'354 * kTwd);
  EXPECT_EQ(days[2].t, 2);

  const auto positions = book_.positions(Unit::Common, nullptr, tuesday);
  ASSERT_EQ(positions.size(), 1u);
  EXPECT_EQ(positions[0].quantity, 1);
  EXPECT_EQ(positions[0].yd_quantity, 1);  // 2 lots at the start of Tuesday, 1 still held
  EXPECT_DOUBLE_EQ(positions[0].price, 1000.0);
  EXPECT_EQ(book_.positions(Unit::Share, nullptr, tuesday)[0].quantity, 1000);

  const auto rows = book_.profit_loss(kMonday, tuesday);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].quantity, 1000);
  EXPECT_EQ(rows[0].date, tuesday);
  const auto details = book_.profit_loss_detail(rows[0].id);
  ASSERT_TRUE(details.ok());
  ASSERT_EQ(details->size(), 1u);
  EXPECT_EQ(details.value()[0].date, kMonday);
  EXPECT_EQ(details.value()[0].trade_type, "Common");
  EXPECT_EQ(details.value()[0].cost, 1'001'425 * kTwd);
  EXPECT_EQ(book_.profit_loss_of_deal(rows[0].dseq)->id, rows[0].id);
  EXPECT_TRUE(book_.profit_loss(tuesday.plus_days(1), tuesday.plus_days(5)).empty());
}

TEST_F(StockAccountTest, MarginPurchaseBorrowsAndRepays) {
  const auto buy = fill("2330", Side::Buy, StockOrderCond::MarginTrading, "1000", 1000, kMonday);
  ASSERT_TRUE(buy.ok());
  EXPECT_EQ(buy->settlement, -(1'001'425 - 600'000) * kTwd);  // own 40% plus the fee
  const auto p = book_.positions(Unit::Common, nullptr, kMonday);
  EXPECT_EQ(p[0].margin_purchase_amount, 600'000 * kTwd);
  const auto sell = fill("2330", Side::Sell, StockOrderCond::MarginTrading, "1100", 1000, kMonday);
  ASSERT_TRUE(sell.ok());
  const Money proceeds = (1'100'000 - 1567 - 3300) * kTwd;
  EXPECT_EQ(sell->settlement, proceeds - 600'000 * kTwd);
  EXPECT_EQ(sell->pnl, proceeds - 1'001'425 * kTwd);
  EXPECT_EQ(book_.profit_loss_detail(*sell->profit_loss_id).value()[0].trade_type, "DayTrade");
  EXPECT_TRUE(book_.positions(Unit::Common, nullptr, kMonday).empty());
}

TEST_F(StockAccountTest, ShortSaleDepositsAndIsCovered) {
  const auto sell = fill("2330", Side::Sell, StockOrderCond::ShortSelling, "1000", 1000, kMonday);
  ASSERT_TRUE(sell.ok());
  EXPECT_EQ(sell->settlement, -900'000 * kTwd);
  const Money collateral = (1'000'000 - 1425 - 3000 - 800) * kTwd;
  const auto p = book_.positions(Unit::Common, nullptr, kMonday);
  ASSERT_EQ(p.size(), 1u);
  EXPECT_EQ(p[0].direction, Side::Sell);
  EXPECT_EQ(p[0].collateral, collateral);
  EXPECT_EQ(p[0].short_sale_margin, 900'000 * kTwd);
  const auto cover = fill("2330", Side::Buy, StockOrderCond::ShortSelling, "950", 1000, kMonday.plus_days(1));
  ASSERT_TRUE(cover.ok());
  const Money cover_cost = (950'000 + 1353) * kTwd;
  EXPECT_EQ(cover->pnl, collateral - cover_cost);
  EXPECT_EQ(cover->settlement, 900'000 * kTwd + collateral - cover_cost);
}

TEST_F(StockAccountTest, ClosingMoreThanHeldIsRefusedAndChangesNothing) {
  fill("2330", Side::Buy, StockOrderCond::Cash, "1000", 1000, kMonday);
  const Money before = book_.available_funds();
  const auto r = fill("2330", Side::Sell, StockOrderCond::Cash, "1000", 2000, kMonday);
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.refusal().code, RefusalCode::InsufficientHoldings);
  EXPECT_EQ(book_.available_funds(), before);
  EXPECT_EQ(book_.positions(Unit::Share, nullptr, kMonday)[0].quantity, 1000);
  // Margin positions are not cash positions.
  EXPECT_FALSE(fill("2330", Side::Sell, StockOrderCond::MarginTrading, "1000", 1000, kMonday).ok());
}

TEST_F(StockAccountTest, OrderHoldsGuardFundsAndShares) {
  const Contract& tsmc = *master_.find("2330");
  fill("2330", Side::Buy, StockOrderCond::Cash, "1000", 2000, kMonday);
  ASSERT_FALSE(book_.reserve_for_order(101, tsmc, Side::Sell, StockOrderCond::Cash, tsmc.reference, 1500));
  // Only 500 shares are still free to sell while the first order works.
  const Outcome second =
      book_.reserve_for_order(102, tsmc, Side::Sell, StockOrderCond::Cash, tsmc.reference, 1000);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(second->code, RefusalCode::InsufficientHoldings);
  EXPECT_NE(second->text.find("expected at most 500"), std::string::npos);
  book_.release_order(101);
  EXPECT_FALSE(book_.reserve_for_order(102, tsmc, Side::Sell, StockOrderCond::Cash, tsmc.reference, 1000));

  const Money available = book_.available_funds();
  const Outcome too_big =
      book_.reserve_for_order(103, tsmc, Side::Buy, StockOrderCond::Cash, tsmc.limit_up, 499'000);
  ASSERT_TRUE(too_big.has_value());
  EXPECT_EQ(too_big->code, RefusalCode::InsufficientFunds);
  ASSERT_FALSE(book_.reserve_for_order(104, tsmc, Side::Buy, StockOrderCond::Cash, tsmc.reference, 1000));
  EXPECT_EQ(book_.available_funds(), available - 1'001'425 * kTwd);
  // A fill uses the hold up instead of counting twice.
  StockFill f;
  f.order_id = 104;
  f.deal_id = 9;
  f.code = "2330";
  f.side = Side::Buy;
  f.price = tsmc.reference;
  f.shares = 1000;
  f.ts = at(kMonday);
  ASSERT_TRUE(book_.apply_fill(f).ok());
  EXPECT_EQ(book_.available_funds(), available - 1'001'425 * kTwd);
}

TEST_F(StockAccountTest, ConditionsNeedTheStocksFlags) {
  Contract plain = *master_.find("2330");
  plain.margin_trading = plain.short_selling = false;
  EXPECT_EQ(
      book_.reserve_for_order(1, plain, Side::Buy, StockOrderCond::MarginTrading, plain.reference, 1000)
          ->code,
      RefusalCode::MarginTradingNotAllowed);
  EXPECT_EQ(
      book_.reserve_for_order(2, plain, Side::Sell, StockOrderCond::ShortSelling, plain.reference, 1000)
          ->code,
      RefusalCode::ShortSellingNotAllowed);
}

TEST_F(StockAccountTest, EarmarksSetFundsAside) {
  const Contract& tsmc = *master_.find("2330");
  const Money before = book_.available_funds();
  const auto e = book_.earmark(tsmc, 2000, Price::from_whole(1000), at(kMonday));
  ASSERT_TRUE(e.ok());
  EXPECT_EQ(e->amount, 2'002'850 * kTwd);
  EXPECT_EQ(book_.available_funds(), before - e->amount);
  EXPECT_EQ(book_.earmark(tsmc, 2000, *Price::parse("1002"), at(kMonday)).refusal().code,
            RefusalCode::PriceOutsideLimits);
  EXPECT_EQ(book_.earmark(tsmc, 100000, Price::from_whole(1000), at(kMonday)).refusal().code,
            RefusalCode::InsufficientFunds);
  EXPECT_EQ(book_.earmarks().size(), 1u);
}

TEST(ReservationDesk, LendsWholeLotsFromThePool) {
  const ContractMaster master({1, 50, kMonday});
  ReservationDesk desk(master);
  const Quantity pool = desk.available_to_reserve("2330");
  EXPECT_EQ(pool, 5000 * 1000);
  EXPECT_EQ(desk.reserve_stock("A", "2330", 1500, 1).refusal().code, RefusalCode::InvalidQuantity);
  EXPECT_EQ(desk.reserve_stock("A", "TXFA6", 1000, 1).refusal().code, RefusalCode::UnknownContract);
  ASSERT_TRUE(desk.reserve_stock("A", "2330", 3000, 1).ok());
  ASSERT_TRUE(desk.reserve_stock("B", "2330", pool - 3000, 2).ok());
  EXPECT_EQ(desk.reserve_stock("A", "2330", 1000, 3).refusal().code, RefusalCode::ReservationUnavailable);
  ASSERT_FALSE(desk.use("A", "2330", 2000));
  EXPECT_EQ(desk.use("A", "2330", 2000)->code, RefusalCode::ReservationUnavailable);
  const auto summary = desk.summary("A");
  ASSERT_EQ(summary.size(), 1u);
  EXPECT_EQ(summary[0].reserved_share, 3000);
  EXPECT_EQ(summary[0].available_share, 1000);
  EXPECT_EQ(desk.detail("B").size(), 1u);
}

// Over many seeded sequences of fills in every condition, on several days: positions equal the
// trades, realised results are itemised exactly, and cash agrees with both. All settled, the cash
// plus what the open lots tie up equals the opening cash plus the realised profit and loss.
TEST(StockAccountRandom, PositionsAndCashAgreeWithTheTrades) {
  const ContractMaster master({1, 50, kMonday});
  const char* codes[] = {"2330", "2603", "0050", "2888"};
  for (std::uint32_t seed = 1; seed <= 40; ++seed) {
    std::mt19937 rng(seed);
    StockAccountBook book("A", 50'000'000 * kTwd, kMonday);
    std::map<std::pair<std::string, StockOrderCond>, Quantity> expected;
    Quantity closed_shares = 0;
    Date day = kMonday;
    for (int i = 0; i < 200; ++i) {
      if (rng() % 15 == 0) day = day.plus_business_days(1);
      const Contract& c = *master.find(codes[rng() % 4]);
      const auto cond = static_cast<StockOrderCond>(rng() % 3);
      const Side side = rng() % 2 ? Side::Buy : Side::Sell;
      const bool odd = rng() % 4 == 0;
      StockFill f;
      f.order_id = f.deal_id = static_cast<OrderId>(i + 1);
      f.code = c.code;
      f.etf = c.is_etf();
      f.board = odd ? Board::IntradayOdd : Board::Common;
      f.side = side;
      f.cond = cond;
      f.price = step_up(c.ladder, c.limit_down, static_cast<std::int64_t>(rng() % 40));
      f.shares = odd ? 1 + static_cast<Quantity>(rng() % 999) : 1000 * (1 + static_cast<Quantity>(rng() % 5));
      f.ts = at(day);
      const bool closing = cond == StockOrderCond::ShortSelling ? side == Side::Buy : side == Side::Sell;
      Quantity& held = expected[{c.code, cond}];
      const auto r = book.apply_fill(f);
      if (closing && f.shares > held) {
        ASSERT_FALSE(r.ok());
        continue;
      }
      ASSERT_TRUE(r.ok()) << r.refusal().text;
      held += closing ? -f.shares : f.shares;
      if (closing) closed_shares += f.shares;
    }
    for (const StockPosition& p : book.positions(Unit::Share, nullptr, day)) {
      const std::pair<std::string, StockOrderCond> key{p.code, p.cond};
      EXPECT_EQ(p.quantity, expected[key]) << p.code << " seed " << seed;
      expected.erase(key);
    }
    for (const auto& [key, left] : expected) EXPECT_EQ(left, 0) << key.first << " seed " << seed;

    Money realised = 0;
    Quantity itemised = 0;
    for (const StockProfitLoss& row : book.profit_loss(kMonday, day)) {
      realised += row.pnl;
      itemised += row.quantity;
      Quantity detailed = 0;
      for (const StockProfitDetail& d : book.profit_loss_detail(row.id).value()) detailed += d.quantity;
      EXPECT_EQ(detailed, row.quantity);
    }
    EXPECT_EQ(itemised, closed_shares);
    EXPECT_EQ(realised, book.realised_pnl());
    const auto summary = book.profit_loss_summary(kMonday, day);
    EXPECT_EQ(summary.total.pnl, realised);
    EXPECT_EQ(summary.total.quantity, closed_shares);

    const Money settled = book.balance(day.plus_business_days(2));
    EXPECT_EQ(settled, book.available_funds());
    EXPECT_EQ(settled + book.committed_in_positions(), 50'000'000 * kTwd + realised) << "seed " << seed;
  }
}

// Over seeded sequences of order holds (buys and sales), fills against them and releases:
// every hold gives back exactly what it took. With the open orders released, no funds stay held
// (the available funds are the cash once everything settles) and every owned share can be sold.
TEST(StockAccountRandom, HoldsGiveBackExactlyWhatTheyTook) {
  const ContractMaster master({1, 50, kMonday});
  const char* codes[] = {"2330", "2603", "0050"};
  struct Open {
    const Contract* contract;
    Side side;
    Quantity shares;  // not yet filled
  };
  for (std::uint32_t seed = 1; seed <= 30; ++seed) {
    std::mt19937 rng(seed);
    StockAccountBook book("A", 50'000'000 * kTwd, kMonday);
    std::map<OrderId, Open> open;
    OrderId next = 0;
    DealId deal = 0;
    for (int i = 0; i < 300; ++i) {
      const unsigned step = rng() % 4;
      if (step < 2 || open.empty()) {
        const Contract& c = *master.find(codes[rng() % 3]);
        const Side side = rng() % 3 == 0 ? Side::Sell : Side::Buy;
        const Quantity shares = 1000 * (1 + static_cast<Quantity>(rng() % 3));
        const OrderId id = ++next;
        if (!book.reserve_for_order(id, c, side, StockOrderCond::Cash, c.reference, shares)) {
          open[id] = {&c, side, shares};
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
      StockFill f;
      f.order_id = it->first;
      f.deal_id = ++deal;
      f.code = order.contract->code;
      f.etf = order.contract->is_etf();
      f.side = order.side;
      f.price = order.contract->reference;
      f.shares = 1000 * (1 + static_cast<Quantity>(rng() % (order.shares / 1000)));
      f.ts = at(kMonday);
      ASSERT_TRUE(book.apply_fill(f).ok()) << "seed " << seed;
      order.shares -= f.shares;
      if (order.shares == 0) open.erase(it);
    }
    for (const auto& [id, order] : open) book.release_order(id);
    EXPECT_EQ(book.available_funds(), book.balance(kMonday.plus_business_days(2))) << "seed " << seed;
    for (const StockPosition& p : book.positions(Unit::Share, nullptr, kMonday)) {
      EXPECT_FALSE(book.reserve_for_order(++next, *master.find(p.code), Side::Sell, StockOrderCond::Cash,
                                          master.find(p.code)->reference, p.quantity))
          << p.code << " seed " << seed;
    }
  }
}

}  // namespace
}  // namespace quorvex::paper
