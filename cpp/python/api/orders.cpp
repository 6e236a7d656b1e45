// SolaceAPI: orders, the trade book, and combination orders.
//
// Single and combination orders share one flow per operation; `TradeBook` names what
// differs between them (book attribute, records, topics), and each public method states
// its own payload and the few steps where the two kinds of order part ways.
#include <cmath>
#include <functional>

#include "api.hpp"

namespace quorvex::api {
namespace {

// One of the two trade books and the records and services that go with it.
struct TradeBook {
  const char* book;             // instance attribute holding the dict
  const char* trade_record;     // the trade record stored in the book
  const char* status_record;    // the status record of its trades
  const char* contract_record;  // the contract record of a trade first seen in a refresh
  const char* refresh_result;   // attribute handed to a refresh's callback
  Query place;
  Query cancel;
  Query refresh;
};

constexpr TradeBook kSingle{"_trades",
                            "Trade",
                            "OrderStatus",
                            "Contract",
                            "trades",
                            {"place_order_topic", "_place_order_cb"},
                            {"cancel_order_topic", "_cancel_order_cb"},
                            {"update_status_topic", "_update_status_cb"}};

// A combination refresh hands its callback the book dict itself, not a list.
constexpr TradeBook kCombo{"_combotrades",
                           "ComboTrade",
                           "ComboStatus",
                           "ComboContract",
                           "_combotrades",
                           {"place_comboorder_topic", "place_comboorder_cb"},
                           {"cancel_comboorder_topic", "_cancel_comboorder_cb"},
                           {"update_combostatus_topic", "_update_combostatus_cb"}};

constexpr const char* kMissingStatusCode = "Topic: {}, Status Code is None.";

// Order time shown when a placement reply carries none: a fixed instant, never the current
// time, so a reply without one cannot pass for a fresh order time.
constexpr long kFallbackOrderTs = 1568768168;

// The one cancel refusal that is recorded on the trade as a failure instead of raised.
constexpr long kCancelRefusedStatus = 400;
constexpr long kCancelRefusedStsCode = 74006;

// ---- small Python operations ---------------------------------------------------------

// mapping[key], KeyError when absent.
nb::object item(nb::handle mapping, nb::handle key) {
  return checked(PyObject_GetItem(mapping.ptr(), key.ptr()));
}

bool contains(nb::handle mapping, nb::handle key) {
  const int r = PySequence_Contains(mapping.ptr(), key.ptr());
  if (r < 0) throw nb::python_error();
  return r == 1;
}

// A library record built from the keyword fields in `fields`: Record(**fields).
nb::object build_record(const char* record, nb::handle fields) {
  nb::object cls = module_attr(record);
  nb::object no_args = checked(PyTuple_New(0));
  return checked(PyObject_Call(cls.ptr(), no_args.ptr(), fields.ptr()));
}

// mapping.update(other)
void update(nb::handle mapping, nb::handle other) {
  if (PyDict_CheckExact(mapping.ptr()) && PyDict_CheckExact(other.ptr())) {
    if (PyDict_Update(mapping.ptr(), other.ptr()) != 0) throw nb::python_error();
    return;
  }
  attr(mapping, "update")(other);
}

// record.dict() overlaid key by key with `block`, to build the record again from: the block
// wins where both have a key. Nested records stay records, and one the block restates field
// for field is kept as it is, since rebuilding it from the block would make the same record.
nb::object overlay(nb::handle record, nb::handle block) {
  nb::object fields = record_fields(record);
  if (!fields.is_valid() || !PyDict_CheckExact(block.ptr())) {
    fields = record_dict(record);
    update(fields, block);
    return fields;
  }
  PyObject *key, *value;
  Py_ssize_t pos = 0;
  while (PyDict_Next(block.ptr(), &pos, &key, &value)) {
    PyObject* current = PyDict_GetItemWithError(fields.ptr(), key);
    if (!current && PyErr_Occurred()) throw nb::python_error();
    if (current && PyDict_CheckExact(value) && !PyDict_Check(current) && same_fields(current, value))
      continue;
    if (PyDict_SetItem(fields.ptr(), key, value) != 0) throw nb::python_error();
  }
  return fields;
}

// ---- replies as logged ------------------------------------------------------------

// Keys whose values are credentials: an order's signature, a session token, a password.
constexpr const char* kSecretKeys[] = {"ca", "signature", "token", "password", "secret_key"};
constexpr const char* kHidden = "<hidden>";
constexpr int kMaxLoggedDepth = 32;

bool is_secret_key(nb::handle key) {
  if (!PyUnicode_Check(key.ptr())) return false;
  for (const char* secret : kSecretKeys) {
    if (PyUnicode_CompareWithASCIIString(key.ptr(), secret) == 0) return true;
  }
  return false;
}

// `value` with every credential in its dicts and lists replaced by "<hidden>": the object
// itself when it holds none, else a copy. A refused placement may echo the signed order.
nb::object without_secrets(nb::handle value, int depth = 0) {
  const bool is_dict = PyDict_Check(value.ptr());
  const bool is_list = PyList_Check(value.ptr()) || PyTuple_Check(value.ptr());
  if (!is_dict && !is_list) return nb::borrow(value);
  if (depth >= kMaxLoggedDepth) return nb::str("...");
  bool changed = false;
  if (is_dict) {
    nb::dict copy;
    nb::object items = checked(PyDict_Items(value.ptr()));  // a snapshot: nothing here may resize it
    for (nb::handle pair : items) {
      nb::handle key = PyTuple_GET_ITEM(pair.ptr(), 0);
      nb::handle item = PyTuple_GET_ITEM(pair.ptr(), 1);
      nb::object shown =
          is_secret_key(key) && truthy(item) ? nb::str(kHidden) : without_secrets(item, depth + 1);
      changed = changed || !shown.is(item);
      copy[key] = shown;
    }
    return changed ? nb::object(copy) : nb::borrow(value);
  }
  nb::list copy;
  for (nb::handle item : value) {
    nb::object shown = without_secrets(item, depth + 1);
    changed = changed || !shown.is(item);
    copy.append(shown);
  }
  return changed ? nb::object(copy) : nb::borrow(value);
}

[[noreturn]] void raise_object(nb::handle exc) {
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr())), exc.ptr());
  throw nb::python_error();
}

