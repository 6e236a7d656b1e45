// The account desk: money and holdings. It keeps each account's book (cash, settlements,
// positions, profit and loss, margin) and the stock reservations, holds what an order needs
// before it reaches the market, books the fills the order desk hands it, and answers the
// api/v1/portfolio/ topics and the reservation topics.
//
// Threading: not thread-safe; the broker core decides one request at a time.
#pragma once

#include <string>
#include <unordered_map>

#include "auth_desk.hpp"
#include "quorvex/core/clock.hpp"
#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/futures_account.hpp"
#include "quorvex/paper/reservation.hpp"
#include "quorvex/paper/stock_account.hpp"
#include "request.hpp"

namespace quorvex::paper {

// What the books need of an order beyond its price and quantity.
struct OrderTerms {
  Side side = Side::Buy;
  Board board = Board::Common;
  StockOrderCond cond = StockOrderCond::Cash;  // stock accounts
  FuturesOCType octype = FuturesOCType::Auto;  // futures accounts
};

class AccountDesk {
 public:
  // Everything given must outlive the desk. `market_clock` dates the books' days; `broker_clock`
  // stamps reservations and judges signatures; `marks` values open positions.
  AccountDesk(const ContractMaster& master, const AuthDesk& auth, const core::Clock& market_clock,
              const core::Clock& broker_clock, MarkPrice marks);

  void serve(ServiceTable& table);

  // Holds the funds, holdings or margin `quantity` of an order needs at `at`; the refusal when
  // the account cannot pay for or deliver it.
  Outcome hold(OrderId id, const Account& account, const Contract& contract, const OrderTerms& terms,
               Price at, Quantity quantity);
  void release(OrderId id, const Account& account);
  // Books one fill of an order; the books' refusal text when they cannot take it (which would be
  // the broker's own fault), else empty.
  std::string book_fill(OrderId id, const Account& account, const Contract& contract, const OrderTerms& terms,
                        const OrderEvent& fill);

  Date today() const { return taipei_date(to_timestamp(market_clock_.now())); }

 private:
  core::Value account_balance(Request& request);
  core::Value margin(Request& request);
  core::Value settlements(Request& request);
  core::Value settlement(Request& request);
  core::Value positions(Request& request);
  core::Value position_detail(Request& request);
  core::Value profit_loss(Request& request);
  core::Value profit_loss_detail(Request& request);
  core::Value profit_loss_summary(Request& request);

  core::Value reserve_stock(Request& request);
  core::Value reserve_earmarking(Request& request);
  core::Value stock_reserve_summary(Request& request);
  core::Value stock_reserve_detail(Request& request);
  core::Value earmarking_detail(Request& request);
  void check_request_signature(const Account& account, const wire::Field& ca, const Contract& contract,
                               Quantity shares) const;

  // The payload's account, of the required kind when one is given.
  const Account& account_for(const Request& request, std::optional<AccountKind> kind) const;
  // {"account": the account dict, key: value}, the shape of every account reply.
  static core::Value with_account(const Account& account, const char* key, core::Value value);
  StockAccountBook& stock_book(const Account& account);
  FuturesAccountBook& futures_book(const Account& account);
  Timestamp now() const { return to_timestamp(broker_clock_.now()); }

  const ContractMaster& master_;
  const AuthDesk& auth_;
  const core::Clock& market_clock_;
  const core::Clock& broker_clock_;
  MarkPrice marks_;
  std::unordered_map<const Account*, StockAccountBook> stock_books_;
  std::unordered_map<const Account*, FuturesAccountBook> futures_books_;
  ReservationDesk reservations_;
};

}  // namespace quorvex::paper
