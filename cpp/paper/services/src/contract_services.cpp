// The contract master in pages: page 0 announces how many pages a security type has, pages
// 1..max_page carry its contracts as the raw dicts the client's contract records take.
#include "broker_state.hpp"
#include "quorvex/core/codec.hpp"

namespace quorvex::paper {

using core::Value;
using wire::field;

void BrokerCore::State::serve_contracts() {
  serve("api/v1/data/contracts", Access::Session, bound(&State::contract_page));
}

Value BrokerCore::State::contract_page(Request& request) {
  const std::string type_text = field(request.payload, "security_type").text();
  const std::optional<SecurityType> type = security_type_from_text(type_text);
  if (!type) {
    wire::refuse(wire::kBadRequest,
                 "security_type '" + type_text + "' is not known; expected IND, STK, FUT or OPT");
  }
  const std::int64_t page = field(request.payload, "page").integer();
  const std::int64_t page_size =
      field(request.payload, "page_size").integer_or(ContractMaster::kDefaultPageSize);
  if (page_size < 1 || page_size > ContractMaster::kMaxPageSize) {
    wire::refuse(wire::kBadRequest,
                 "page_size " + std::to_string(page_size) + " is not accepted; expected 1 to " +
                     std::to_string(ContractMaster::kMaxPageSize),
                 static_cast<int>(RefusalCode::InvalidPageSize));
  }
  if (page < 0 || page > 1'000'000) {
    wire::refuse(wire::kBadRequest,
                 "page " + std::to_string(page) + " is not a page number; expected 0 to max_page");
  }
  const std::string key = type_text + "/" + std::to_string(page) + "/" + std::to_string(page_size);
  if (const auto cached = contract_page_cache.find(key); cached != contract_page_cache.end()) {
    request.encoded_reply = cached->second;
    return Value();
  }
  const Result<ContractPage> found = master.page(*type, static_cast<int>(page), static_cast<int>(page_size));
  if (!found) wire::refuse(found.refusal());
  Value contracts = Value::array({});
  contracts.as_array().reserve(found->size());
  for (const Contract& contract : found.value()) contracts.push_back(wire::contract_value(contract));
  Value response = Value::map({{"security_type", type_text},
                               {"page", page},
                               {"max_page", found->max_page},
                               {"contracts", std::move(contracts)}});
  std::string encoded = core::encode(wire::ok_reply(std::move(response)));
  request.encoded_reply = contract_page_cache.emplace(key, std::move(encoded)).first->second;
  return Value();
}

}  // namespace quorvex::paper
