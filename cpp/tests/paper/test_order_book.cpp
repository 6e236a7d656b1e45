#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/order_book.hpp"

namespace quorvex::paper {
namespace {

Price P(const char* text) { return *Price::parse(text); }

// A book on the demo stock 2330: reference 1000, limits 900..1100, ticks 1 below 1000 and 5 above.
class OrderBookTest : public ::testing::Test {
 protected:
  OrderBookTest()
      : master_({1, 50, {2026, 1, 5}}), book_(book_rules(*master_.find("2330"), Board::Common).value()) {}

  Outcome place(OrderId id, Side side, const char* price, Quantity qty, OrderType type = OrderType::ROD,
                PriceType price_type = PriceType::Limit, const std::string& account = "A") {
    OrderTicket t;
    t.account = account;
    t.code = "2330";
    t.side = side;
    t.price_type = price_type;
    t.order_type = type;
    t.price = price_type == PriceType::Limit ? P(price) : Price();
    t.quantity = qty;
    return book_.submit(id, t, ++now_, queue_);
  }

  // Events since the last call, then forgets them.
  std::vector<OrderEvent> take() {
    std::vector<OrderEvent> out = std::move(queue_.events());
    queue_.clear();
    return out;
  }

  // (order id, deal quantity, deal price) of every fill, in order.
  static std::vector<std::tuple<OrderId, Quantity, Price>> fills(const std::vector<OrderEvent>& events) {
    std::vector<std::tuple<OrderId, Quantity, Price>> out;
    for (const OrderEvent& e : events) {
      if (e.kind == OrderEventKind::Filled) out.emplace_back(e.order_id, e.quantity, e.deal_price);
    }
    return out;
  }

  ContractMaster master_;
  OrderBook book_;
  EventQueue queue_;
  Timestamp now_ = 0;
};

using Fill = std::tuple<OrderId, Quantity, Price>;

TEST_F(OrderBookTest, BetterPriceFirstThenEarlierOrder) {
  ASSERT_FALSE(place(1, Side::Sell, "1000", 1));
  ASSERT_FALSE(place(2, Side::Sell, "1000", 1));
  ASSERT_FALSE(place(3, Side::Sell, "995", 1));
  take();
  ASSERT_FALSE(place(4, Side::Buy, "1000", 2));
  // The buyer takes 995 first, then the earlier of the two orders at 1000, at the makers' prices.
  EXPECT_EQ(fills(take()),
            (std::vector<Fill>{{4, 1, P("995")}, {3, 1, P("995")}, {4, 1, P("1000")}, {1, 1, P("1000")}}));
  EXPECT_EQ(book_.best_ask(), P("1000"));
  EXPECT_EQ(book_.resting(2)->remaining, 1);
  EXPECT_EQ(book_.last_price(), P("1000"));
  EXPECT_EQ(book_.volume(), 2);
}

TEST_F(OrderBookTest, PartialFillRestsTheRemainder) {
  place(1, Side::Sell, "1000", 2);
  take();
  place(2, Side::Buy, "1005", 5);
  const auto events = take();
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].kind, OrderEventKind::Accepted);
  EXPECT_EQ(events[1].kind, OrderEventKind::Filled);
  EXPECT_TRUE(events[1].aggressor);
  EXPECT_EQ(events[1].remaining, 3);
  EXPECT_EQ(events[2].order_id, 1u);
  EXPECT_EQ(events[2].remaining, 0);
  EXPECT_EQ(events[1].deal_id, events[2].deal_id);
  EXPECT_EQ(book_.best_bid(), P("1005"));
  EXPECT_EQ(book_.resting(2)->remaining, 3);
  EXPECT_FALSE(book_.resting(1).has_value());
}

struct TimeInForceCase {
  const char* name;
  OrderType type;
  PriceType price_type;
  Quantity wanted;
  Quantity filled;     // expected
  Quantity cancelled;  // expected leftover taken off
  Quantity resting;    // expected left in the book
  Quantity asks_left;  // expected of the makers' 6; a killed FOK leaves them untouched
};

class TimeInForce : public OrderBookTest, public ::testing::WithParamInterface<TimeInForceCase> {};

