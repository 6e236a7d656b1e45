// quorvex.backend.solace.quote: the joined stock quote record and the subscription topic of
// a contract.
//
// A quote topic has six "/"-separated components:
//   <kind>/<version>/<market>/<session>/<exchange>/<code>
// kind "TIC" (trades) or "QUO" (bids and asks, or the joined quote); version "v1" ("v2" for
// the joined stock quote, "v0" for the untyped legacy messages); market "STK", "ODD"
// (intraday odd lots) or "FOP"; session "D" (regular) or "N" (after-hours) on published
// topics, "*" in subscriptions so both reach the subscriber; exchange "TSE", "OTC", "OES"
// or "TFE" (futures and options); the contract code. Untyped odd-lot messages add a seventh
// component "ODDLOT".
#include <string>
#include <string_view>

#include "layouts.hpp"

namespace quorvex::quote {
namespace {

std::string text_of(nb::handle value) { return nb::str(value).c_str(); }

std::string repr_of(nb::handle value) { return nb::repr(value).c_str(); }

[[noreturn]] void refuse(const std::string& message) { throw nb::value_error(message.c_str()); }

enum class Market { Stock, OddLot, FuturesOptions };

Market market_of(nb::handle contract, const std::string& code, bool intraday_odd) {
  const std::string security_type = text_of(nb::getattr(contract, "security_type"));
  const bool stock = security_type == "STK";
  const bool futures_options = security_type == "FUT" || security_type == "OPT";
  if (!stock && !futures_options) {
    refuse("no real-time quotes are published for " + code + " of security type " + security_type +
           "; expected a stock (STK), future (FUT) or option (OPT)");
  }
  if (intraday_odd && !stock) {
    refuse("intraday odd lots are traded in stocks only; " + code + " is of security type " + security_type);
  }
  return futures_options ? Market::FuturesOptions : intraday_odd ? Market::OddLot : Market::Stock;
}

std::string exchange_word(nb::handle contract, Market market, const std::string& code) {
  if (market == Market::FuturesOptions) return "TFE";
  const std::string exchange = text_of(nb::getattr(contract, "exchange"));
  if (exchange != "TSE" && exchange != "OTC" && exchange != "OES") {
    refuse("stock " + code + " has exchange " + exchange + "; expected TSE, OTC or OES");
  }
  return exchange;
}

// The code the feed publishes under: a continuous futures contract (e.g. the near month)
// is published under the code of the month it currently stands for.
std::string topic_code(nb::handle contract, Market market) {
  nb::object code = nb::getattr(contract, "code");
  if (market == Market::FuturesOptions) {
    nb::object target = nb::getattr(contract, "target_code", nb::none());
    if (nb::isinstance<nb::str>(target) && nb::len(target) > 0) code = target;
  }
  if (!nb::isinstance<nb::str>(code) || nb::len(code) == 0) {
    throw nb::type_error(("a contract's code must be a non-empty str, got " + repr_of(code)).c_str());
  }
  std::string text = nb::str(code).c_str();
  if (text.find_first_of("/*#+ ") != std::string::npos) {
    refuse("contract code " + repr_of(code) +
           " cannot be part of a topic: it contains one of / * # + or a blank");
  }
  return text;
}

nb::str contract2topic(nb::handle contract, nb::handle quote_type, nb::handle intraday_odd,
                       nb::handle version) {
  const std::string type = text_of(quote_type);
  const std::string ver = text_of(version);
  if (type != "tick" && type != "bidask" && type != "quote") {
    refuse("quote_type must be QuoteType.Tick, QuoteType.BidAsk or QuoteType.Quote, got " +
           repr_of(quote_type));
  }
  if (ver != "v0" && ver != "v1") {
    refuse("version must be QuoteVersion.v0 or QuoteVersion.v1, got " + repr_of(version));
  }
  const int odd = PyObject_IsTrue(intraday_odd.ptr());
  if (odd < 0) throw nb::python_error();

  const Market market = market_of(contract, text_of(nb::getattr(contract, "code")), odd == 1);
  const std::string code = topic_code(contract, market);
  const std::string exchange = exchange_word(contract, market, code);

  std::string topic_version = ver;
  if (type == "quote") {
    if (market != Market::Stock || ver != "v1") {
      refuse(
          "QuoteType.Quote joins a stock's ticks and bids/asks and is published for board-lot stocks with "
          "QuoteVersion.v1 only; got " +
          code + (market == Market::OddLot ? " (intraday odd)" : "") + " with version " + ver);
    }
    topic_version = "v2";
  }
  const char* market_word = market == Market::Stock ? "STK" : market == Market::OddLot ? "ODD" : "FOP";
  std::string topic = std::string(type == "tick" ? "TIC" : "QUO") + "/" + topic_version + "/" + market_word +
                      "/*/" + exchange + "/" + code;
  if (ver == "v0" && market == Market::OddLot) topic += "/ODDLOT";
  return nb::str(topic.c_str(), topic.size());
}

}  // namespace
}  // namespace quorvex::quote

NB_MODULE(quote, m) {
  using namespace quorvex::quote;
  nb::set_leak_warnings(false);
  m.doc() =
      "Real-time joined stock quotes (QuoteSTKv1) and the subscription topic of a contract (contract2topic).";
  init_record_support();
  bind_record<QuoteStkSpec>(m);
  m.def("contract2topic", &contract2topic, nb::arg("contract"), nb::arg("quote_type"),
        nb::arg("intraday_odd"), nb::arg("version"),
        "The topic to subscribe to for a contract's real-time quotes of one type, odd-lot flag and version.");
}
