#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "quorvex/paper/matching_engine.hpp"
#include "quorvex/paper/stock_account.hpp"

namespace quorvex::paper {
namespace {

Price P(const char* text) { return *Price::parse(text); }

OrderTicket ticket(const std::string& account, const std::string& code, Side side, const char* price,
                   Quantity qty, Board board = Board::Common, OrderType type = OrderType::ROD,
                   PriceType price_type = PriceType::Limit) {
  OrderTicket t;
  t.account = account;
  t.code = code;
  t.board = board;
  t.side = side;
  t.order_type = type;
  t.price_type = price_type;
  t.price = price_type == PriceType::Limit ? P(price) : Price();
  t.quantity = qty;
  return t;
}

class EngineTest : public ::testing::Test {
 protected:
  explicit EngineTest(bool liquidity = false)
      : master_({1, 200, {2026, 1, 5}}), clock_(to_time_point(taipei_instant({2026, 1, 5}, 9 * 3600))) {
    EngineConfig config;
    config.liquidity.enabled = liquidity;
    engine_ = std::make_unique<MatchingEngine>(master_, clock_, config, [this](const OrderEvent& e) {
      std::lock_guard lock(events_mutex_);
      events_.push_back(e);
    });
  }

  std::vector<OrderEvent> events_of(OrderId id) {
    std::lock_guard lock(events_mutex_);
    std::vector<OrderEvent> out;
    for (const OrderEvent& e : events_) {
      if (e.order_id == id) out.push_back(e);
    }
    return out;
  }

  OrderId place_ok(const OrderTicket& t) {
    const auto r = engine_->place(t);
    EXPECT_TRUE(r.ok()) << (r.ok() ? "" : r.refusal().text);
    return r.ok() ? r->id : 0;
  }

  ContractMaster master_;
  core::ManualClock clock_;
  std::mutex events_mutex_;
  std::vector<OrderEvent> events_;
  std::unique_ptr<MatchingEngine> engine_;
};

TEST_F(EngineTest, CancelAfterFillIsRefusedWithNothingToCancel) {
  const OrderId sell = place_ok(ticket("S", "2330", Side::Sell, "1000", 2));
  const OrderId buy = place_ok(ticket("B", "2330", Side::Buy, "1000", 2));
  EXPECT_EQ(engine_->order(sell)->status, Status::Filled);
  EXPECT_EQ(engine_->order(buy)->status, Status::Filled);
  const auto refused = engine_->cancel(sell);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.refusal().code, RefusalCode::NothingToCancel);
  EXPECT_EQ(refused.refusal().sts_code(), 74006);
  EXPECT_EQ(refused.refusal().text,
            "order " + engine_->order(sell)->ordno + " is already Filled; nothing left to cancel");
  const auto events = events_of(sell);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back().kind, OrderEventKind::Refused);
  EXPECT_EQ(events.back().operation, OrderOperation::Cancel);
  EXPECT_EQ(events.back().account, "S");
  EXPECT_EQ(engine_->change_price(sell, P("995")).refusal().code, RefusalCode::NothingToCancel);
  EXPECT_EQ(engine_->cancel(999999).refusal().code, RefusalCode::UnknownOrder);
}

TEST_F(EngineTest, RecordsFollowTheOrderThroughItsLife) {
  const OrderId id = place_ok(ticket("A", "2330", Side::Buy, "995", 5));
  EXPECT_EQ(engine_->order(id)->status, Status::Submitted);
  place_ok(ticket("B", "2330", Side::Sell, "995", 2));
  OrderRecord r = *engine_->order(id);
  EXPECT_EQ(r.status, Status::PartFilled);
  EXPECT_EQ(r.deal_quantity, 2);
  ASSERT_EQ(r.deals.size(), 1u);
  EXPECT_EQ(r.deals[0].price, P("995"));
  ASSERT_TRUE(engine_->change_price(id, P("990")).ok());
  ASSERT_TRUE(engine_->reduce_quantity(id, 1).ok());
  r = *engine_->order(id);
  EXPECT_EQ(r.modified_price, P("990"));
  EXPECT_EQ(r.cancel_quantity, 1);
  EXPECT_EQ(r.remaining(), 2);
  const auto cancelled = engine_->cancel(id);
  ASSERT_TRUE(cancelled.ok());
  EXPECT_EQ(cancelled->status, Status::Cancelled);
  EXPECT_EQ(cancelled->cancel_quantity, 3);
  EXPECT_EQ(cancelled->deal_quantity, 2);
  EXPECT_EQ(r.seqno.size(), 6u);
  EXPECT_EQ(r.ordno.size(), 5u);
  const auto mine = engine_->orders_of("A");
  ASSERT_EQ(mine.size(), 1u);
  EXPECT_EQ(mine[0].id, id);
}

