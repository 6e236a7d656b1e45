// SolaceAPI: quote subscription and routing, history, snapshots, scanners.
#include <cstring>

#include "api.hpp"

namespace quorvex::api {
namespace {

// ---- quote routing -------------------------------------------------------------------

// One typed quote family: the topic prefix, the record type and constructor that read its
// content, and the handler attribute that receives (exchange, record).
struct QuoteFamily {
  const char* prefix;
  bool futures_options;  // exchange is always Exchange.TAIFEX, the topic's fifth component unused
  nb::handle (*record)();
  nb::handle (*constructor)();
  nb::handle (*handler)();
};

#define QV_INTERNED(lit) +[]() { return QV_NAME(lit); }

// Tried in this order; the first prefix that matches wins.
const QuoteFamily kQuoteFamilies[] = {
    {"TIC/v1/STK", false, QV_INTERNED("TickSTKv1"), QV_INTERNED("from_content"),
     QV_INTERNED("on_tick_stk_v1_callback")},
    {"TIC/v1/FOP", true, QV_INTERNED("TickFOPv1"), QV_INTERNED("from_content"),
     QV_INTERNED("on_tick_fop_v1_callback")},
    {"QUO/v1/STK", false, QV_INTERNED("BidAskSTKv1"), QV_INTERNED("from_content"),
     QV_INTERNED("on_bidask_stk_v1_callback")},
    {"QUO/v1/FOP", true, QV_INTERNED("BidAskFOPv1"), QV_INTERNED("from_content"),
     QV_INTERNED("on_bidask_fop_v1_callback")},
    {"TIC/v1/ODD", false, QV_INTERNED("TickSTKv1"), QV_INTERNED("from_content_odd"),
     QV_INTERNED("on_tick_stk_v1_callback")},
    {"QUO/v1/ODD", false, QV_INTERNED("BidAskSTKv1"), QV_INTERNED("from_content_odd"),
     QV_INTERNED("on_bidask_stk_v1_callback")},
    {"QUO/v2/STK", false, QV_INTERNED("QuoteSTKv1"), QV_INTERNED("from_content"),
     QV_INTERNED("on_quote_stk_v1_callback")},
};

#undef QV_INTERNED

bool starts_with(const char* text, Py_ssize_t size, const char* prefix) {
  const std::size_t length = std::strlen(prefix);
  return static_cast<std::size_t>(size) >= length && std::memcmp(text, prefix, length) == 0;
}

bool ends_with(const char* text, Py_ssize_t size, const char* suffix) {
  const std::size_t length = std::strlen(suffix);
  return static_cast<std::size_t>(size) >= length && std::memcmp(text + size - length, suffix, length) == 0;
}

// The exchange of a stock quote topic: its fifth component of exactly six, as an Exchange.
// The wrong number of components fails as unpacking six names would.
nb::object topic_exchange(const char* text, Py_ssize_t size) {
  Py_ssize_t components = 1;
  Py_ssize_t begin = 0, end = 0;
  for (Py_ssize_t i = 0; i < size; ++i) {
    if (text[i] != '/') continue;
    if (components == 4) begin = i + 1;
    if (components == 5) end = i;
    ++components;
  }
  if (components < 6) {
    PyErr_Format(PyExc_ValueError, "need more than %zd value%.1s to unpack", components,
                 components == 1 ? "" : "s");
    throw nb::python_error();
  }
  if (components > 6) {
    PyErr_SetString(PyExc_ValueError, "too many values to unpack (expected 6)");
    throw nb::python_error();
  }
  nb::object code = checked(PyUnicode_DecodeUTF8(text + begin, end - begin, nullptr));
  nb::object exchange = module_attr(QV_NAME("Exchange"));
  // An enumeration keeps its members by value; a hit is exactly what Exchange(code) returns.
  PyObject* members = PyObject_GetAttr(exchange.ptr(), QV_NAME("_value2member_map_").ptr());
  if (!members) {
    PyErr_Clear();
  } else {
    nb::object owned = nb::steal(members);
    if (PyDict_CheckExact(members)) {
      PyObject* member = PyDict_GetItemWithError(members, code.ptr());
      if (member) return nb::borrow(member);
      if (PyErr_Occurred()) throw nb::python_error();
    }
  }
  return exchange(code);
}

// `record_type.<constructor>(*quote["content"])`, handing the content's items over without
// building an argument tuple.
nb::object build_record(const QuoteFamily& family, nb::handle quote) {
  nb::object content;
  if (PyDict_CheckExact(quote.ptr())) {
    PyObject* item = PyDict_GetItemWithError(quote.ptr(), QV_NAME("content").ptr());
    if (!item) {
      if (!PyErr_Occurred()) PyErr_SetObject(PyExc_KeyError, QV_NAME("content").ptr());
      throw nb::python_error();
    }
    content = nb::borrow(item);
  } else {
    content = checked(PyObject_GetItem(quote.ptr(), QV_NAME("content").ptr()));
  }
  nb::object constructor = attr(module_attr(family.record()), family.constructor());
  nb::object elements = checked(PySequence_Fast(content.ptr(), "a quote message's content must be a list"));
  return checked(NB_VECTORCALL(constructor.ptr(), PySequence_Fast_ITEMS(elements.ptr()),
                               static_cast<size_t>(PySequence_Fast_GET_SIZE(elements.ptr())), nullptr));
}

void route_quote(nb::handle self, nb::handle topic, nb::handle quote) {
  if (!PyUnicode_Check(topic.ptr())) {
    PyErr_Format(PyExc_TypeError, "a quote topic must be str, got %.200s", Py_TYPE(topic.ptr())->tp_name);
    throw nb::python_error();
  }
  Py_ssize_t size = 0;
  const char* text = PyUnicode_AsUTF8AndSize(topic.ptr(), &size);
  if (!text) throw nb::python_error();

  for (const QuoteFamily& family : kQuoteFamilies) {
    if (!starts_with(text, size, family.prefix)) continue;
    nb::object exchange = family.futures_options ? attr(module_attr(QV_NAME("Exchange")), QV_NAME("TAIFEX"))
                                                 : topic_exchange(text, size);
    nb::object record = build_record(family, quote);
    attr(self, family.handler())(exchange, record);
    return;
  }

  // Untyped messages; legacy odd-lot ones are converted to the library's field names first.
  nb::object message = nb::borrow(quote);
  if (ends_with(text, size, "ODDLOT")) {
    if (starts_with(text, size, "TIC")) {
      message = module_attr(QV_NAME("intraday_odd_tic_convert"))(quote);
    } else if (starts_with(text, size, "QUO")) {
      message = module_attr(QV_NAME("intraday_odd_quo_convert"))(quote);
    }
  }
  attr(self, QV_NAME("on_quote_callback"))(topic, message);
}

// ---- queries -------------------------------------------------------------------------

[[noreturn]] void raise_plain(const char* message) {
  PyErr_SetString(PyExc_Exception, message);
  throw nb::python_error();
}

// A column record (Ticks, Kbars, DailyQuotes) with every column an empty list.
nb::object empty_columns(const char* record, std::initializer_list<const char*> columns) {
  nb::dict fields;
  for (const char* column : columns) fields[column] = nb::list();
  return call_with_fields(module_attr(record), fields);
}

// [c.dict() for c in contracts]
nb::list contract_dicts(nb::handle contracts) {
  nb::list dicts;
  for (nb::handle contract : contracts) dicts.append(attr(contract, "dict")());
  return dicts;
}

// The handler of a column query: the whole `response` goes to the record's lazy_setter.
void columns_reply(nb::handle self, nb::handle topic, nb::handle corrid, nb::handle resp) {
  Reply reply = begin_reply(self, corrid, resp);
  if (reply.ok()) {
    call_with_fields(attr(reply.result, QV_NAME("lazy_setter")),
                     get(resp, QV_NAME("response"), empty_dict()));
  } else {
    raise_resp_error(self, reply.status_code, resp);
  }
  reply.call_back();
}

// The handler of a list query: one `record` per element of response[key], appended in reply order.
auto list_reply(const char* key, const char* record) {
  return [key, record](nb::handle self, nb::handle topic, nb::handle corrid, nb::handle resp) {
    Reply reply = begin_reply(self, corrid, resp);
    if (reply.ok()) {
      nb::object response = get(resp, QV_NAME("response"), empty_dict());
      nb::object items = get(response, key, empty_list());
      attr(reply.result, QV_NAME("extend"))(records_from(module_attr(record), items));
    } else {
      raise_resp_error(self, reply.status_code, resp);
    }
    reply.call_back();
  };
}

nb::object send_list_query(nb::handle self, const Query& query, nb::handle payload, nb::handle timeout,
                           nb::handle cb) {
  nb::object corrid = new_corrid(self);
  return send_query(self, query, corrid, payload, timeout, cb, [] { return nb::object(nb::list()); });
}

// Dates of the local calendar day the module was loaded, as "%Y-%m-%d".
struct LoadDates {
  nb::object today, yesterday;
};

LoadDates load_dates() {
  nb::object datetime = module_attr(QV_NAME("datetime"));
  nb::object today = datetime.attr("date").attr("today")();
  nb::object yesterday = today - datetime.attr("timedelta")("days"_a = 1);
  return {today.attr("strftime")("%Y-%m-%d"), yesterday.attr("strftime")("%Y-%m-%d")};
}

// The scanners' default date: the UTC calendar date 30 minutes ago, so a request made just
// after midnight UTC still asks for the day that has data.
nb::object scanner_default_date() {
  nb::object datetime = module_attr(QV_NAME("datetime"));
  nb::object now = datetime.attr("datetime").attr("now")(attr(attr(datetime, "timezone"), "utc"));
  nb::object then = now - datetime.attr("timedelta")("minutes"_a = 30);
  return then.attr("date")().attr("isoformat")();
}

void import_quote_records(ApiClass& api) {
  struct Source {
    const char* module;
    const char* names[2];
  };
  constexpr Source sources[] = {
      {"quorvex.backend.solace.tick", {"TickSTKv1", "TickFOPv1"}},
      {"quorvex.backend.solace.bidask", {"BidAskSTKv1", "BidAskFOPv1"}},
      {"quorvex.backend.solace.quote", {"contract2topic", "QuoteSTKv1"}},
  };
  for (const Source& source : sources) {
    nb::object module = nb::module_::import_(source.module);
    for (const char* name : source.names) nb::setattr(api.module(), name, nb::getattr(module, name));
  }
}

}  // namespace

void define_market_data(ApiClass& api) {
  import_names(api, {"Ticks", "Kbars", "DailyQuotes", "Snapshot", "ChangePercentRank", "CreditEnquire",
                     "ShortStockSource"});
  import_quote_records(api);

  // ---- subscriptions and routing

  nb::object tick = attr(module_attr(QV_NAME("QuoteType")), "Tick");
  nb::object v0 = attr(module_attr(QV_NAME("QuoteVersion")), "v0");
  for (const char* name : {"subscribe", "unsubscribe"}) {
    api.method(
        name,
        [name](nb::handle self, nb::handle contract, nb::handle quote_type, nb::handle intraday_odd,
               nb::handle version) {
          nb::object topic =
              module_attr(QV_NAME("contract2topic"))(contract, quote_type, intraday_odd, version);
          attr(attr(self, QV_NAME("session")), name)(topic);
        },
        nb::arg("contract"), nb::arg("quote_type") = tick, nb::arg("intraday_odd") = false,
        nb::arg("version") = v0);
  }

  api.method(
      "on_quote_wrap",
      [](nb::handle self, nb::handle topic, nb::handle quote) { route_quote(self, topic, quote); },
      nb::arg("topic"), nb::arg("quote"));

  api.method(
      "set_quote_callback",
      [](nb::handle self, nb::handle func) { nb::setattr(self, "on_quote_callback", func); },
      nb::arg("func"));

  const std::pair<const char*, const char*> typed_setters[] = {
      {"set_on_tick_stk_v1_callback", "on_tick_stk_v1_callback"},
      {"set_on_tick_fop_v1_callback", "on_tick_fop_v1_callback"},
      {"set_on_bidask_stk_v1_callback", "on_bidask_stk_v1_callback"},
      {"set_on_bidask_fop_v1_callback", "on_bidask_fop_v1_callback"},
      {"set_on_quote_stk_v1_callback", "on_quote_stk_v1_callback"},
  };
  for (const auto& [setter, handler] : typed_setters) {
    const char* handler_attr = handler;
    api.method(
        setter,
        [handler_attr](nb::handle self, nb::handle func, nb::handle bind) {
          // The context is bound now: a later set_context does not reach this handler.
          nb::object value = truthy(bind)
                                 ? module_attr(QV_NAME("partial"))(func, attr(self, QV_NAME("context")))
                                 : nb::borrow(func);
          nb::setattr(self, handler_attr, value);
        },
        nb::arg("func"), nb::arg("bind") = false);
  }

  // ---- history

  const LoadDates dates = load_dates();

  api.method(
      "ticks",
      [](nb::handle self, nb::handle contract, nb::handle date, nb::handle query_type, nb::handle time_start,
         nb::handle time_end, nb::handle last_cnt, nb::handle timeout, nb::handle cb) -> nb::object {
        nb::object query_types = module_attr(QV_NAME("TicksQueryType"));
        if (equals(query_type, attr(query_types, "RangeTime")) &&
            (time_start.is_none() || time_end.is_none())) {
          raise_plain("Please take start time and end time parameter.");
        }
        if (equals(query_type, attr(query_types, "LastCount"))) {
          const int not_positive = PyObject_RichCompareBool(last_cnt.ptr(), nb::int_(0).ptr(), Py_LE);
          if (not_positive < 0) throw nb::python_error();
          if (not_positive) raise_plain("Please take last_cnt parameter.");
        }
        nb::dict payload;
        payload["contract"] = attr(contract, "dict")();
        payload["date"] = date;
        payload["query_type"] = query_type;
        if (truthy(time_start) && truthy(time_end)) {
          nb::dict time_range;
          time_range["start"] = time_start;
          time_range["end"] = time_end;
          payload["time_range"] = time_range;
        } else {
          payload["time_range"] = nb::none();
        }
        payload["last_cnt"] = last_cnt;
        nb::object corrid = new_corrid(self);
        return send_query(self, {"ticks_topic", "_ticks_cb"}, corrid, payload, timeout, cb, [] {
          return empty_columns("Ticks", {"ts", "close", "volume", "bid_price", "bid_volume", "ask_price",
                                         "ask_volume", "tick_type"});
        });
      },
      nb::arg("contract"), nb::arg("date") = dates.today,
      nb::arg("query_type") = attr(module_attr(QV_NAME("TicksQueryType")), "AllDay"),
      nb::arg("time_start") = nb::none(), nb::arg("time_end") = nb::none(), nb::arg("last_cnt") = 0,
      nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.method(
      "kbars",
      [](nb::handle self, nb::handle contract, nb::handle start, nb::handle end, nb::handle timeout,
         nb::handle cb) -> nb::object {
        nb::dict payload;
        payload["contract"] = attr(contract, "dict")();
        payload["start"] = start;
        payload["end"] = end;
        nb::object corrid = new_corrid(self);
        return send_query(self, {"kbars_topic", "_kbars_cb"}, corrid, payload, timeout, cb, [] {
          return empty_columns("Kbars", {"ts", "Open", "High", "Low", "Close", "Volume", "Amount"});
        });
      },
      nb::arg("contract"), nb::arg("start") = dates.yesterday, nb::arg("end") = dates.today,
      nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.method(
      "daily_quotes",
      [](nb::handle self, nb::handle date, nb::handle exclude, nb::handle timeout,
         nb::handle cb) -> nb::object {
        nb::dict payload;
        payload["date"] = attr(date, "isoformat")();
        payload["exclude"] = exclude;
        nb::object corrid = new_corrid(self);
        return send_query(self, {"daily_quotes_topic", "_daily_quotes_cb"}, corrid, payload, timeout, cb, [] {
          return empty_columns("DailyQuotes", {"Date", "Code", "Open", "High", "Low", "Close", "Volume",
                                               "Transaction", "Amount"});
        });
      },
      nb::arg("date"), nb::arg("exclude"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  for (const char* handler : {"_ticks_cb", "_kbars_cb", "_daily_quotes_cb"}) {
    api.method(
        handler,
        [](nb::handle self, nb::handle topic, nb::handle corrid, nb::handle resp) {
          columns_reply(self, topic, corrid, resp);
        },
        nb::arg("topic"), nb::arg("corrid"), nb::arg("resp"));
  }

  // ---- snapshots, scanners, credit and short-stock sources

  api.method(
      "snapshots",
      [](nb::handle self, nb::handle contracts, nb::handle timeout, nb::handle cb) -> nb::object {
        // Each contract is reduced to the fields that identify it.
        nb::object base_contract = module_attr(QV_NAME("BaseContract"));
        nb::list reduced;
        for (nb::handle contract : contracts) {
          reduced.append(attr(call_with_fields(base_contract, attr(contract, "dict")()), "dict")());
        }
        nb::dict payload;
        payload["contracts"] = reduced;
        return send_list_query(self, {"snapshots_topic", "_snapshots_cb"}, payload, timeout, cb);
      },
      nb::arg("contracts"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.method(
      "scanners",
      [](nb::handle self, nb::handle scanner_type, nb::handle ascending, nb::handle date, nb::handle count,
         nb::handle timeout, nb::handle cb) -> nb::object {
        check_arg_type(date, "date", &PyUnicode_Type);
        check_arg_type(count, "count", &PyLong_Type);
        module_attr(QV_NAME("ScannerCountLimit"))("count"_a = count);
        nb::dict payload;
        payload["scanner_type"] = scanner_type;
        payload["date"] = truthy(date) ? nb::borrow(date) : scanner_default_date();
        payload["ascending"] = ascending;
        payload["count"] = count;
        return send_list_query(self, {"scanner_topic", "_scanners_cb"}, payload, timeout, cb);
      },
      nb::arg("scanner_type"), nb::arg("ascending"), nb::arg("date") = nb::none(), nb::arg("count") = 100,
      nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.method(
      "credit_enquires",
      [](nb::handle self, nb::handle contracts, nb::handle timeout, nb::handle cb) -> nb::object {
        nb::dict payload;
        payload["contracts"] = contract_dicts(contracts);
        return send_list_query(self, {"credit_enquire_topic", "_credit_enquires_cb"}, payload, timeout, cb);
      },
      nb::arg("contracts"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.method(
      "short_stock_sources",
      [](nb::handle self, nb::handle contracts, nb::handle timeout, nb::handle cb) -> nb::object {
        if (refuse_in_simulation(self, "short_stock_sources")) return nb::list();
        nb::dict payload;
        payload["contracts"] = contract_dicts(contracts);
        return send_list_query(self, {"short_stock_source_topic", "_short_stock_source_cb"}, payload, timeout,
                               cb);
      },
      nb::arg("contracts"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  const std::pair<const char*, std::pair<const char*, const char*>> list_handlers[] = {
      {"_snapshots_cb", {"snapshot", "Snapshot"}},
      {"_scanners_cb", {"scanners", "ChangePercentRank"}},
      {"_credit_enquires_cb", {"credit_enquire", "CreditEnquire"}},
      {"_short_stock_source_cb", {"short_stock_sources", "ShortStockSource"}},
  };
  for (const auto& [handler, reply] : list_handlers) {
    api.method(handler, list_reply(reply.first, reply.second), nb::arg("topic"), nb::arg("corrid"),
               nb::arg("resp"));
  }
}

}  // namespace quorvex::api
