#include "quorvex/paper/matching_engine.hpp"

#include <algorithm>
#include <exception>
#include <utility>

#include "seeded_random.hpp"

namespace quorvex::paper {
namespace {

// Synthetic orders use their own id range so they never collide with client orders.
constexpr OrderId kSyntheticIdBase = OrderId{1} << 62;

std::string book_key(std::string_view code, Board board) {
  std::string key(code);
  key += '#';
  key += static_cast<char>('0' + static_cast<int>(board));
  return key;
}

std::uint64_t text_hash(std::string_view text) {
  std::uint64_t h = 1469598103934665603ULL;  // FNV-1a: stable across runs, unlike std::hash
  for (char c : text) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  return h;
}

}  // namespace

struct MatchingEngine::BookState {
  BookState(BookRules rules, std::uint64_t seed, Quantity unit)
      : book(std::move(rules)), rng(seed), unit(unit) {}
  OrderBook book;
  SeededRandom rng;
  Quantity unit;
  std::vector<OrderId> synthetic[2];  // by Side
};

MatchingEngine::MatchingEngine(const ContractMaster& contracts, const core::Clock& clock, EngineConfig config,
                               OrderEventHandler handler)
    : contracts_(contracts), clock_(clock), config_(std::move(config)) {
  records_.reserve(std::min<std::size_t>(config_.finished_order_retention, 1 << 16));
  if (handler) handler_ = std::make_shared<const OrderEventHandler>(std::move(handler));
}

MatchingEngine::~MatchingEngine() = default;

void MatchingEngine::set_event_handler(OrderEventHandler handler) {
  std::lock_guard lock(mutex_);
  handler_ = handler ? std::make_shared<const OrderEventHandler>(std::move(handler)) : nullptr;
}

Result<MatchingEngine::BookState*> MatchingEngine::open_book(const std::string& code, Board board) {
  if (const auto it = books_.find(book_key(code, board)); it != books_.end()) return it->second.get();
  const Contract* contract = contracts_.find(code);
  if (contract == nullptr) {
    return refuse(
        RefusalCode::UnknownContract,
        "contract " + code + " is not in the contract master; expected a stock, future or option code");
  }
  const std::string key = book_key(contract->code, board);
  if (const auto it = books_.find(key); it != books_.end()) return it->second.get();
  Result<BookRules> rules = book_rules(*contract, board);
  if (!rules) return rules.refusal();
  const std::uint64_t seed = config_.liquidity.seed ^ text_hash(key);
  auto state = std::make_unique<BookState>(std::move(rules).value(), seed, contract->unit);
  BookState* book = state.get();
  books_.emplace(key, std::move(state));
  replenish(*book);
  return book;
}

void MatchingEngine::replenish(BookState& state) {
  const LiquidityProfile& profile = config_.liquidity;
  if (!profile.enabled) return;
  OrderBook& book = state.book;
  const BookRules& rules = book.rules();
  const Price anchor = book.last_price().value_or(rules.reference);
  const bool odd = rules.board == Board::Odd || rules.board == Board::IntradayOdd;
  const Timestamp now = clock_now();
  for (Side side : {Side::Buy, Side::Sell}) {
    auto& mine = state.synthetic[static_cast<int>(side)];
    const std::optional<Price> opposite = side == Side::Buy ? book.best_ask() : book.best_bid();
    for (std::int64_t step = 1; static_cast<int>(mine.size()) < profile.levels_per_side &&
                                step <= 3 * static_cast<std::int64_t>(profile.levels_per_side);
         ++step) {
      const Price price =
          side == Side::Buy ? step_down(rules.ladder, anchor, step) : step_up(rules.ladder, anchor, step);
      if (!rules.limits.contains(price)) break;
      if (opposite && (side == Side::Buy ? price >= *opposite : price <= *opposite)) continue;
      const bool taken = std::any_of(mine.begin(), mine.end(), [&](OrderId id) {
        const auto resting = book.resting(id);
        return resting && resting->price == price;
      });
      if (taken) continue;
      OrderTicket ticket;
      ticket.code = rules.code;
      ticket.board = rules.board;
      ticket.side = side;
      ticket.price = price;
      ticket.quantity = odd ? state.rng.between(10, state.unit - 1)
                            : state.rng.between(profile.min_quantity, profile.max_quantity);
      const OrderId id = kSyntheticIdBase + ++last_synthetic_id_;
      if (!book.submit(id, ticket, now, queue_, true)) mine.push_back(id);
    }
  }
}

void MatchingEngine::apply(const OrderEvent& e) {
  if (e.synthetic) return;
  const auto it = records_.find(e.order_id);
  if (it == records_.end()) return;
  OrderRecord& r = it->second.record;
  bool finished = false;
  switch (e.kind) {
    case OrderEventKind::Accepted: break;
    case OrderEventKind::Filled:
      r.deal_quantity += e.quantity;
      r.deals.push_back({e.deal_id, e.deal_price, e.quantity, e.ts});
      r.status = e.remaining == 0 ? Status::Filled : Status::PartFilled;
      finished = e.remaining == 0;
      break;
    case OrderEventKind::Cancelled:
      r.cancel_quantity += e.quantity;
      r.msg = e.text;
      r.status = Status::Cancelled;
      r.modified_ts = e.ts;
      finished = true;
      break;
    case OrderEventKind::Refused:
      r.msg = e.text;
      if (e.operation == OrderOperation::Place) {
        r.status = Status::Failed;
        finished = true;
      }
      break;
    case OrderEventKind::PriceChanged:
      r.modified_price = e.price;
      r.modified_ts = e.ts;
      break;
    case OrderEventKind::QuantityReduced:
      r.cancel_quantity += e.quantity;
      r.modified_ts = e.ts;
      break;
  }
  if (finished) {
    it->second.book = nullptr;
    finished_.push_back(e.order_id);
  }
}

// Brings the records and the synthetic liquidity up to date with the queued events, then
// hands the client-visible ones to the outbox. Called with the lock held.
void MatchingEngine::settle_events(BookState* book) {
  std::vector<OrderEvent>& events = queue_.events();
  auto account_for = [&](std::size_t i) {
    for (; i < events.size(); ++i) {
      const OrderEvent& e = events[i];
      apply(e);
      if (e.synthetic && book != nullptr &&
          (e.kind == OrderEventKind::Cancelled || (e.kind == OrderEventKind::Filled && e.remaining == 0))) {
        auto& mine = book->synthetic[static_cast<int>(e.side)];
        mine.erase(std::remove(mine.begin(), mine.end(), e.order_id), mine.end());
      }
    }
    return i;
  };
  const std::size_t done = account_for(0);
  if (book != nullptr) replenish(*book);
  account_for(done);
  if (handler_) {
    for (OrderEvent& e : events) {
      if (!e.synthetic) outbox_.push_back(std::move(e));
    }
  }
  queue_.clear();
}

void MatchingEngine::prune_finished() {
  const std::size_t keep = std::max<std::size_t>(config_.finished_order_retention, 1);
  while (finished_.size() - finished_head_ > keep) records_.erase(finished_[finished_head_++]);
  if (finished_head_ > 4096 && finished_head_ * 2 > finished_.size()) {
    finished_.erase(finished_.begin(), finished_.begin() + static_cast<std::ptrdiff_t>(finished_head_));
    finished_head_ = 0;
  }
}

// Brings everything up to date, lets go of the lock and delivers what the operation caused.
Result<OrderReceipt> MatchingEngine::conclude(std::unique_lock<std::mutex>& lock, BookState* book, OrderId id,
                                              Outcome refused) {
  settle_events(book);
  Result<OrderReceipt> result =
      refused ? Result<OrderReceipt>(*std::move(refused)) : Result<OrderReceipt>(receipt(id));
  prune_finished();
  lock.unlock();
  deliver();
  return result;
}

OrderReceipt MatchingEngine::receipt(OrderId id) const {
  const OrderRecord& r = records_.at(id).record;
  return OrderReceipt{r.id, r.status, r.deal_quantity, r.cancel_quantity, r.remaining(), r.order_ts};
}

OrderId MatchingEngine::issue_order_id() {
  std::lock_guard lock(mutex_);
  const OrderId id = ++last_order_id_;
  issued_.insert(id);
  return id;
}

Result<OrderReceipt> MatchingEngine::place(const OrderTicket& ticket, std::optional<OrderId> issued) {
  const Timestamp now = clock_now();
  std::unique_lock lock(mutex_);
  if (issued && issued_.erase(*issued) == 0) {
    return refuse(RefusalCode::DuplicateOrder,
                  "order id " + std::to_string(*issued) +
                      " was not issued or has been placed already; expected an id "
                      "from issue_order_id, used once");
  }
  const OrderId id = issued ? *issued : ++last_order_id_;
  Entry& entry = records_[id];
  OrderRecord& record = entry.record;
  record.id = id;
  record.ticket = ticket;
  record.order_ts = now;
  by_account_[ticket.account].push_back(id);

  Outcome refused;
  BookState* book = nullptr;
  Result<BookState*> opened = open_book(ticket.code, ticket.board);
  if (!opened) {
    refused = queue_.add_refusal(OrderOperation::Place, id, ticket, opened.refusal(), now);
  } else {
    book = opened.value();
    record.ticket.code = book->book.rules().code;
    entry.book = book;
    refused = book->book.submit(id, record.ticket, now, queue_);
  }
  return conclude(lock, book, id, std::move(refused));
}

Outcome MatchingEngine::refuse_finished(OrderId id, OrderOperation op, const OrderRecord& r) {
  Refusal refusal = refuse(RefusalCode::NothingToCancel,
                           "order " + order_ordno(id) + " is already " + std::string(to_text(r.status)) +
                               "; nothing left to " + (op == OrderOperation::Cancel ? "cancel" : "change"));
  OrderTicket t = r.ticket;
  t.price = r.modified_price.is_zero() ? r.ticket.price : r.modified_price;
  t.quantity = 0;
  return queue_.add_refusal(op, id, t, std::move(refusal), clock_now());
}

Result<OrderReceipt> MatchingEngine::cancel(OrderId id) {
  return modify(id, OrderOperation::Cancel, Price(), 0);
}

Result<OrderReceipt> MatchingEngine::change_price(OrderId id, Price price) {
  return modify(id, OrderOperation::ChangePrice, price, 0);
}

Result<OrderReceipt> MatchingEngine::reduce_quantity(OrderId id, Quantity by) {
  return modify(id, OrderOperation::ReduceQuantity, Price(), by);
}

Result<OrderReceipt> MatchingEngine::modify(OrderId id, OrderOperation op, Price price, Quantity by) {
  std::unique_lock lock(mutex_);
  const auto record = records_.find(id);
  if (record == records_.end()) {
    return refuse(
        RefusalCode::UnknownOrder,
        "order id " + std::to_string(id) + " is not known to the broker; expected the id of a placed order");
  }
  Outcome refused;
  BookState* book = record->second.book;
  if (book == nullptr) {
    refused = refuse_finished(id, op, record->second.record);
  } else {
    const Timestamp now = clock_now();
    switch (op) {
      case OrderOperation::Cancel: refused = book->book.cancel(id, now, queue_); break;
      case OrderOperation::ChangePrice: refused = book->book.change_price(id, price, now, queue_); break;
      case OrderOperation::ReduceQuantity: refused = book->book.reduce_quantity(id, by, now, queue_); break;
      case OrderOperation::Place: break;
    }
  }
  return conclude(lock, book, id, std::move(refused));
}

void MatchingEngine::deliver() {
  std::unique_lock lock(mutex_);
  if (delivering_) return;  // the thread already delivering takes our events too, in order
  delivering_ = true;
  std::exception_ptr first_error;
  std::vector<OrderEvent> batch = std::move(spare_);
  while (!outbox_.empty()) {
    batch.swap(outbox_);
    const std::shared_ptr<const OrderEventHandler> handler = handler_;
    lock.unlock();
    for (const OrderEvent& e : batch) {
      // One failing handler call must not stop the others or leave delivery stuck.
      try {
        if (handler) (*handler)(e);
      } catch (...) {
        if (!first_error) first_error = std::current_exception();
      }
    }
    batch.clear();
    lock.lock();
  }
  spare_ = std::move(batch);
  delivering_ = false;
  lock.unlock();
  if (first_error) std::rethrow_exception(first_error);
}

std::optional<OrderRecord> MatchingEngine::order(OrderId id) const {
  std::lock_guard lock(mutex_);
  const auto it = records_.find(id);
  if (it == records_.end()) return std::nullopt;
  return handed_out(it->second.record);
}

OrderRecord MatchingEngine::handed_out(const OrderRecord& record) {
  OrderRecord copy = record;
  copy.seqno = order_seqno(record.id);
  copy.ordno = order_ordno(record.id);
  return copy;
}

std::vector<OrderRecord> MatchingEngine::orders_of(std::string_view account) const {
  std::lock_guard lock(mutex_);
  std::vector<OrderRecord> out;
  const auto ids = by_account_.find(std::string(account));
  if (ids == by_account_.end()) return out;
  for (OrderId id : ids->second) {
    if (const auto it = records_.find(id); it != records_.end()) out.push_back(handed_out(it->second.record));
  }
  return out;
}

Result<BookSnapshot> MatchingEngine::book(std::string_view code, Board board, std::size_t depth) const {
  const Contract* contract = contracts_.find(code);
  if (contract == nullptr) {
    return refuse(RefusalCode::UnknownContract,
                  "contract " + std::string(code) +
                      " is not in the contract master; expected a stock, future or "
                      "option code");
  }
  Result<BookRules> rules = book_rules(*contract, board);
  if (!rules) return rules.refusal();
  BookSnapshot snapshot;
  snapshot.code = contract->code;
  snapshot.board = board;
  std::lock_guard lock(mutex_);
  const auto it = books_.find(book_key(contract->code, board));
  if (it == books_.end()) return snapshot;
  const OrderBook& b = it->second->book;
  snapshot.bids = b.depth(Side::Buy, depth);
  snapshot.asks = b.depth(Side::Sell, depth);
  snapshot.last_price = b.last_price();
  snapshot.volume = b.volume();
  return snapshot;
}

}  // namespace quorvex::paper