[[noreturn]] void raise_type_error(const nb::object& message) {
  PyErr_SetObject(PyExc_TypeError, message.ptr());
  throw nb::python_error();
}

[[noreturn]] void raise_value_error(const nb::object& message) {
  PyErr_SetObject(PyExc_ValueError, message.ptr());
  throw nb::python_error();
}

nb::object kind_of(nb::handle value) { return nb::str(Py_TYPE(value.ptr())->tp_name); }

// ---- argument checks of the public methods -------------------------------------------

// Refuses anything but an instance of the library record `record` (or a subclass).
void require_record(nb::handle value, const char* method, const char* param, const char* record,
                    const char* expected) {
  const int r = PyObject_IsInstance(value.ptr(), module_attr(record).ptr());
  if (r < 0) throw nb::python_error();
  if (r == 0) raise_type_error(format("{}: {} must be {}, got {}", method, param, expected, kind_of(value)));
}

// A callback is called later on the messaging thread, where a bad one could only fail
// unseen; refuse it while the caller can still see why.
void require_callback(nb::handle cb, const char* method) {
  if (cb.is_none() || PyCallable_Check(cb.ptr())) return;
  raise_type_error(
      format("{}: cb must be a callable taking the result, or None, got {}", method, kind_of(cb)));
}

// The reply handlers' typed parameters.
void check_reply_args(nb::handle topic, nb::handle corrid, nb::handle resp) {
  check_arg_type(topic, "topic", &PyUnicode_Type);
  check_arg_type(corrid, "corrid", &PyUnicode_Type);
  check_arg_type(resp, "resp", &PyDict_Type);
}

// A modification's new price: None or 0 mean "unchanged"; otherwise a finite, non-negative number.
void check_new_price(nb::handle price) {
  if (price.is_none()) return;
  if (PyBool_Check(price.ptr()) || PyComplex_Check(price.ptr()) || !PyNumber_Check(price.ptr())) {
    raise_type_error(
        format("update_order: price must be a number (the new limit price) or None, got {}", kind_of(price)));
  }
  const double value = PyFloat_AsDouble(checked(PyNumber_Float(price.ptr())).ptr());
  if (value == -1.0 && PyErr_Occurred()) throw nb::python_error();
  if (!std::isfinite(value) || value < 0) {
    raise_value_error(
        format("update_order: price must be a finite number not below 0 (the new limit price), got {}",
               nb::handle(price)));
  }
}

