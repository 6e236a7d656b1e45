// Stock reservation for short selling and earmarked funds: two signed requests and three
// listings, all for stock accounts of live sessions.
#include "broker_state.hpp"
#include "quorvex/sign/verify.hpp"

namespace quorvex::paper {

using core::Value;
using wire::Field;
using wire::field;

void BrokerCore::State::serve_reservations() {
  serve("api/v1/order/reserve_stock", Access::LiveOnly, bound(&State::reserve_stock));
  serve("api/v1/order/reserve_earmarking", Access::LiveOnly, bound(&State::reserve_earmarking));
  serve("api/v1/order/stock_reserve_summary", Access::LiveOnly, bound(&State::stock_reserve_summary));
  serve("api/v1/order/stock_reserve_detail", Access::LiveOnly, bound(&State::stock_reserve_detail));
  serve("api/v1/order/earmarking_detail", Access::LiveOnly, bound(&State::earmarking_detail));
}

// A reservation of a signed account carries the signed text beside its signature; the text
// must verify for the holder and name what is asked (the stock's code and the share count).
void BrokerCore::State::check_request_signature(const Account& account, const Field& ca,
                                                const Contract& contract, Quantity shares) const {
  if (!account.config.signed_orders) return;
  const std::string where = "account " + account.config.broker_id + "-" + account.config.account_id;
  if (!ca.value().is_map()) {
    wire::refuse(wire::kForbidden,
                 where +
                     " needs the signed text and its signature in order.ca ({signature, "
                     "plain_text}); expected a request signed with an activated certificate",
                 wire::kSignatureRefused);
  }
  const std::string text = ca["plain_text"].text();
  const sign::Verification v =
      sign::verify_text_signature(text, ca["signature"].text(), account.holder->person_id);
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

Value BrokerCore::State::reserve_stock(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  const Contract& contract = known_contract(field(request.payload, "contract"));
  const Field order = field(request.payload, "order");
  const Quantity shares = order["share"].integer();
  check_request_signature(account, order["ca"], contract, shares);
  const Result<StockReservation> done = reservations.reserve_stock(account.key, contract.code, shares, now());
  if (!done) wire::refuse(done.refusal());
  Value response = with_account(account, "share", done->share);
  response.set("contract", wire::contract_value(contract));
  response.set("status", done->status);
  response.set("info", done->info);
  return response;
}

Value BrokerCore::State::reserve_earmarking(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  const Contract& contract = known_contract(field(request.payload, "contract"));
  const Field order = field(request.payload, "order");
  const Quantity shares = order["share"].integer();
  const Price price = order["price"].price();
  check_request_signature(account, order["ca"], contract, shares);
  settle_events(request);
  const Result<Earmark> done = stock_book(account).earmark(contract, shares, price, now());
  if (!done) wire::refuse(done.refusal());
  Value response = with_account(account, "share", done->share);
  response.set("contract", wire::contract_value(contract));
  response.set("price", wire::price_number(done->price));
  response.set("status", done->status);
  response.set("info", done->info);
  return response;
}

Value BrokerCore::State::stock_reserve_summary(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  Value stocks = Value::array({});
  for (const ReservationSummary& s : reservations.summary(account.key)) {
    stocks.push_back(Value::map({{"contract", wire::contract_value(*master.find(s.code))},
                                 {"available_share", s.available_share},
                                 {"reserved_share", s.reserved_share}}));
  }
  return with_account(account, "stocks", std::move(stocks));
}

Value BrokerCore::State::stock_reserve_detail(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  Value stocks = Value::array({});
  for (const StockReservation& r : reservations.detail(account.key)) {
    stocks.push_back(Value::map({{"contract", wire::contract_value(*master.find(r.code))},
                                 {"share", r.share},
                                 {"order_datetime", wire::time_text(r.ts)},
                                 {"status", r.status},
                                 {"info", r.info}}));
  }
  return with_account(account, "stocks", std::move(stocks));
}

Value BrokerCore::State::earmarking_detail(Request& request) {
  const Account& account = account_for(request, AccountKind::Stock);
  Value stocks = Value::array({});
  for (const Earmark& e : stock_book(account).earmarks()) {
    stocks.push_back(Value::map({{"contract", wire::contract_value(*master.find(e.code))},
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
