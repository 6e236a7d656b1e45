#include "quorvex/paper/feed/trade_ledger.hpp"

#include <algorithm>

namespace quorvex::paper {

std::optional<OwnTrade> TradeLedger::from_event(const OrderEvent& event) {
  if (event.kind != OrderEventKind::Filled || event.synthetic || event.quantity <= 0) return std::nullopt;
  OwnTrade trade;
  trade.code = event.code;
  trade.board = event.board;
  trade.deal = event.deal_id;
  trade.ts = event.ts;
  trade.price = event.deal_price;
  trade.quantity = event.quantity;
  trade.aggressor = event.aggressor ? event.side : opposite(event.side);
  return trade;
}

std::string TradeLedger::key(std::string_view code, Board board) {
  std::string k(code);
  k.push_back('\0');
  k.push_back(static_cast<char>('0' + static_cast<int>(board)));
  return k;
}

bool TradeLedger::record(OwnTrade trade) {
  std::lock_guard lock(mutex_);
  std::vector<OwnTrade>& book = by_book_[key(trade.code, trade.board)];
  // The two reports of one deal arrive together, so looking back a little finds a repeat.
  const std::size_t look_back = std::min<std::size_t>(book.size(), 16);
  for (std::size_t i = book.size() - look_back; i < book.size(); ++i) {
    if (book[i].deal == trade.deal) return false;
  }
  book.push_back(std::move(trade));
  version_.fetch_add(1, std::memory_order_release);
  return true;
}

std::size_t TradeLedger::read(std::string_view code, Board board, std::size_t from,
                              std::vector<OwnTrade>& out) const {
  std::lock_guard lock(mutex_);
  const auto it = by_book_.find(key(code, board));
  if (it == by_book_.end()) return 0;
  const std::vector<OwnTrade>& book = it->second;
  if (from < book.size()) out.insert(out.end(), book.begin() + static_cast<std::ptrdiff_t>(from), book.end());
  return book.size();
}

}  // namespace quorvex::paper