// A modification's quantity is what to take off the order: None or 0 mean "unchanged".
void check_quantity_reduction(nb::handle quantity) {
  if (quantity.is_none()) return;
  if (PyBool_Check(quantity.ptr()) || !PyIndex_Check(quantity.ptr())) {
    raise_type_error(format(
        "update_order: quantity must be a whole number of units to take off the order, or None, got {}",
        kind_of(quantity)));
  }
  nb::object zero = nb::int_(0);
  const int negative = PyObject_RichCompareBool(quantity.ptr(), zero.ptr(), Py_LT);
  if (negative < 0) throw nb::python_error();
  if (negative) {
    raise_value_error(format(
        "update_order: quantity is the number of units to take off the order and must not be below 0, got {}",
        nb::handle(quantity)));
  }
}

// ---- the exchange ------------------------------------------------------------------

// Sends `payload` on the query's topic with its reply handler. When blocking, runs
// `after_send` and then the handler on the returned reply, and returns what the handler
// returns; when not, runs `after_send` and returns None (the handler runs on the reply).
nb::object exchange(nb::handle self, const Query& query, nb::handle payload, nb::handle corrid,
                    nb::handle timeout, const std::function<void()>& after_send = {}) {
  nb::object topic = attr(self, query.topic_attr);
  nb::object handler = attr(self, query.handler_attr);
  nb::object resp = attr(self, QV_NAME("session"))
                        .attr(QV_NAME("request"))(topic, payload, "corrid"_a = corrid, "timeout"_a = timeout,
                                                  "cb"_a = handler);
  if (after_send) after_send();
  if (!truthy(timeout)) return nb::none();
  return handler(topic, corrid, resp);
}

void remember_callback(nb::handle self, nb::handle corrid, nb::handle cb) {
  set_item(attr(self, QV_NAME("_rep_callback_map")), corrid, cb);
}

nb::object take_callback(nb::handle self, nb::handle corrid) {
  return pop(attr(self, QV_NAME("_rep_callback_map")), corrid, nb::none());
}

nb::object inactive_status(const TradeBook& book) {
  nb::dict fields;
  fields["status"] = attr(module_attr(QV_NAME("Status")), "Inactive");
  return build_record(book.status_record, fields);
}

nb::object new_trade(const TradeBook& book, nb::handle contract, nb::handle order, nb::handle status) {
  return module_attr(book.trade_record)("contract"_a = contract, "order"_a = order, "status"_a = status);
}

// A trade's fields for a cancel or a modification: its order signed again, its status left
// out, and the tft flag added.
nb::object resigned_trade_payload(nb::handle self, nb::handle trade) {
  nb::object signed_order = attr(self, "prepare_ca")(attr(trade, "order"));
  set_attr(trade, "order", signed_order);
  nb::object payload = trade.attr("dict")();
  pop(payload, QV_NAME("status"));
  set_item(payload, QV_NAME("tft"), attr(self, QV_NAME("tft")));
  return payload;
}

// ---- placement -------------------------------------------------------------------

// The placement shared by single and combination orders once the order is signed and the
// payload built: the provisional trade (status Inactive) is stored under the correlation id
// only after the request went out, and the blocking reply re-keys it.
nb::object place(nb::handle self, const TradeBook& book, nb::handle contract, nb::handle signed_order,
                 nb::handle payload, nb::handle timeout, nb::handle cb) {
  nb::object corrid = new_corrid(self);
  // Built before anything is registered or sent, so that a record that cannot be made leaves
  // nothing behind, and only the store runs between the send and the reply's handling.
  nb::object trade = new_trade(book, contract, signed_order, inactive_status(book));
  if (!truthy(timeout)) remember_callback(self, corrid, cb);
  nb::object key = exchange(self, book.place, payload, corrid, timeout,
                            [&] { set_item(attr(self, book.book), corrid, trade); });
  // Not blocking: the trade just stored, which the reply may already be re-keying on the
  // messaging thread, so it is not looked up again under the correlation id.
  if (!truthy(timeout)) return trade;
  return item(attr(self, book.book), key);
}