// Asks: 2 at 1000 and 3 at 1005 (5 in all up to the buyer's 1005 limit, 1 more at 1010).
TEST_P(TimeInForce, LeftoversFollowTheOrderType) {
  const TimeInForceCase& c = GetParam();
  place(1, Side::Sell, "1000", 2);
  place(2, Side::Sell, "1005", 3);
  place(3, Side::Sell, "1010", 1);
  take();
  ASSERT_FALSE(place(9, Side::Buy, "1005", c.wanted, c.type, c.price_type));
  Quantity filled = 0, cancelled = 0;
  for (const OrderEvent& e : take()) {
    if (e.order_id != 9) continue;
    if (e.kind == OrderEventKind::Filled) filled += e.quantity;
    if (e.kind == OrderEventKind::Cancelled) cancelled += e.quantity;
  }
  EXPECT_EQ(filled, c.filled);
  EXPECT_EQ(cancelled, c.cancelled);
  EXPECT_EQ(book_.resting(9) ? book_.resting(9)->remaining : 0, c.resting);
  Quantity asks = 0;
  for (const DepthLevel& level : book_.depth(Side::Sell, 10)) asks += level.quantity;
  EXPECT_EQ(asks, c.asks_left);
}

INSTANTIATE_TEST_SUITE_P(
    Orders, TimeInForce,
    ::testing::Values(
        TimeInForceCase{"RodRests", OrderType::ROD, PriceType::Limit, 7, 5, 0, 2, 1},
        TimeInForceCase{"IocCancelsTheRest", OrderType::IOC, PriceType::Limit, 7, 5, 2, 0, 1},
        TimeInForceCase{"FokKilledWhenShort", OrderType::FOK, PriceType::Limit, 6, 0, 6, 0, 6},
        TimeInForceCase{"FokFilledWhenEnough", OrderType::FOK, PriceType::Limit, 5, 5, 0, 0, 1},
        TimeInForceCase{"MarketIocSweepsAllLevels", OrderType::IOC, PriceType::Market, 7, 6, 1, 0, 0},
        TimeInForceCase{"MarketFokAllOrNothing", OrderType::FOK, PriceType::Market, 7, 0, 7, 0, 6}),
    [](const auto& info) { return std::string(info.param.name); });

struct RefusalCase {
  const char* name;
  Board board;
  PriceType price_type;
  OrderType order_type;
  const char* price;
  Quantity quantity;
  RefusalCode code;
  const char* says;  // part of the text
};

