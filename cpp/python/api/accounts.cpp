// SolaceAPI: balance, margin, settlements, positions, profit and loss.
//
// Every query here sends the account's dict form (with a few keys beside it for the listings)
// and reads its rows beside the reply's `account` block, which is tested only for presence:
// a 200 reply without it is logged and leaves the result as it was placed.
#include "api.hpp"

namespace quorvex::api {
namespace {

// The margin sheet's fields, in the order its placeholder is built; every one starts at 0.
constexpr const char* kMarginFields[] = {
    "yesterday_balance",
    "today_balance",
    "deposit_withdrawal",
    "fee",
    "tax",
    "initial_margin",
    "maintenance_margin",
    "margin_call",
    "risk_indicator",
    "royalty_revenue_expenditure",
    "equity",
    "equity_amount",
    "option_openbuy_market_value",
    "option_opensell_market_value",
    "option_open_position",
    "option_settle_profitloss",
    "future_open_position",
    "today_future_open_position",
    "future_settle_profitloss",
    "available_margin",
    "plus_margin",
    "plus_margin_indicator",
    "security_collateral_amount",
    "order_margin_premium",
    "collateral_amount",
};
static_assert(sizeof(kMarginFields) / sizeof(kMarginFields[0]) == 25, "the margin sheet has 25 fields");

nb::object fetch_status(const char* member) { return attr(module_attr(QV_NAME("FetchStatus")), member); }

nb::object account_payload(nb::handle account) { return attr(account, QV_NAME("dict"))(); }

// The cache key of a queried account: broker id then account id, no separator.
nb::object account_key(nb::handle account) {
  nb::object broker_id = attr(account, QV_NAME("broker_id"));  // read in argument order, as Python would
  return format("{}{}", broker_id, attr(account, QV_NAME("account_id")));
}

// The cache key of a reply's account, by plain concatenation of its two fields. Given the raw
// block of a reply that carried no account, it fails with AttributeError.
nb::object reply_account_key(nb::handle account) {
  nb::object broker_id = attr(account, QV_NAME("broker_id"));
  nb::object account_id = attr(account, QV_NAME("account_id"));
  PyObject* key = PyNumber_Add(broker_id.ptr(), account_id.ptr());
  if (!key) throw nb::python_error();
  return nb::steal(key);
}

nb::object get_item(nb::handle mapping, nb::handle key) {
  PyObject* item = PyObject_GetItem(mapping.ptr(), key.ptr());
  if (!item) throw nb::python_error();
  return nb::steal(item);
}
nb::object get_item(nb::handle mapping, const char* key) {
  return get_item(mapping, nb::handle(nb::str(key)));
}

// A futures broker's account key starts with "F"; its detail payloads carry fewer keys.
bool is_futures_key(nb::handle key) { return truthy(attr(key, QV_NAME("startswith"))("F")); }

// What a 200 reply of an account query carries: `response` (an empty list when absent) and
// the `account` block inside it.
struct AccountReply {
  nb::object response;
  nb::object account;
};
AccountReply account_reply(nb::handle resp) {
  AccountReply reply;
  reply.response = get(resp, QV_NAME("response"), empty_list());
  reply.account = get(reply.response, QV_NAME("account"), empty_dict());
  return reply;
}

// Account(**block) of a reply, and whether its type is the stock type: the listings and the
// summary compare it with the text "S", the detail handlers with AccountType.Stock.
nb::object reply_account(nb::handle block) {
  return call_with_fields(module_attr(QV_NAME("Account")), block);
}
bool is_stock(nb::handle account, nb::handle stock) {
  return equals(attr(account, QV_NAME("account_type")), stock);
}
nb::object record_class(bool stock, const char* stock_cls, const char* future_cls) {
  return module_attr(stock ? stock_cls : future_cls);
}

// ---- the per-account caches of positions and profit and loss ----------------------

struct CachedListing {
  const char* topic_attr;
  const char* handler_attr;
  const char* cache_attr;  // `_positions` or `_profit_loss`
  const char* rows_key;    // the reply's row list beside `account`
  const char* stock_cls;
  const char* future_cls;
};

constexpr CachedListing kPositions{"list_positions_topic", "_list_positions_cb", "_positions", "positions",
                                   "StockPosition",        "FuturePosition"};
constexpr CachedListing kProfitLoss{"list_profit_loss_topic", "_list_profit_loss_cb",
                                    "_profit_loss",           "profitloss",
                                    "StockProfitLoss",        "FutureProfitLoss"};

// Differs from the shared sequence: nothing goes into _reqrep; the result is the account's
// cache entry, replaced by a fresh list only after the request is sent, so a reply racing
// ahead of that fills the previous list. The caller gets the very list the reply fills.
nb::object send_cached_listing(nb::handle self, const CachedListing& listing, nb::handle account,
                               nb::handle payload, nb::handle timeout, nb::handle cb) {
  nb::object corrid = new_corrid(self);
  nb::object key = account_key(account);
  const bool blocking = truthy(timeout);
  if (!blocking) set_item(attr(self, QV_NAME("_rep_callback_map")), corrid, cb);
  nb::object topic = attr(self, listing.topic_attr);
  nb::object handler = attr(self, listing.handler_attr);
  nb::object resp = send_request(self, topic, payload, corrid, timeout, handler);
  set_item(attr(self, listing.cache_attr), key, nb::list());
  if (blocking) handler(topic, corrid, resp);
  return get_item(attr(self, listing.cache_attr), key);
}

void fill_cached_listing(nb::handle self, const CachedListing& listing, nb::handle corrid, nb::handle resp) {
  nb::object cb = pop(attr(self, QV_NAME("_rep_callback_map")), corrid, nb::none());
  nb::object status_code = status_code_of(resp);
  nb::object account;  // the reply's Account record, or its raw block when it carried none
  if (is_ok(status_code)) {
    AccountReply reply = account_reply(resp);
    nb::object rows = get(reply.response, listing.rows_key, empty_list());
    if (truthy(reply.account)) {
      account = reply_account(reply.account);
      nb::object key = reply_account_key(account);
      nb::object cache = attr(self, listing.cache_attr);
      nb::object cached = get_item(cache, key);  // KeyError for an account never listed
      cached.attr("clear")();
      nb::object cls = record_class(is_stock(account, nb::str("S")), listing.stock_cls, listing.future_cls);
      cached.attr("extend")(records_from(cls, rows));
      set_item(cache, key, cached);
    } else {
      account = reply.account;
      log_error(reply.account);
    }
  } else {
    raise_resp_error(self, status_code, resp);
  }
  if (!truthy(cb)) return;
  // Reached without an account only when a substituted raise_resp_error let a refusal pass.
  if (!account.is_valid()) {
    nb::object message = format(
        "local variable 'account' referenced before assignment: the refused reply (status {}) names no "
        "account "
        "whose cached list could be given to the callback",
        status_code);
    PyErr_SetObject(PyExc_UnboundLocalError, message.ptr());
    throw nb::python_error();
  }
  cb(get_item(attr(self, listing.cache_attr), reply_account_key(account)));
}

void cached_listing_handler(ApiClass& api, const CachedListing& listing) {
  api.method(
      listing.handler_attr,
      [&listing](nb::handle self, nb::handle /*topic*/, nb::handle corrid, nb::handle resp) {
        fill_cached_listing(self, listing, corrid, resp);
      },
      nb::arg("topic"), nb::arg("corrid"), nb::arg("resp"));
}

// The cached item a detail query asks about: the first of the account's cached items whose
// `id` equals `detail_id`. None when the query stops without sending: refused in simulation,
// or the account never listed or holding no such item; the caller also stops on a falsy item.
nb::object detail_target(nb::handle self, const char* method, const char* cache_attr, nb::handle key,
                         nb::handle detail_id) {
  if (refuse_in_simulation(self, method)) return nb::none();
  nb::object cached = get(attr(self, cache_attr), key, nb::bool_(false));
  if (!truthy(cached)) return nb::none();
  for (nb::handle item : cached) {
    if (equals(attr(item, QV_NAME("id")), detail_id)) return nb::borrow(item);
  }
  return nb::none();
}

nb::object profit_loss_summary(nb::handle status) {
  return module_attr(QV_NAME("ProfitLossSummaryTotal"))("profitloss_summary"_a = nb::list(),
                                                        "total"_a = module_attr(QV_NAME("ProfitLossTotal"))(),
                                                        "status"_a = status);
}

// Adds the reply handler `name` of an account query: a 200 reply is applied to the result by
// `apply(reply, result)` when it names its account and logged otherwise, any other status
// is raised, and the caller's callback runs last.
template <typename Apply>
void account_reply_handler(ApiClass& api, const char* name, Apply apply) {
  api.method(
      name,
      [apply](nb::handle self, nb::handle /*topic*/, nb::handle corrid, nb::handle resp) {
        Reply r = begin_reply(self, corrid, resp);
        if (r.ok()) {
          AccountReply reply = account_reply(resp);
          if (truthy(reply.account)) {
            apply(reply, r.result);
          } else {
            log_error(reply.account);
          }
        } else {
          raise_resp_error(self, r.status_code, resp);
        }
        r.call_back();
      },
      nb::arg("topic"), nb::arg("corrid"), nb::arg("resp"));
}

}  // namespace

void define_accounts(ApiClass& api) {
  import_names(api, {"AccountBalance", "Margin", "Settlement", "SettlementV1", "StockPosition",
                     "FuturePosition", "StockPositionDetail", "FuturePositionDetail", "StockProfitLoss",
                     "FutureProfitLoss", "StockProfitDetail", "FutureProfitDetail", "StockProfitLossSummary",
                     "FutureProfitLossSummary", "ProfitLossTotal", "ProfitLossSummaryTotal"});

  // ---- balance and margin ----

  api.method(
      "account_balance",
      [](nb::handle self, nb::handle account, nb::handle timeout, nb::handle cb) -> nb::object {
        auto balance = [](const char* status) {
          return module_attr(QV_NAME("AccountBalance"))("acc_balance"_a = 0, "date"_a = "", "errmsg"_a = "",
                                                        "status"_a = fetch_status(status));
        };
        nb::object payload = account_payload(account);
        nb::object corrid = new_corrid(self);  // drawn before the refusal: a simulated call uses one too
        if (refuse_in_simulation(self, "account_balance")) return balance("Fetched");
        return send_query(self, {"account_balance_topic", "_account_balance_cb"}, corrid, payload, timeout,
                          cb, [&] { return balance("Fetching"); });
      },
      nb::arg("account"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  account_reply_handler(api, "_account_balance_cb", [](const AccountReply& reply, nb::handle balance) {
    nb::object acc_balance = get(reply.response, QV_NAME("acc_balance"), nb::int_(0));
    nb::object date = get(reply.response, QV_NAME("date"), local_now_text("%Y-%m-%d %H:%M:%S"));
    nb::object errmsg = get(reply.response, QV_NAME("errmsg"), nb::str(""));
    balance.attr("lazy_setter")("acc_balance"_a = acc_balance, "date"_a = date, "errmsg"_a = errmsg);
  });

  api.method(
      "margin",
      [](nb::handle self, nb::handle account, nb::handle timeout, nb::handle cb) -> nb::object {
        auto sheet = [](const char* status) {
          nb::dict fields;
          for (const char* name : kMarginFields) fields[name] = 0;
          fields["status"] = fetch_status(status);
          return call_with_fields(module_attr(QV_NAME("Margin")), fields);
        };
        nb::object payload = account_payload(account);
        nb::object corrid = new_corrid(self);
        if (refuse_in_simulation(self, "margin")) return sheet("Fetched");
        return send_query(self, {"margin_topic", "_margin_cb"}, corrid, payload, timeout, cb,
                          [&] { return sheet("Fetching"); });
      },
      nb::arg("account"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  // Whatever keys the sheet holds go to the record; it decides what it accepts.
  account_reply_handler(api, "_margin_cb", [](const AccountReply& reply, nb::handle sheet) {
    call_with_fields(attr(sheet, QV_NAME("lazy_setter")),
                     get(reply.response, QV_NAME("margins"), empty_dict()));
  });

  // ---- settlements ----

  api.method(
      "settlements",
      [](nb::handle self, nb::handle account, nb::handle timeout, nb::handle cb) -> nb::object {
        nb::object payload = account_payload(account);
        nb::object corrid = new_corrid(self);
        if (refuse_in_simulation(self, "settlements")) return nb::list();
        return send_query(self, {"settlements_topic", "_settlements_cb"}, corrid, payload, timeout, cb,
                          [] { return nb::list(); });
      },
      nb::arg("account"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  account_reply_handler(api, "_settlements_cb", [](const AccountReply& reply, nb::handle rows) {
    nb::object settlements = get(reply.response, QV_NAME("settlements"), empty_list());
    rows.attr("extend")(records_from(module_attr(QV_NAME("SettlementV1")), settlements));
  });

  // No simulation refusal: the settlement sheet is asked for in both modes.
  api.method(
      "list_settlements",
      [](nb::handle self, nb::handle account, nb::handle timeout, nb::handle cb) -> nb::object {
        nb::object payload = account_payload(account);
        nb::object corrid = new_corrid(self);
        return send_query(
            self, {"list_settlement_topic", "_list_settlements_cb"}, corrid, payload, timeout, cb, [] {
              return module_attr(QV_NAME("Settlement"))("t_money"_a = 0, "t1_money"_a = 0, "t2_money"_a = 0,
                                                        "t_day"_a = "", "t1_day"_a = "", "t2_day"_a = "",
                                                        "status"_a = fetch_status("Fetching"));
            });
      },
      nb::arg("account"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  account_reply_handler(api, "_list_settlements_cb", [](const AccountReply& reply, nb::handle sheet) {
    call_with_fields(attr(sheet, QV_NAME("lazy_setter")),
                     get(reply.response, QV_NAME("settlements"), empty_dict()));
  });

  // ---- positions ----

  // No simulation refusal: in simulation the topic names the paper-trading service.
  api.method(
      "list_positions",
      [](nb::handle self, nb::handle account, nb::handle unit, nb::handle timeout,
         nb::handle cb) -> nb::object {
        nb::dict payload;
        payload["account"] = account_payload(account);
        payload["unit"] = unit;
        return send_cached_listing(self, kPositions, account, payload, timeout, cb);
      },
      nb::arg("account"), nb::arg("unit"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  cached_listing_handler(api, kPositions);

  // Reads the cache filled by list_positions: an unknown account or id sends nothing.
  api.method(
      "list_position_detail",
      [](nb::handle self, nb::handle account, nb::handle detail_id, nb::handle timeout,
         nb::handle cb) -> nb::object {
        nb::object key = account_key(account);
        nb::object position = detail_target(self, "list_position_detail", "_positions", key, detail_id);
        if (!truthy(position)) return nb::list();
        nb::dict payload;
        payload["account"] = account_payload(account);
        if (is_futures_key(key)) {
          payload["code"] = get_item(position, "code");
          payload["action"] = get_item(position, "direction");
        } else {
          payload["code"] = attr(position, "code");
          payload["action"] = attr(position, "direction");
          payload["ttype"] = attr(position, "cond");
        }
        nb::object corrid = new_corrid(self);
        return send_query(self, {"list_position_detail_topic", "_list_position_detail_cb"}, corrid, payload,
                          timeout, cb, [] { return nb::list(); });
      },
      nb::arg("account"), nb::arg("detail_id"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  // Neither raises nor calls back: a refused detail leaves the caller's list empty, and the
  // rows reach the caller only through that list.
  api.method(
      "_list_position_detail_cb",
      [](nb::handle self, nb::handle topic, nb::handle corrid, nb::handle resp) {
        Reply r = begin_reply(self, corrid, resp);
        if (!r.ok()) return;
        AccountReply reply = account_reply(resp);
        nb::object rows = get(reply.response, QV_NAME("position_detail"), empty_list());
        if (truthy(reply.account)) {
          nb::object account = reply_account(reply.account);
          const bool stock = is_stock(account, attr(module_attr(QV_NAME("AccountType")), QV_NAME("Stock")));
          nb::object cls = record_class(stock, "StockPositionDetail", "FuturePositionDetail");
          r.result.attr("extend")(records_from(cls, rows));
        } else {
          log_error(reply.account);
        }
      },
      nb::arg("topic"), nb::arg("corrid"), nb::arg("resp"));

  // ---- profit and loss ----

  // No simulation refusal: in simulation the topic names the paper-trading service.
  api.method(
      "list_profit_loss",
      [](nb::handle self, nb::handle account, nb::handle begin_date, nb::handle end_date, nb::handle timeout,
         nb::handle cb) -> nb::object {
        nb::dict payload;
        payload["account"] = account_payload(account);
        payload["begin_date"] = begin_date;
        payload["end_date"] = end_date;
        return send_cached_listing(self, kProfitLoss, account, payload, timeout, cb);
      },
      nb::arg("account"), nb::arg("begin_date"), nb::arg("end_date"), nb::arg("timeout") = 5000,
      nb::arg("cb") = nb::none());

  cached_listing_handler(api, kProfitLoss);

  // Reads the cache filled by list_profit_loss; the item's values are read by key.
  api.method(
      "list_profit_loss_detail",
      [](nb::handle self, nb::handle account, nb::handle detail_id, nb::handle timeout,
         nb::handle cb) -> nb::object {
        nb::object key = account_key(account);
        nb::object item = detail_target(self, "list_profit_loss_detail", "_profit_loss", key, detail_id);
        if (!truthy(item)) return nb::list();
        nb::dict payload;
        payload["account"] = account_payload(account);
        payload["stock"] = get_item(item, "code");
        if (is_futures_key(key)) {
          payload["tdate"] = get_item(item, "date");
        } else {
          payload["ttype"] = get_item(item, "cond");
          payload["tdate"] = get_item(item, "date");
          payload["seqno"] = get_item(item, "seqno");
          payload["price"] = get_item(item, "price");
          payload["dseq"] = get_item(item, "dseq");
        }
        nb::object corrid = new_corrid(self);
        return send_query(self, {"list_profit_loss_detail_topic", "_list_profit_loss_detail_cb"}, corrid,
                          payload, timeout, cb, [] { return nb::list(); });
      },
      nb::arg("account"), nb::arg("detail_id"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  account_reply_handler(api, "_list_profit_loss_detail_cb", [](const AccountReply& reply, nb::handle rows) {
    nb::object details = get(reply.response, QV_NAME("profitdetail"), empty_list());
    nb::object account = reply_account(reply.account);
    const bool stock = is_stock(account, attr(module_attr(QV_NAME("AccountType")), QV_NAME("Stock")));
    rows.attr("extend")(
        records_from(record_class(stock, "StockProfitDetail", "FutureProfitDetail"), details));
  });

  api.method(
      "list_profit_loss_summary",
      [](nb::handle self, nb::handle account, nb::handle begin_date, nb::handle end_date, nb::handle timeout,
         nb::handle cb) -> nb::object {
        nb::dict payload;
        payload["account"] = account_payload(account);
        payload["begin_date"] = begin_date;
        payload["end_date"] = end_date;
        nb::object corrid = new_corrid(self);
        if (refuse_in_simulation(self, "list_profit_loss_summary"))
          return profit_loss_summary(fetch_status("Fetched"));
        const bool blocking = truthy(timeout);
        if (!blocking) set_item(attr(self, QV_NAME("_rep_callback_map")), corrid, cb);
        nb::object handler = attr(self, "_list_profit_loss_summary_cb");
        nb::object placeholder = profit_loss_summary(fetch_status("Fetching"));
        set_item(attr(self, QV_NAME("_reqrep")), corrid, placeholder);  // before the send, as for every query
        nb::object resp = send_request(self, attr(self, "list_profit_loss_summary_topic"), payload, corrid,
                                       timeout, handler);
        // The blocking path hands the handler the topic held in `list_profit_loss_sum_topic`,
        // which the constructor does not set: the call fails there with AttributeError after
        // the request went out, and the placeholder stays in _reqrep.
        if (blocking) handler(attr(self, "list_profit_loss_sum_topic"), corrid, resp);
        return placeholder;
      },
      nb::arg("account"), nb::arg("begin_date"), nb::arg("end_date"), nb::arg("timeout") = 5000,
      nb::arg("cb") = nb::none());

  account_reply_handler(
      api, "_list_profit_loss_summary_cb", [](const AccountReply& reply, nb::handle summary) {
        nb::object rows = get(reply.response, QV_NAME("profitloss_sum"), empty_list());
        // An absent total defaults to a list, which is no mapping of fields: TypeError.
        nb::object total = get(reply.response, QV_NAME("total"), empty_list());
        nb::object account = reply_account(reply.account);
        nb::object cls = record_class(is_stock(account, nb::str("S")), "StockProfitLossSummary",
                                      "FutureProfitLossSummary");
        nb::list summary_rows = records_from(cls, rows);
        nb::object total_record = call_with_fields(module_attr(QV_NAME("ProfitLossTotal")), total);
        summary.attr("lazy_setter")("profitloss_summary"_a = summary_rows, "total"_a = total_record);
      });
}

}  // namespace quorvex::api