TEST_F(EngineTest, RefusedPlacementIsRecordedAsFailed) {
  const auto r = engine_->place(ticket("A", "2330", Side::Buy, "1002", 1));
  ASSERT_FALSE(r.ok());
  EXPECT_EQ(r.refusal().code, RefusalCode::PriceOffLadder);
  const auto orders = engine_->orders_of("A");
  ASSERT_EQ(orders.size(), 1u);
  EXPECT_EQ(orders[0].status, Status::Failed);
  EXPECT_EQ(orders[0].msg, r.refusal().text);
  const auto events = events_of(orders[0].id);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, OrderEventKind::Refused);
  // A code the master lacks never reaches a book (an index or a wrong board is the book's refusal).
  EXPECT_EQ(engine_->place(ticket("A", "XXXX", Side::Buy, "10", 1)).refusal().code,
            RefusalCode::UnknownContract);
}

TEST_F(EngineTest, IssuedIdsPlaceOnce) {
  const OrderTicket t = ticket("A", "2330", Side::Buy, "990", 1);
  const OrderId id = engine_->issue_order_id();
  ASSERT_EQ(engine_->place(t, id)->id, id);
  EXPECT_EQ(engine_->place(t, id).refusal().code, RefusalCode::DuplicateOrder);
  EXPECT_EQ(engine_->place(t, id + 100).refusal().code, RefusalCode::DuplicateOrder);
  EXPECT_GT(engine_->place(t)->id, id);
}

TEST_F(EngineTest, SymbolsReachTheContractsBook) {
  place_ok(ticket("A", "TXF202601", Side::Sell, "23000", 1));
  const OrderId buy = place_ok(ticket("B", "TXFA6", Side::Buy, "23000", 1));
  EXPECT_EQ(engine_->order(buy)->status, Status::Filled);
  EXPECT_EQ(engine_->book("TXF202601")->last_price, P("23000"));
}

TEST_F(EngineTest, OddLotsTradeOnTheirOwnBook) {
  place_ok(ticket("A", "2330", Side::Sell, "1000", 1));
  const OrderId odd = place_ok(ticket("B", "2330", Side::Buy, "1000", 300, Board::IntradayOdd));
  EXPECT_EQ(engine_->order(odd)->status, Status::Submitted);
  const OrderId odd_sell = place_ok(ticket("C", "2330", Side::Sell, "1000", 100, Board::IntradayOdd));
  EXPECT_EQ(engine_->order(odd_sell)->status, Status::Filled);
  EXPECT_EQ(engine_->order(odd)->deal_quantity, 100);
  EXPECT_EQ(engine_->book("2330", Board::IntradayOdd)->bids[0].quantity, 200);
  EXPECT_EQ(engine_->book("2330", Board::Common)->asks[0].quantity, 1);
}

TEST_F(EngineTest, RangeMarketOrderRestsAtItsProtectionPrice) {
  place_ok(ticket("A", "TXFA6", Side::Sell, "23000", 1));
  const OrderId buy = place_ok(
      ticket("B", "TXFA6", Side::Buy, "0", 3, Board::Common, OrderType::ROD, PriceType::MarketRange));
  const OrderRecord r = *engine_->order(buy);
  EXPECT_EQ(r.deal_quantity, 1);
  EXPECT_EQ(r.status, Status::PartFilled);
  EXPECT_EQ(engine_->book("TXFA6")->bids[0].price, P("23020"));
}

TEST_F(EngineTest, RetentionForgetsTheOldestFinishedOrders) {
  EngineConfig config;
  config.liquidity.enabled = false;
  config.finished_order_retention = 2;
  MatchingEngine engine(master_, clock_, config);
  std::vector<OrderId> ids;
  for (int i = 0; i < 4; ++i)
    ids.push_back(engine.place(ticket("A", "2330", Side::Buy, "1000", 1)).value().id);
  for (OrderId id : ids) ASSERT_TRUE(engine.cancel(id).ok());
  EXPECT_EQ(engine.cancel(ids[0]).refusal().code, RefusalCode::UnknownOrder);
  EXPECT_EQ(engine.cancel(ids[3]).refusal().code, RefusalCode::NothingToCancel);
}

// The handler runs without the engine's lock: it may query and even place orders, whose
// events follow the current batch.
TEST_F(EngineTest, HandlerMayCallBackIntoTheEngine) {
  std::vector<std::pair<OrderEventKind, OrderId>> seen;
  std::vector<Status> statuses_seen;
  bool placed_from_handler = false;
  engine_->set_event_handler([&](const OrderEvent& e) {
    seen.emplace_back(e.kind, e.order_id);
    statuses_seen.push_back(engine_->order(e.order_id)->status);
    if (e.kind == OrderEventKind::Filled && !placed_from_handler) {
      placed_from_handler = true;
      engine_->place(ticket("H", "2330", Side::Buy, "990", 1));
    }
  });
  const OrderId sell = place_ok(ticket("S", "2330", Side::Sell, "1000", 1));
  const OrderId buy = place_ok(ticket("B", "2330", Side::Buy, "1000", 1));
  ASSERT_TRUE(placed_from_handler);
  ASSERT_EQ(seen.size(), 5u);
  EXPECT_EQ(seen[1], std::make_pair(OrderEventKind::Accepted, buy));
  EXPECT_EQ(seen[2].first, OrderEventKind::Filled);
  EXPECT_EQ(seen[3], std::make_pair(OrderEventKind::Filled, sell));
  EXPECT_EQ(seen[4].first, OrderEventKind::Accepted);
  EXPECT_EQ(seen[4].second, buy + 1);
  // The book was already consistent when the first event of the batch arrived.
  EXPECT_EQ(statuses_seen[1], Status::Filled);
}