nb::object place_reply(nb::handle self, const TradeBook& book, nb::handle topic, nb::handle corrid,
                       nb::handle resp) {
  check_reply_args(topic, corrid, resp);
  nb::object cb = take_callback(self, corrid);
  nb::object status_code = status_code_of(resp);
  nb::object trades = attr(self, book.book);
  nb::object key = nb::borrow(corrid);

  if (is_ok(status_code)) {
    nb::object response = get(resp, QV_NAME("response"), empty_dict());
    nb::object order_block = get(response, QV_NAME("order"), empty_dict());
    nb::object order_id = get(order_block, QV_NAME("id"), nb::str(""));
    nb::object status_block = get(response, QV_NAME("status"), empty_dict());

    // The computed "id" and "order_datetime" come first so that the reply's own keys win.
    nb::object order_ts = get(status_block, QV_NAME("order_ts"), nb::int_(kFallbackOrderTs));
    nb::dict status_fields;
    status_fields["id"] = order_id;
    status_fields["order_datetime"] =
        attr(attr(module_attr(QV_NAME("datetime")), "datetime"), "fromtimestamp")(order_ts);
    update(status_fields, status_block);

    nb::object trade = item(trades, corrid);
    set_field(trade, "status", build_record(book.status_record, status_fields));
    set_field(trade, "order", build_record("Order", overlay(attr(trade, "order"), order_block)));
    pop(trades, corrid);
    set_item(trades, order_id, trade);
    key = order_id;
  } else if (!truthy(status_code)) {
    log_error(format(kMissingStatusCode, topic));
  } else if (equals(status_code, 401)) {
    log_error(without_secrets(resp));
    nb::object detail = get(get(resp, QV_NAME("response"), empty_dict()), QV_NAME("detail"), nb::str(""));
    raise_object(module_attr(QV_NAME("TokenError"))(status_code, detail));
  } else {
    nb::dict failed;
    failed["status"] = attr(module_attr(QV_NAME("Status")), "Failed");
    set_attr(item(trades, corrid), "status", build_record(book.status_record, failed));
    log_error(without_secrets(resp));
  }

  if (truthy(cb)) cb(item(trades, key));
  return key;
}

// ---- cancellation and modification -------------------------------------------------

nb::object cancel_reply(nb::handle self, const TradeBook& book, nb::handle topic, nb::handle corrid,
                        nb::handle resp) {
  check_reply_args(topic, corrid, resp);
  nb::object cb = take_callback(self, corrid);
  nb::object status_code = status_code_of(resp);
  nb::object response = get(resp, QV_NAME("response"), empty_dict());
  nb::object sts_code = get(response, QV_NAME("sts_code"), nb::int_(0));
  nb::object detail = get(response, QV_NAME("detail"), nb::str(""));

  // The temporary entry of this request; the trade's own entry under its order id stays.
  nb::object trade = pop(attr(self, book.book), corrid);
  set_attr(attr(trade, "status"), "msg", detail);
  if (!is_ok(status_code)) {
    if (equals(status_code, kCancelRefusedStatus) && equals(sts_code, kCancelRefusedStsCode)) {
      set_attr(attr(trade, "status"), "status", attr(module_attr(QV_NAME("Status")), "Failed"));
    } else {
      log_error(format("StatusCode: {}, Detail: {}", status_code, detail));
      raise_resp_error(self, status_code, resp);
    }
  }
  if (truthy(cb)) cb(trade);
  return nb::none();
}

// The modification and combination-cancel replies carry nothing for the book: a refusal
// is raised, and the callback (if any) gets the trade from its temporary entry.
nb::object acknowledge_reply(nb::handle self, const TradeBook& book, nb::handle topic, nb::handle corrid,
                             nb::handle resp) {
  check_reply_args(topic, corrid, resp);
  nb::object cb = take_callback(self, corrid);
  nb::object status_code = status_code_of(resp);
  if (!is_ok(status_code)) raise_resp_error(self, status_code, resp);
  if (truthy(cb)) cb(pop(attr(self, book.book), corrid));
  return nb::none();
}

