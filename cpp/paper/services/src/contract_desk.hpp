// The contract desk: the contract master in pages (api/v1/data/contracts), each page encoded once.
//
// Threading: not thread-safe; the broker core decides one request at a time.
#pragma once

#include <string>
#include <unordered_map>

#include "quorvex/paper/contract_master.hpp"
#include "request.hpp"
#include "wire.hpp"

namespace quorvex::paper {

class ContractDesk {
 public:
  // `master` must outlive the desk.
  explicit ContractDesk(const ContractMaster& master) : master_(master) {}

  void serve(ServiceTable& table);

 private:
  core::Value contract_page(Request& request);

  const ContractMaster& master_;
  // Encoded pages by security type, page and page size: the master never changes.
  std::unordered_map<std::string, std::string> page_cache_;
};

// The contract a request block names by its code; 404 (sts_code 74001) when unknown.
const Contract& known_contract(const ContractMaster& master, const wire::Field& contract);

}  // namespace quorvex::paper
