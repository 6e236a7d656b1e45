// The paper broker's contract master: indices, stocks and ETFs, futures and options,
// generated deterministically from a seed and a size, served in pages.
//
// Threading: immutable after construction; every const method may be called from any
// thread at once. Not copyable (the lookup index points into the contracts), movable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "quorvex/paper/contract.hpp"
#include "quorvex/paper/refusal.hpp"

namespace quorvex::paper {

struct ContractMasterConfig {
  std::uint64_t seed = 20260105;
  // Target number of contracts of all types together; the master holds at least the demo
  // set and comes close to this above it (100,000 is fine for benchmarks).
  std::size_t size = 5000;
  Date trading_day{2026, 1, 5};
};

// Stocks with stable codes, always present, whatever the seed and size.
inline constexpr std::string_view kDemoStockCodes[] = {"2330", "2317", "2454", "2412", "2603", "2881",
                                                       "1101", "2888", "0050", "0056", "00878"};
// The weighted index: underlying of the index futures and options.
inline constexpr std::string_view kWeightedIndexCode = "001";

// One page of contracts of one type; a view into the master, valid while it lives.
struct ContractPage {
  SecurityType security_type = SecurityType::Stock;
  int page = 0;
  int max_page = 0;
  const Contract* first = nullptr;
  std::size_t count = 0;

  const Contract* begin() const { return first; }
  const Contract* end() const { return first + count; }
  std::size_t size() const { return count; }
};

class ContractMaster {
 public:
  static constexpr int kDefaultPageSize = 5000;
  static constexpr int kMaxPageSize = 100000;

  explicit ContractMaster(const ContractMasterConfig& config = {});
  ContractMaster(const ContractMaster&) = delete;
  ContractMaster& operator=(const ContractMaster&) = delete;
  ContractMaster(ContractMaster&&) = default;
  ContractMaster& operator=(ContractMaster&&) = default;

  const Date& trading_day() const { return trading_day_; }

  // By code ("2330", "TXFL6") or symbol ("TSE2330", "TXF202612"); null when unknown.
  const Contract* find(std::string_view code_or_symbol) const;

  // Contracts of one type, sorted by code.
  const std::vector<Contract>& contracts(SecurityType type) const;
  std::size_t size() const;

  // Page 0 is the probe: no contracts, only max_page. Pages 1..max_page hold the data.
  Result<ContractPage> page(SecurityType type, int page, int page_size = kDefaultPageSize) const;

  // The nearest delivery of a futures product ("TXF", "MXF"); null when the product is unknown.
  const Contract* front_month(std::string_view product) const;

 private:
  struct Location {
    SecurityType type;
    std::uint32_t index;
  };
  void index_contracts();

  Date trading_day_;
  std::vector<Contract> by_type_[4];
  std::unordered_map<std::string_view, Location> lookup_;
};

}  // namespace quorvex::paper