bool price_changes(nb::handle trade, nb::handle price) {
  if (!truthy(price)) return false;
  nb::object modified_price = attr(attr(trade, "status"), "modified_price");
  nb::object current = truthy(modified_price) ? modified_price : attr(attr(trade, "order"), "price");
  return !equals(price, current);
}

// A reduction must leave a quantity of at least 0 of what is neither cancelled nor taken off.
bool quantity_reducible(nb::handle trade, nb::handle quantity) {
  if (!truthy(quantity)) return false;
  nb::object ordered = attr(attr(trade, "order"), "quantity");
  nb::object cancelled = attr(attr(trade, "status"), "cancel_quantity");
  nb::object remaining = checked(PyNumber_Subtract(ordered.ptr(), cancelled.ptr()));
  nb::object left = checked(PyNumber_Subtract(remaining.ptr(), quantity.ptr()));
  nb::object zero = nb::int_(0);
  const int r = PyObject_RichCompareBool(left.ptr(), zero.ptr(), Py_GE);
  if (r < 0) throw nb::python_error();
  return r == 1;
}

// One step of a modification. Every step draws its own correlation id and, when not
// blocking, registers the callback and the trade under it even if nothing is sent; only
// then does `changes` tell whether there is anything to send.
void modify_step(nb::handle self, nb::handle trade, nb::handle payload, nb::handle timeout, nb::handle cb,
                 const char* topic_attr, const char* key, nb::handle value,
                 bool (*changes)(nb::handle trade, nb::handle value)) {
  nb::object corrid = new_corrid(self);
  if (!truthy(timeout)) {
    remember_callback(self, corrid, cb);
    set_item(attr(self, kSingle.book), corrid, trade);
  }
  if (!changes(trade, value)) return;
  set_item(payload, nb::str(key), value);
  exchange(self, {topic_attr, "_update_order_cb"}, payload, corrid, timeout);
}

// ---- status refresh ----------------------------------------------------------------

nb::object refresh(nb::handle self, const TradeBook& book, nb::handle account, nb::handle seqno,
                   nb::handle timeout, nb::handle cb) {
  nb::dict payload;
  payload["account"] = account.attr("dict")();
  payload["seqno"] = seqno;
  payload["tft"] = attr(self, QV_NAME("tft"));
  nb::object corrid = new_corrid(self);
  if (!truthy(timeout)) remember_callback(self, corrid, cb);
  exchange(self, book.refresh, payload, corrid, timeout);
  return nb::none();
}

// The order's time, always recomputed from the reply's "order_ts" (0 when absent).
nb::object refreshed_order_datetime(nb::handle status_block) {
  return module_attr(QV_NAME("convert_ts"))(get(status_block, QV_NAME("order_ts"), nb::int_(0)));
}

// Merges one entry of a refresh reply into the book: the reply wins key by key over a
// known trade's fields (which keep their identity), and an unknown order becomes a trade.
void merge_entry(nb::handle self, const TradeBook& book, nb::handle entry) {
  nb::object order_block = get(entry, QV_NAME("order"), empty_dict());
  nb::object order_id = get(order_block, QV_NAME("id"), nb::str(""));
  nb::object status_block = get(entry, QV_NAME("status"), empty_dict());

  nb::object holder =
      get(get(order_block, QV_NAME("account"), empty_dict()), QV_NAME("person_id"), nb::str(""));
  if (!truthy(holder.attr("strip")())) {
    set_item(item(order_block, QV_NAME("account")), QV_NAME("person_id"), attr(self, QV_NAME("_person_id")));
  }

  nb::object trades = attr(self, book.book);
  if (contains(trades, order_id)) {
    nb::object trade = item(trades, order_id);
    set_field(trade, "order", build_record("Order", overlay(attr(trade, "order"), order_block)));
    nb::object status_fields = overlay(attr(trade, "status"), status_block);
    set_item(status_fields, QV_NAME("order_datetime"), refreshed_order_datetime(status_block));
    set_field(trade, "status", build_record(book.status_record, status_fields));
    return;
  }

  nb::object contract = build_record(book.contract_record, get(entry, QV_NAME("contract"), empty_dict()));
  nb::object order = build_record("Order", order_block);
  if (contains(status_block, QV_NAME("order_datetime"))) {
    raise_type_error(format("{}() got multiple values for keyword argument 'order_datetime'",
                            attr(module_attr(book.status_record), "__name__")));
  }
  nb::dict status_fields;
  update(status_fields, status_block);
  status_fields["order_datetime"] = refreshed_order_datetime(status_block);
  nb::object status = build_record(book.status_record, status_fields);
  set_item(trades, order_id, new_trade(book, contract, order, status));
}

