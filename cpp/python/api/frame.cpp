// SolaceAPI: construction, the topic table, the printing default handlers, the session
// callbacks, the context, and the end of an instance (finaliser and exit hook).
#include "api.hpp"

namespace quorvex::api {
namespace {

// Where a topic's category comes from: one fixed category, or the paper-trading one in
// simulation and the given one otherwise.
enum class Category { Auth, Order, Portfolio, Data, OrderOrPaper, PortfolioOrPaper };

struct TopicRow {
  const char* attr;
  const char* format;
  Category category;
};

// The service topics, in the order the constructor sets them. The attribute names and
// service suffixes differ in places; both are the services' own names.
constexpr TopicRow kTopics[] = {
    {"login_topic", "{}{}login", Category::Auth},
    {"simulation_login_topic", "{}{}simulation_login", Category::Auth},
    {"error_tracking_topic", "{}{}error_tracking", Category::Auth},
    {"logout_topic", "{}{}logout", Category::Auth},
    {"token_login_topic", "{}{}token_login", Category::Auth},
    {"subscribe_trade_topic", "{}{}subscribe_trade", Category::Auth},
    {"b64validation_topic", "{}{}b64validation", Category::Auth},
    {"trace_log_topic", "{}{}trace_log", Category::Auth},
    {"place_order_topic", "{}{}place_order", Category::OrderOrPaper},
    {"cancel_order_topic", "{}{}cancel_order", Category::OrderOrPaper},
    {"update_status_topic", "{}{}update_status", Category::OrderOrPaper},
    {"update_combostatus_topic", "{}{}update_combostatus", Category::Order},
    {"place_comboorder_topic", "{}{}place_comboorder", Category::Order},
    {"cancel_comboorder_topic", "{}{}cancel_comboorder", Category::Order},
    {"list_positions_topic", "{}{}position_unit", Category::PortfolioOrPaper},
    {"list_position_detail_topic", "{}{}position_detail", Category::Portfolio},
    {"list_profit_loss_topic", "{}{}profit_loss", Category::PortfolioOrPaper},
    {"list_profit_loss_detail_topic", "{}{}profit_loss_detail", Category::Portfolio},
    {"list_profit_loss_summary_topic", "{}{}profitloss_sum", Category::Portfolio},
    {"list_settlement_topic", "{}{}settlement", Category::Portfolio},
    {"settlements_topic", "{}{}settlements", Category::Portfolio},
    {"margin_topic", "{}{}margin", Category::Portfolio},
    {"account_balance_topic", "{}{}account_balance", Category::Portfolio},
    {"update_price_topic", "{}{}update_price", Category::OrderOrPaper},
    {"update_qty_topic", "{}{}update_qty", Category::OrderOrPaper},
    {"stock_reserve_summary_topic", "{}{}stock_reserve_summary", Category::Order},
    {"stock_reserve_detail_topic", "{}{}stock_reserve_detail", Category::Order},
    {"reserve_stock_topic", "{}{}reserve_stock", Category::Order},
    {"earmarking_detail_topic", "{}{}earmarking_detail", Category::Order},
    {"reserve_earmarking_topic", "{}{}reserve_earmarking", Category::Order},
    {"ticks_topic", "{}{}ticks", Category::Data},
    {"credit_enquire_topic", "{}{}credit_enquire", Category::Data},
    {"kbars_topic", "{}{}kbars", Category::Data},
    {"snapshots_topic", "{}{}snapshots", Category::Data},
    {"short_stock_source_topic", "{}{}short_stock_sources", Category::Data},
    {"data_contracts_topic", "{}{}contracts", Category::Data},
    {"scanner_topic", "{}{}scanner", Category::Data},
    {"daily_quotes_topic", "{}{}daily_quotes", Category::Data},
};
static_assert(sizeof(kTopics) / sizeof(kTopics[0]) == 38, "one row per service topic");

const char* category_attr(Category category, bool simulation) {
  switch (category) {
    case Category::Auth: return "category_auth";
    case Category::Order: return "category_order";
    case Category::Portfolio: return "category_portfolio";
    case Category::Data: return "category_data";
    case Category::OrderOrPaper: return simulation ? "category_paper" : "category_order";
    case Category::PortfolioOrPaper: return simulation ? "category_paper" : "category_portfolio";
  }
  return "category_data";
}

template <typename... Args>
void builtin_print(Args&&... args) {
  builtin(QV_NAME("print"))(std::forward<Args>(args)...);
}

// The nine printing handlers a new instance starts with, in the order they are set.
struct DefaultHandlers {
  nb::object quote, tick_stk, tick_fop, bidask_stk, bidask_fop, quote_stk, order, session_down, event;
};

DefaultHandlers make_default_handlers() {
  auto two = [](const char* name, const char* a, const char* b) {
    return nb::cpp_function([](nb::handle x, nb::handle y) { builtin_print(x, y); }, nb::name(name),
                            nb::arg(a).none(), nb::arg(b).none());
  };
  DefaultHandlers h;
  h.quote = two("on_quote_callback", "topic", "msg");
  h.tick_stk = two("on_tick_stk_v1_callback", "exchange", "tick");
  h.tick_fop = two("on_tick_fop_v1_callback", "exchange", "tick");
  h.bidask_stk = two("on_bidask_stk_v1_callback", "exchange", "bidask");
  h.bidask_fop = two("on_bidask_fop_v1_callback", "exchange", "bidask");
  h.quote_stk = two("on_quote_stk_v1_callback", "exchange", "bidask");
  h.order = two("on_order_callback", "topic", "msg");
  h.session_down =
      nb::cpp_function([]() { builtin_print("Session Down."); }, nb::name("on_session_down_callback"));
  h.event = nb::cpp_function(
      [](nb::handle resp_code, nb::handle event_code, nb::handle info, nb::handle event) {
        builtin_print(format("Response Code: {} | Event Code: {} | Info: {} | Event: {}", resp_code,
                             event_code, info, event));
      },
      nb::name("on_event_callback"), nb::arg("resp_code").none(), nb::arg("event_code").none(),
      nb::arg("info").none(), nb::arg("event").none());
  return h;
}

}  // namespace

void define_frame(ApiClass& api) {
  const DefaultHandlers handlers = make_default_handlers();
  // One dict made when the class is defined and shared by every call that omits `proxies`.
  nb::dict shared_proxies;

  api.method(
      "__init__",
      [handlers](nb::handle self, nb::handle host, nb::handle vpn, nb::handle user, nb::handle password,
                 nb::handle simulation, nb::handle proxies, nb::handle connect_timeout_ms,
                 nb::handle reconnect_retries, nb::handle keep_alive_ms, nb::handle reconnect_retry_wait,
                 nb::handle keep_alive_limit) {
        auto set = [&](const char* name, nb::handle value) { nb::setattr(self, name, value); };
        set("session", module_attr(QV_NAME("SolClient"))());
        set("accounts", nb::list());
        set("default_stock_account", nb::none());
        set("default_futopt_account", nb::none());
        set("Contracts", module_attr(QV_NAME("new_contracts"))());
        set("activated_ca", nb::dict());
        set("contract_all_fetched", nb::int_(0));
        set("api_ver", nb::str("api/v1/"));
        set("category_auth", nb::str("auth/"));
        set("category_order", nb::str("order/"));
        set("category_data", nb::str("data/"));
        set("category_portfolio", nb::str("portfolio/"));
        set("category_paper", nb::str("paper/"));
        set("_simulation", simulation);

        const bool sim = truthy(simulation);
        nb::object api_ver = attr(self, "api_ver");
        for (const TopicRow& row : kTopics) {
          set(row.attr, format(row.format, api_ver, attr(self, category_attr(row.category, sim))));
        }

        set("_person_id", nb::none());
        set("_public_ip", nb::none());
        set("_trades", nb::dict());
        set("_combotrades", nb::dict());
        set("_positions", nb::dict());
        set("_profit_loss", nb::dict());
        set("_reqrep", nb::dict());
        set("context", nb::dict());

        set("on_quote_callback", handlers.quote);
        set("on_tick_stk_v1_callback", handlers.tick_stk);
        set("on_tick_fop_v1_callback", handlers.tick_fop);
        set("on_bidask_stk_v1_callback", handlers.bidask_stk);
        set("on_bidask_fop_v1_callback", handlers.bidask_fop);
        set("on_quote_stk_v1_callback", handlers.quote_stk);
        set("on_order_callback", handlers.order);
        set("on_session_down_callback", handlers.session_down);
        set("on_event_callback", handlers.event);

        set("_rep_callback_map", nb::dict());
        nb::dict setup;
        setup["host"] = host;
        setup["vpn"] = vpn;
        setup["user"] = user;
        setup["password"] = password;
        setup["connect_timeout_ms"] = connect_timeout_ms;
        setup["reconnect_retries"] = reconnect_retries;
        setup["keep_alive_ms"] = keep_alive_ms;
        setup["reconnect_retry_wait"] = reconnect_retry_wait;
        setup["keep_alive_limit"] = keep_alive_limit;
        set("__sol_setup__", setup);

        attr(self, "set_init_callback")();
        set("tft", nb::bool_(false));
        module_attr(QV_NAME("atexit")).attr("register")(attr(self, "logout"));
        set("_prev_trace_log_ts", nb::float_(0.0));
      },
      nb::arg("host"), nb::arg("vpn"), nb::arg("user"), nb::arg("password"), nb::arg("simulation"),
      nb::arg("proxies") = shared_proxies, nb::arg("connect_timeout_ms") = 3000,
      nb::arg("reconnect_retries") = 10, nb::arg("keep_alive_ms") = 3000,
      nb::arg("reconnect_retry_wait") = 3000, nb::arg("keep_alive_limit") = 3);

  api.method("set_init_callback", [](nb::handle self) {
    nb::object session = attr(self, "session");
    session.attr("set_msg_callback")(attr(self, "on_msg_wrap"));
    session.attr("set_p2p_callback")(attr(self, "on_p2p_wrap"));
    session.attr("set_event_callback")(attr(self, "on_event_wrap"));
  });

  api.method(
      "set_context", [](nb::handle self, nb::handle context) { nb::setattr(self, "context", context); },
      nb::arg("context"));

  api.method(
      "set_callback", [](nb::handle self, nb::handle func) { attr(self, "set_quote_callback")(func); },
      nb::arg("func"));

  api.method("__del__", [](nb::handle self) {
    nb::object session = attr(self, "session");
    if (truthy(attr(session, "sol"))) {
      attr(self, "logout")();
      attr(self, "session").attr("disconnect")();
    }
  });
}

}  // namespace quorvex::api
