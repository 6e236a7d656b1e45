// The engine and the books together, wired the way the broker's services wire them.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>

#include "quorvex/paper/matching_engine.hpp"
#include "quorvex/paper/stock_account.hpp"

namespace quorvex::paper {
namespace {

constexpr Money kTwd = kCentsPerDollar;
const Date kMonday{2026, 1, 5};

// Random orders of several accounts against each other and the synthetic liquidity, fills booked
// from the delivered events: every account's positions equal its deals in the engine's records,
// and its cash agrees with its positions and realised results.
TEST(PaperMarket, BooksAgreeWithTheEnginesDeals) {
  const ContractMaster master({1, 50, kMonday});
  for (std::uint32_t seed = 1; seed <= 10; ++seed) {
    core::ManualClock clock(to_time_point(taipei_instant(kMonday, 9 * 3600)));
    EngineConfig config;
    config.liquidity.seed = seed;
    MatchingEngine engine(master, clock, config);
    std::map<std::string, StockAccountBook> books;
    for (const char* account : {"A", "B", "C"}) {
      books.emplace(account, StockAccountBook(account, 100'000'000 * kTwd, kMonday));
    }
    int fills = 0;
    engine.set_event_handler([&](const OrderEvent& e) {
      StockAccountBook& book = books.at(e.account);
      if (e.kind == OrderEventKind::Filled) {
        ++fills;
        StockFill f;
        f.order_id = e.order_id;
        f.deal_id = e.deal_id;
        f.code = e.code;
        f.etf = master.find(e.code)->is_etf();
        f.board = e.board;
        f.side = e.side;
        f.price = e.deal_price;
        f.shares = e.board == Board::Common ? e.quantity * 1000 : e.quantity;
        f.ts = e.ts;
        const auto r = book.apply_fill(f);
        ASSERT_TRUE(r.ok()) << r.refusal().text;
      }
      if (e.kind == OrderEventKind::Cancelled || (e.kind == OrderEventKind::Filled && e.remaining == 0) ||
          (e.kind == OrderEventKind::Refused && e.operation == OrderOperation::Place)) {
        book.release_order(e.order_id);
      }
    });
    std::mt19937 rng(seed);
    std::vector<OrderId> working;
    for (int i = 0; i < 300; ++i) {
      clock.advance(std::chrono::seconds(1));
      const std::string account(1, static_cast<char>('A' + rng() % 3));
      const Contract& c = *master.find(rng() % 2 ? "2330" : "2603");
      OrderTicket t;
      t.account = account;
      t.code = c.code;
      t.board = rng() % 4 == 0 ? Board::IntradayOdd : Board::Common;
      t.side = rng() % 2 ? Side::Buy : Side::Sell;
      t.price = step_up(c.ladder, c.reference, static_cast<std::int64_t>(rng() % 9) - 4);
      t.quantity = 1 + static_cast<Quantity>(t.board == Board::Common ? rng() % 5 : rng() % 500);
      t.order_type = rng() % 3 == 0 ? OrderType::IOC : OrderType::ROD;
      const Quantity shares = t.board == Board::Common ? t.quantity * 1000 : t.quantity;
      const OrderId id = engine.issue_order_id();
      if (books.at(account).reserve_for_order(id, c, t.side, StockOrderCond::Cash, t.price, shares)) continue;
      const auto placed = engine.place(t, id);
      if (placed.ok() && placed->remaining > 0) working.push_back(id);
      if (!working.empty() && rng() % 4 == 0) {
        const OrderId target = working[rng() % working.size()];
        if (rng() % 2) {
          engine.cancel(target);
        } else {
          engine.reduce_quantity(target, 1);
        }
      }
    }
    EXPECT_GT(fills, 100) << "seed " << seed;
    for (auto& [account, book] : books) {
      std::map<std::string, Quantity> bought;
      for (const OrderRecord& r : engine.orders_of(account)) {
        const Quantity per = r.ticket.board == Board::Common ? 1000 : 1;
        bought[r.ticket.code] += (r.ticket.side == Side::Buy ? 1 : -1) * r.deal_quantity * per;
      }
      for (const StockPosition& p : book.positions(Unit::Share, nullptr, kMonday)) {
        EXPECT_EQ(p.quantity, bought[p.code]) << account << " " << p.code << " seed " << seed;
        bought.erase(p.code);
      }
      for (const auto& [code, left] : bought)
        EXPECT_EQ(left, 0) << account << " " << code << " seed " << seed;
      EXPECT_EQ(book.balance(kMonday.plus_business_days(2)) + book.committed_in_positions(),
                100'000'000 * kTwd + book.realised_pnl())
          << account << " seed " << seed;
    }
  }
}

}  // namespace
}  // namespace quorvex::paper