nb::object refresh_reply(nb::handle self, const TradeBook& book, nb::handle topic, nb::handle corrid,
                         nb::handle resp) {
  check_reply_args(topic, corrid, resp);
  nb::object cb = take_callback(self, corrid);
  nb::object status_code = status_code_of(resp);
  if (!is_ok(status_code)) {
    raise_resp_error(self, status_code, resp);
  } else {
    nb::object entries = get(resp, QV_NAME("response"), empty_list());
    for (nb::handle entry : entries) merge_entry(self, book, entry);
  }
  if (truthy(cb)) cb(attr(self, book.refresh_result));
  return nb::none();
}

nb::object book_list(nb::handle self, const TradeBook& book) {
  return checked(PySequence_List(attr(self, book.book).attr("values")().ptr()));
}

void check_refresh_args(const char* method, nb::handle account, nb::handle seqno, nb::handle cb) {
  require_record(account, method, "account", "Account", "an account record (StockAccount or FutureAccount)");
  if (!PyUnicode_Check(seqno.ptr())) {
    raise_type_error(
        format("{}: seqno must be text (an order's sequence number, or \"\" for every order), got {}", method,
               kind_of(seqno)));
  }
  require_callback(cb, method);
}

using ReplyFlow = nb::object (*)(nb::handle self, const TradeBook& book, nb::handle topic, nb::handle corrid,
                                 nb::handle resp);

struct ReplyHandler {
  const char* name;
  ReplyFlow flow;
  const TradeBook* book;
};

// The combination placement's handler has no leading underscore: callers know it by that name.
const ReplyHandler kReplyHandlers[] = {
    {"_place_order_cb", place_reply, &kSingle},         {"_cancel_order_cb", cancel_reply, &kSingle},
    {"_update_order_cb", acknowledge_reply, &kSingle},  {"_update_status_cb", refresh_reply, &kSingle},
    {"place_comboorder_cb", place_reply, &kCombo},      {"_cancel_comboorder_cb", acknowledge_reply, &kCombo},
    {"_update_combostatus_cb", refresh_reply, &kCombo},
};

}  // namespace

