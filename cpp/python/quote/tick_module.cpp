// quorvex.backend.solace.tick: the real-time trade tick records.
#include "layouts.hpp"

NB_MODULE(tick, m) {
  using namespace quorvex::quote;
  nb::set_leak_warnings(false);
  m.doc() =
      "Real-time trade ticks: TickSTKv1 (stocks, board and odd lots) and TickFOPv1 (futures and options).";
  init_record_support();
  bind_record<TickStkSpec>(m);
  bind_record<TickFopSpec>(m);
}