TEST_F(EngineTest, ThrowingHandlerDoesNotStopDelivery) {
  int calls = 0;
  engine_->set_event_handler([&](const OrderEvent&) {
    ++calls;
    throw std::runtime_error("handler failed");
  });
  EXPECT_THROW(engine_->place(ticket("S", "2330", Side::Sell, "1000", 2)), std::runtime_error);
  calls = 0;
  // Accepted and two fills all reach the handler; the operation itself has taken effect.
  EXPECT_THROW(engine_->place(ticket("B", "2330", Side::Buy, "1000", 2)), std::runtime_error);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(engine_->orders_of("B").at(0).status, Status::Filled);
  engine_->set_event_handler([&](const OrderEvent&) { ++calls; });
  place_ok(ticket("S", "2330", Side::Sell, "1000", 2));
  EXPECT_EQ(calls, 4);
}

// Events reach the handler in the order they happened, from many threads at once.
TEST_F(EngineTest, ConcurrentOperationsDeliverEveryOrdersEventsInOrder) {
  constexpr int kThreads = 4;
  constexpr int kOrders = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kOrders; ++i) {
        const Side side = (i + t) % 2 ? Side::Buy : Side::Sell;
        const char* price = i % 3 == 0 ? "1000" : (side == Side::Buy ? "995" : "1005");
        const auto r = engine_->place(ticket("T" + std::to_string(t), "2330", side, price, 1 + i % 3));
        if (r.ok() && i % 4 == 0) engine_->cancel(r->id);
      }
    });
  }
  for (auto& th : threads) th.join();
  std::map<OrderId, std::vector<OrderEvent>> by_order;
  {
    std::lock_guard lock(events_mutex_);
    for (const OrderEvent& e : events_) by_order[e.order_id].push_back(e);
  }
  EXPECT_EQ(by_order.size(), static_cast<std::size_t>(kThreads * kOrders));
  for (const auto& [id, events] : by_order) {
    ASSERT_EQ(events.front().kind, OrderEventKind::Accepted) << id;
    Quantity remaining = events.front().quantity;
    bool finished = false;
    for (std::size_t i = 1; i < events.size(); ++i) {
      const OrderEvent& e = events[i];
      if (e.kind == OrderEventKind::Refused) continue;
      ASSERT_FALSE(finished) << "event after the end of order " << id;
      ASSERT_EQ(e.remaining, remaining - e.quantity) << "order " << id;
      remaining = e.remaining;
      finished = remaining == 0;
    }
    const OrderRecord r = *engine_->order(id);
    EXPECT_EQ(r.remaining(), remaining) << id;
  }
}

class LiquidEngineTest : public EngineTest {
 protected:
  LiquidEngineTest() : EngineTest(true) {}
};

TEST_F(LiquidEngineTest, SyntheticLiquidityFillsAndIsReplenished) {
  const auto before = engine_->book("2330");
  EXPECT_TRUE(before->bids.empty());  // books open with their first order
  const OrderId buy =
      place_ok(ticket("A", "2330", Side::Buy, "0", 1, Board::Common, OrderType::IOC, PriceType::Market));
  const OrderRecord r = *engine_->order(buy);
  EXPECT_EQ(r.status, Status::Filled);
  EXPECT_EQ(r.deals[0].price, P("1005"));  // one tick above the reference
  const auto book = engine_->book("2330");
  EXPECT_EQ(book->bids.size(), 5u);
  EXPECT_EQ(book->asks.size(), 5u);
  EXPECT_LT(book->bids[0].price, book->asks[0].price);
  // Only the client's own events are delivered.
  std::lock_guard lock(events_mutex_);
  for (const OrderEvent& e : events_) {
    EXPECT_FALSE(e.synthetic);
    EXPECT_EQ(e.order_id, buy);
  }
}

TEST_F(LiquidEngineTest, SameSeedSameSyntheticBook) {
  place_ok(ticket("A", "2454", Side::Buy, "1200", 1));
  EngineConfig config;
  MatchingEngine other(master_, clock_, config);
  other.place(ticket("A", "2454", Side::Buy, "1200", 1));
  const auto a = engine_->book("2454", Board::Common, 10).value();
  const auto b = other.book("2454", Board::Common, 10).value();
  ASSERT_EQ(a.asks.size(), b.asks.size());
  for (std::size_t i = 0; i < a.asks.size(); ++i) EXPECT_EQ(a.asks[i].quantity, b.asks[i].quantity);
}

// The engine and the account books wired as the broker's services wire them: random orders of
// several accounts against each other and the synthetic liquidity, fills booked from the
// delivered events. Every account's positions equal its deals in the engine's records, and its
// cash agrees with its positions and realised results.
TEST(EngineWithAccounts, BooksAgreeWithTheEnginesDeals) {
  constexpr Money kTwd = kCentsPerDollar;
  const Date kMonday{2026, 1, 5};
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