class TicketRefusals : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(TicketRefusals, SayWhatWasWrongAndWhatWasExpected) {
  const RefusalCase& c = GetParam();
  const ContractMaster master({1, 50, {2026, 1, 5}});
  OrderBook book(book_rules(*master.find("2330"), c.board).value());
  EventQueue queue;
  OrderTicket t;
  t.account = "A";
  t.code = "2330";
  t.board = c.board;
  t.price_type = c.price_type;
  t.order_type = c.order_type;
  t.price = P(c.price);
  t.quantity = c.quantity;
  const Outcome refused = book.submit(1, t, 1, queue);
  ASSERT_TRUE(refused.has_value());
  EXPECT_EQ(refused->code, c.code);
  EXPECT_NE(refused->text.find(c.says), std::string::npos) << refused->text;
  ASSERT_EQ(queue.events().size(), 1u);
  EXPECT_EQ(queue.events()[0].kind, OrderEventKind::Refused);
  EXPECT_EQ(queue.events()[0].reason, c.code);
  EXPECT_EQ(book.resting_count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Orders, TicketRefusals,
    ::testing::Values(
        RefusalCase{"OffLadder", Board::Common, PriceType::Limit, OrderType::ROD, "1002", 1,
                    RefusalCode::PriceOffLadder, "expected a multiple of 5 such as 1000 or 1005"},
        RefusalCase{"AboveLimitUp", Board::Common, PriceType::Limit, OrderType::ROD, "1105", 1,
                    RefusalCode::PriceOutsideLimits, "expected 900 to 1100"},
        RefusalCase{"BelowLimitDown", Board::Common, PriceType::Limit, OrderType::ROD, "899", 1,
                    RefusalCode::PriceOutsideLimits, "expected 900 to 1100"},
        RefusalCase{"ZeroQuantity", Board::Common, PriceType::Limit, OrderType::ROD, "1000", 0,
                    RefusalCode::InvalidQuantity, "expected 1 to 499 board lots"},
        RefusalCase{"TooManyLots", Board::Common, PriceType::Limit, OrderType::ROD, "1000", 500,
                    RefusalCode::InvalidQuantity, "expected 1 to 499 board lots"},
        RefusalCase{"OddLotOfAThousandShares", Board::IntradayOdd, PriceType::Limit, OrderType::ROD, "1000",
                    1000, RefusalCode::InvalidQuantity, "expected 1 to 999 shares"},
        RefusalCase{"MarketOrderMustNotRest", Board::Common, PriceType::Market, OrderType::ROD, "0", 1,
                    RefusalCode::OrderTypeNotAllowed, "must be IOC or FOK"},
        RefusalCase{"NoMarketOrdersForOddLots", Board::IntradayOdd, PriceType::Market, OrderType::IOC, "0",
                    10, RefusalCode::OrderTypeNotAllowed, "limit orders only"},
        RefusalCase{"RangeMarketIsForDerivatives", Board::Common, PriceType::MarketRange, OrderType::IOC, "0",
                    1, RefusalCode::OrderTypeNotAllowed, "futures and options only"},
        RefusalCase{"AfterHoursOddLotsAreRod", Board::Odd, PriceType::Limit, OrderType::IOC, "1000", 10,
                    RefusalCode::OrderTypeNotAllowed, "ROD orders only"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(BookRules, BoardsAndContractsThatDoNotTrade) {
  const ContractMaster master({1, 50, {2026, 1, 5}});
  EXPECT_EQ(book_rules(*master.find("001"), Board::Common).refusal().code, RefusalCode::UnknownContract);
  EXPECT_EQ(book_rules(*master.front_month("TXF"), Board::IntradayOdd).refusal().code,
            RefusalCode::OrderTypeNotAllowed);
}

TEST_F(OrderBookTest, CancelRemovesAndUnknownIsRefused) {
  place(1, Side::Buy, "990", 3);
  take();
  ASSERT_FALSE(book_.cancel(1, ++now_, queue_));
  auto events = take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, OrderEventKind::Cancelled);
  EXPECT_EQ(events[0].quantity, 3);
  EXPECT_FALSE(book_.best_bid().has_value());
  const Outcome again = book_.cancel(1, ++now_, queue_);
  ASSERT_TRUE(again.has_value());
  EXPECT_EQ(again->code, RefusalCode::UnknownOrder);
}

TEST_F(OrderBookTest, PriceChangeLosesTimePriority) {
  place(1, Side::Sell, "1000", 1);
  place(2, Side::Sell, "1000", 1);
  ASSERT_FALSE(book_.change_price(1, P("1005"), ++now_, queue_));
  ASSERT_FALSE(book_.change_price(1, P("1000"), ++now_, queue_));
  take();
  place(3, Side::Buy, "1000", 1);
  EXPECT_EQ(fills(take()), (std::vector<Fill>{{3, 1, P("1000")}, {2, 1, P("1000")}}));
}

TEST_F(OrderBookTest, PriceChangeThatCrossesTradesAtOnce) {
  place(1, Side::Sell, "1005", 2);
  place(2, Side::Buy, "995", 3);
  take();
  ASSERT_FALSE(book_.change_price(2, P("1005"), ++now_, queue_));
  const auto events = take();
  EXPECT_EQ(events.front().kind, OrderEventKind::PriceChanged);
  EXPECT_EQ(fills(events), (std::vector<Fill>{{2, 2, P("1005")}, {1, 2, P("1005")}}));
  EXPECT_EQ(book_.best_bid(), P("1005"));
  EXPECT_EQ(book_.resting(2)->remaining, 1);
}

TEST_F(OrderBookTest, PriceChangeRefusals) {
  place(1, Side::Buy, "995", 1);
  take();
  EXPECT_EQ(book_.change_price(1, P("995"), ++now_, queue_)->code, RefusalCode::PriceChangeNotAllowed);
  EXPECT_EQ(book_.change_price(1, P("1003"), ++now_, queue_)->code, RefusalCode::PriceOffLadder);
  EXPECT_EQ(book_.change_price(1, P("1200"), ++now_, queue_)->code, RefusalCode::PriceOutsideLimits);
  EXPECT_EQ(book_.resting(1)->price, P("995"));
}

TEST_F(OrderBookTest, QuantityReductionKeepsTimePriority) {
  place(1, Side::Sell, "1000", 5);
  place(2, Side::Sell, "1000", 5);
  ASSERT_FALSE(book_.reduce_quantity(1, 2, ++now_, queue_));
  EXPECT_EQ(book_.depth(Side::Sell, 1)[0].quantity, 8);
  take();
  place(3, Side::Buy, "1000", 3);
  EXPECT_EQ(fills(take()), (std::vector<Fill>{{3, 3, P("1000")}, {1, 3, P("1000")}}));
  EXPECT_FALSE(book_.resting(1).has_value());
}

TEST_F(OrderBookTest, QuantityReductionBounds) {
  place(1, Side::Sell, "1000", 3);
  take();
  EXPECT_EQ(book_.reduce_quantity(1, 4, ++now_, queue_)->code, RefusalCode::ReductionExceedsRemaining);
  EXPECT_EQ(book_.reduce_quantity(1, 0, ++now_, queue_)->code, RefusalCode::InvalidQuantity);
  take();
  ASSERT_FALSE(book_.reduce_quantity(1, 3, ++now_, queue_));
  const auto events = take();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, OrderEventKind::Cancelled);
  EXPECT_EQ(book_.resting_count(), 0u);
}

// Random flows: the book never crosses, its depth adds up to its resting orders, and every
// order's events account for exactly its quantity.
TEST(OrderBookRandom, StaysConsistentOverSeededFlows) {
  const ContractMaster master({1, 50, {2026, 1, 5}});
  for (std::uint32_t seed = 1; seed <= 20; ++seed) {
    std::mt19937 rng(seed);
    OrderBook book(book_rules(*master.find("2603"), Board::Common).value());  // ref 48.35 spans two bands
    EventQueue queue;
    const BookRules& rules = book.rules();
    std::map<OrderId, Quantity> ordered, accounted;  // accounted: filled + taken off
    std::map<OrderId, Quantity> last_remaining;
    std::vector<OrderId> ids;
    for (OrderId id = 1; id <= 400; ++id) {
      const int action = static_cast<int>(rng() % 10);
      if (action < 6 || ids.empty()) {
        OrderTicket t;
        t.side = rng() % 2 ? Side::Buy : Side::Sell;
        t.price = step_up(rules.ladder, rules.reference, static_cast<int>(rng() % 21) - 10);
        t.quantity = 1 + static_cast<Quantity>(rng() % 8);
        t.order_type = static_cast<OrderType>(rng() % 3);
        t.price_type = rng() % 10 == 0 ? PriceType::Market : PriceType::Limit;
        if (t.price_type == PriceType::Market && t.order_type == OrderType::ROD)
          t.order_type = OrderType::IOC;
        ASSERT_FALSE(book.submit(id, t, id, queue));
        ordered[id] = t.quantity;
        ids.push_back(id);
      } else {
        const OrderId target = ids[rng() % ids.size()];
        if (action == 6) book.cancel(target, id, queue);
        if (action == 7) {
          book.change_price(target, step_up(rules.ladder, rules.reference, static_cast<int>(rng() % 11) - 5),
                            id, queue);
        }
        if (action >= 8) book.reduce_quantity(target, 1 + static_cast<Quantity>(rng() % 3), id, queue);
      }
      for (const OrderEvent& e : queue.events()) {
        if (e.kind == OrderEventKind::Filled || e.kind == OrderEventKind::Cancelled ||
            e.kind == OrderEventKind::QuantityReduced) {
          accounted[e.order_id] += e.quantity;
        }
        if (e.kind != OrderEventKind::Refused) last_remaining[e.order_id] = e.remaining;
      }
      queue.clear();
      const auto bid = book.best_bid();
      const auto ask = book.best_ask();
      if (bid && ask) {
        ASSERT_LT(*bid, *ask) << "seed " << seed;
      }
    }
    Quantity depth_total = 0;
    for (Side side : {Side::Buy, Side::Sell}) {
      for (const DepthLevel& level : book.depth(side, 10000)) depth_total += level.quantity;
    }
    Quantity resting_total = 0;
    for (const auto& [id, qty] : ordered) {
      const auto resting = book.resting(id);
      const Quantity remaining = resting ? resting->remaining : 0;
      resting_total += remaining;
      EXPECT_EQ(accounted[id] + remaining, qty) << "order " << id << " seed " << seed;
      EXPECT_EQ(last_remaining[id], remaining) << "order " << id << " seed " << seed;
    }
    EXPECT_EQ(depth_total, resting_total) << "seed " << seed;
  }
}

}  // namespace
}  // namespace quorvex::paper
