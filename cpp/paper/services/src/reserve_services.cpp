// Stock reservation for short selling and earmarked funds: two signed requests and three
// listings, all for stock accounts of live sessions.
#include "account_desk.hpp"
#include "contract_desk.hpp"
#include "quorvex/sign/verify.hpp"

namespace quorvex::paper {

using core::Value;
using wire::Field;
using wire::field;

// A reservation of a signed account carries the signed text beside its signature; the text
// must verify for the holder and name what is asked (the stock's code and the share count).
void AccountDesk::check_request_signature(const Account& account, const Field& ca, const Contract& contract,
                                          Quantity shares) const {
  if (!account.config.signed_orders) return;
  const std::string where = "account " + account.config.broker_id + "-" + account.config.account_id;
  if (!ca.value().is_map()) {
    wire::refuse(wire::kForbidden,
                 where +
                     " needs the signed text and its signature in order.ca ({signature, "
                     "plain_text}); expected a request signed with an activated certificate",
                 wire::kSignatureRefused);
  }
  const std::string text = ca["plain_text"].text(wire::kMaxSignatureBytes);
  const sign::Verification v = sign::verify_text_signature(
      text, ca["signature"].text(wire::kMaxSignatureBytes), account.holder->person_id);
  if (!v) {
    wire::refuse(wire::kForbidden,
                 "the request signature for " + where + " is not valid: " + v.error +
                     "; expected a signature by " + account.holder->person_id + "'s certificate",
                 wire::kSignatureRefused);
  }
  if (text.find(contract.code) == std::string::npos ||
      text.find(std::to_string(shares)) == std::string::npos) {
    wire::refuse(wire::kForbidden,
                 "the signed text does not name " + contract.code + " and " + std::to_string(shares) +
                     " shares; expected the text signed for this request",
                 wire::kSignatureRefused);
  }
}

Value AccountDesk::reserve_stock(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  const Contract& contract = known_contract(master_, field(request.payload, "contract"));
  const Field order = field(request.payload, "order");
  const Quantity shares = order["share"].integer();
  check_request_signature(account, order["ca"], contract, shares);
  const Result<StockReservation> done =
      reservations_.reserve_stock(account.key, contract.code, shares, now());
  if (!done) wire::refuse(done.refusal());
  Value response = with_account(account, "share", done->share);
  response.set("contract", wire::contract_value(contract));
  response.set("status", done->status);
  response.set("info", done->info);
  return response;
}

Value AccountDesk::reserve_earmarking(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  const Contract& contract = known_contract(master_, field(request.payload, "contract"));
  const Field order = field(request.payload, "order");
  const Quantity shares = order["share"].integer();
  const Price price = order["price"].price();
  check_request_signature(account, order["ca"], contract, shares);
  const Result<Earmark> done = stock_book(account).earmark(contract, shares, price, now());
  if (!done) wire::refuse(done.refusal());
  Value response = with_account(account, "share", done->share);
  response.set("contract", wire::contract_value(contract));
  response.set("price", wire::price_number(done->price));
  response.set("status", done->status);
  response.set("info", done->info);
  return response;
}

Value AccountDesk::stock_reserve_summary(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  Value stocks = Value::array({});
  for (const ReservationSummary& s : reservations_.summary(account.key)) {
    stocks.push_back(Value::map({{"contract", wire::contract_value(*master_.find(s.code))},
                                 {"available_share", s.available_share},
                                 {"reserved_share", s.reserved_share}}));
  }
  return with_account(account, "stocks", std::move(stocks));
}

Value AccountDesk::stock_reserve_detail(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  Value stocks = Value::array({});
  for (const StockReservation& r : reservations_.detail(account.key)) {
    stocks.push_back(Value::map({{"contract", wire::contract_value(*master_.find(r.code))},
                                 {"share", r.share},
                                 {"order_datetime", wire::time_text(r.ts)},
                                 {"status", r.status},
                                 {"info", r.info}}));
  }
  return with_account(account, "stocks", std::move(stocks));
}

Value AccountDesk::earmarking_detail(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  Value stocks = Value::array({});
  for (const Earmark& e : stock_book(account).earmarks()) {
    stocks.push_back(Value::map({{"contract", wire::contract_value(*master_.find(e.code))},
                                 {"share", e.share},
                                 {"price", wire::price_number(e.price)},
                                 {"amount", wire::amount(e.amount)},
                                 {"order_datetime", wire::time_text(e.ts)},
                                 {"status", e.status},
                                 {"info", e.info}}));
  }
  return with_account(account, "stocks", std::move(stocks));
}

}  // namespace quorvex::paper
