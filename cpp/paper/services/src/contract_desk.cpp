// The contract master in pages: page 0 announces how many pages a security type has, pages
// 1..max_page carry its contracts as the raw dicts the client's contract records take.
#include "contract_desk.hpp"

#include "quorvex/core/codec.hpp"

namespace quorvex::paper {

using core::Value;
using wire::field;

void ContractDesk::serve(ServiceTable& table) {
  table.serve("api/v1/data/contracts", Access::Session, bound(this, &ContractDesk::contract_page));
}

const Contract& known_contract(const ContractMaster& master, const wire::Field& contract) {
  const std::string code = contract["code"].text();
  const Contract* found = master.find(code);
  if (found == nullptr) {
    wire::refuse(wire::kNotFound,
                 "contract " + code +
                     " is not in the contract master; expected the code of a "
                     "listed stock, future or option",
                 static_cast<int>(RefusalCode::UnknownContract));
  }
  return *found;
}

Value ContractDesk::contract_page(Request& request) {
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
  if (const auto cached = page_cache_.find(key); cached != page_cache_.end()) {
    request.encoded_reply = cached->second;
    return Value();
  }
  const Result<ContractPage> found = master_.page(*type, static_cast<int>(page), static_cast<int>(page_size));
  if (!found) wire::refuse(found.refusal());
  Value contracts = Value::array({});
  contracts.as_array().reserve(found->size());
  for (const Contract& contract : found.value()) contracts.push_back(wire::contract_value(contract));
  Value response = Value::map({{"security_type", type_text},
                               {"page", page},
                               {"max_page", found->max_page},
                               {"contracts", std::move(contracts)}});
  std::string encoded = core::encode(wire::ok_reply(std::move(response)));
  request.encoded_reply = page_cache_.emplace(key, std::move(encoded)).first->second;
  return Value();
}

}  // namespace quorvex::paper
