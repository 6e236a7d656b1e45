// Stock reservations: shares a stock account borrows ahead of selling them short, drawn from
// the broker's lending pool for each stock (the contract's short-selling balance, in lots).
// Funds earmarked for buying are kept by each StockAccountBook, which holds the cash.
//
// Threading: not thread-safe; the owner serialises every call.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "quorvex/paper/contract_master.hpp"
#include "quorvex/paper/refusal.hpp"

namespace quorvex::paper {

struct StockReservation {
  std::uint64_t id = 0;
  std::string account;
  std::string code;
  Quantity share = 0;
  bool status = true;
  std::string info;
  Timestamp ts = 0;
};

struct ReservationSummary {
  std::string code;
  Quantity reserved_share = 0;   // reserved in all
  Quantity available_share = 0;  // reserved and not yet used by short sales
};

class ReservationDesk {
 public:
  // `contracts` must outlive the desk.
  explicit ReservationDesk(const ContractMaster& contracts) : contracts_(contracts) {}

  // Shares come in whole board lots, up to what the pool still lends.
  Result<StockReservation> reserve_stock(const std::string& account, const std::string& code, Quantity shares,
                                         Timestamp now);
  // A short sale of reserved shares uses them up.
  Outcome use(const std::string& account, const std::string& code, Quantity shares);

  Quantity available_to_reserve(const std::string& code) const;
  std::vector<ReservationSummary> summary(const std::string& account) const;
  std::vector<StockReservation> detail(const std::string& account) const;

 private:
  struct Holding {
    Quantity reserved = 0;
    Quantity used = 0;
  };

  const ContractMaster& contracts_;
  std::vector<StockReservation> reservations_;
  std::unordered_map<std::string, Quantity> reserved_by_code_;
  std::unordered_map<std::string, std::unordered_map<std::string, Holding>> by_account_;  // account -> code
};

}  // namespace quorvex::paper
