// quorvex.backend.solace.bidask: the real-time best-five bid/ask records.
#include "layouts.hpp"

NB_MODULE(bidask, m) {
  using namespace quorvex::quote;
  nb::set_leak_warnings(false);
  m.doc() =
      "Real-time best five bids and asks: BidAskSTKv1 (stocks, board and odd lots) and BidAskFOPv1 "
      "(futures and options).";
  init_record_support();
  bind_record<BidAskStkSpec>(m);
  bind_record<BidAskFopSpec>(m);
}