void define_orders(ApiClass& api) {
  import_names(api, {"Order", "OrderStatus", "Trade", "ComboStatus", "ComboTrade"});

  for (const ReplyHandler& handler : kReplyHandlers) {
    api.method(
        handler.name,
        [handler](nb::handle self, nb::handle topic, nb::handle corrid, nb::handle resp) {
          return handler.flow(self, *handler.book, topic, corrid, resp);
        },
        nb::arg("topic"), nb::arg("corrid"), nb::arg("resp"));
  }

  // ---- single orders ----

  api.method(
      "place_order",
      [](nb::handle self, nb::handle contract, nb::handle order, nb::handle timeout, nb::handle cb) {
        require_record(contract, "place_order", "contract", "BaseContract",
                       "a contract record (Stock, Future, Option, Index or Contract)");
        require_record(order, "place_order", "order", "Order", "an Order");
        require_callback(cb, "place_order");
        nb::object signed_order = attr(self, "prepare_ca")(order);
        nb::dict payload;
        payload["contract"] = record_dict(contract);
        payload["order"] = record_dict(signed_order);
        payload["tft"] = attr(self, QV_NAME("tft"));
        return place(self, kSingle, contract, signed_order, payload, timeout, cb);
      },
      nb::arg("contract"), nb::arg("order"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.method(
      "cancel_order",
      [](nb::handle self, nb::handle trade, nb::handle timeout, nb::handle cb) -> nb::object {
        require_record(trade, "cancel_order", "trade", "Trade", "the Trade that place_order returned");
        require_callback(cb, "cancel_order");
        nb::object payload = resigned_trade_payload(self, trade);
        nb::object corrid = new_corrid(self);
        // Registered whatever the mode: the reply handler always takes both back.
        remember_callback(self, corrid, cb);
        set_item(attr(self, kSingle.book), corrid, trade);
        exchange(self, kSingle.cancel, payload, corrid, timeout);
        return nb::borrow(trade);
      },
      nb::arg("trade"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  // A price different from the effective one goes to the price service, then a reduction
  // that fits what remains goes to the quantity service with the same payload object, so
  // a call asking for both sends the new price along with the quantity.
  api.method(
      "update_order",
      [](nb::handle self, nb::handle trade, nb::handle price, nb::handle quantity, nb::handle timeout,
         nb::handle cb) -> nb::object {
        require_record(trade, "update_order", "trade", "Trade", "the Trade that place_order returned");
        check_new_price(price);
        check_quantity_reduction(quantity);
        require_callback(cb, "update_order");
        nb::object payload = resigned_trade_payload(self, trade);
        modify_step(self, trade, payload, timeout, cb, "update_price_topic", "price", price, price_changes);
        modify_step(self, trade, payload, timeout, cb, "update_qty_topic", "quantity", quantity,
                    quantity_reducible);
        return nb::borrow(trade);
      },
      nb::arg("trade"), nb::arg("price") = nb::none(), nb::arg("quantity") = nb::none(),
      nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.method(
      "update_status",
      [](nb::handle self, nb::handle account, nb::handle seqno, nb::handle timeout, nb::handle cb) {
        check_refresh_args("update_status", account, seqno, cb);
        return refresh(self, kSingle, account, seqno, timeout, cb);
      },
      nb::arg("account"), nb::arg("seqno") = "", nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.property("trades", [](nb::handle self) { return book_list(self, kSingle); });

  // ---- combination orders: no paper-trading service, so each refuses in simulation ----

  api.method(
      "place_comboorder",
      [](nb::handle self, nb::handle combocontract, nb::handle order, nb::handle timeout,
         nb::handle cb) -> nb::object {
        require_record(combocontract, "place_comboorder", "combocontract", "ComboContract",
                       "a ComboContract");
        require_record(order, "place_comboorder", "order", "Order", "an Order");
        require_callback(cb, "place_comboorder");
        if (refuse_in_simulation(self, "place_comboorder")) {
          return new_trade(kCombo, combocontract, order, inactive_status(kCombo));
        }
        nb::object signed_order = attr(self, "prepare_ca")(order);
        nb::dict payload;
        payload["order"] = signed_order.attr("dict")();
        payload["combocontract"] = combocontract.attr("dict")();
        return place(self, kCombo, combocontract, signed_order, payload, timeout, cb);
      },
      nb::arg("combocontract"), nb::arg("order"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.method(
      "cancel_comboorder",
      [](nb::handle self, nb::handle combotrade, nb::handle timeout, nb::handle cb) -> nb::object {
        require_record(combotrade, "cancel_comboorder", "combotrade", "ComboTrade",
                       "the ComboTrade that place_comboorder returned");
        require_callback(cb, "cancel_comboorder");
        if (refuse_in_simulation(self, "cancel_comboorder")) return nb::borrow(combotrade);
        nb::object payload = resigned_trade_payload(self, combotrade);
        nb::object corrid = new_corrid(self);
        // Unlike a single cancel, only the non-blocking reply needs the entries.
        if (!truthy(timeout)) {
          remember_callback(self, corrid, cb);
          set_item(attr(self, kCombo.book), corrid, combotrade);
        }
        exchange(self, kCombo.cancel, payload, corrid, timeout);
        return nb::borrow(combotrade);
      },
      nb::arg("combotrade"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.method(
      "update_combostatus",
      [](nb::handle self, nb::handle account, nb::handle seqno, nb::handle timeout,
         nb::handle cb) -> nb::object {
        check_refresh_args("update_combostatus", account, seqno, cb);
        if (refuse_in_simulation(self, "update_combostatus")) return nb::none();
        return refresh(self, kCombo, account, seqno, timeout, cb);
      },
      nb::arg("account"), nb::arg("seqno") = "", nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

  api.property("combotrades", [](nb::handle self) { return book_list(self, kCombo); });
}

}  // namespace quorvex::api
