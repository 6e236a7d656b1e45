// SolaceAPI: reservation and earmarking.
//
// These queries never raise a refusal: the result record carries it in `error` as an
// ErrorResponse, and its `response` member keeps the values it was placed with. The two
// requests are signed with the account holder's certificate before anything is sent.
#include "api.hpp"

namespace quorvex::api {
namespace {

// The shared sequence with one difference: a blocking call whose reply is empty raises
// TimeoutError(topic, payload); the placeholder stays stored.
nb::object send_reservation(nb::handle self, const Query& query, nb::handle payload, nb::handle timeout,
                            nb::handle cb, nb::handle placeholder) {
  nb::object corrid = new_corrid(self);
  const bool blocking = truthy(timeout);
  if (!blocking) set_item(attr(self, QV_NAME("_rep_callback_map")), corrid, cb);
  nb::object topic = attr(self, query.topic_attr);
  nb::object handler = attr(self, query.handler_attr);
  // Stored before the send, so that a reply handled before request() returns finds it.
  set_item(attr(self, QV_NAME("_reqrep")), corrid, placeholder);
  nb::object resp = send_request(self, topic, payload, corrid, timeout, handler);
  if (blocking) {
    if (!truthy(resp)) {
      nb::object error = module_attr(QV_NAME("TimeoutError"))(topic, payload);
      PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
      throw nb::python_error();
    }
    handler(topic, corrid, resp);
  }
  return nb::borrow(placeholder);
}

// A refused reply's status code (empty text when absent) and detail, as an ErrorResponse.
nb::object error_response(nb::handle resp) {
  nb::object status = get(resp, QV_NAME("status"), empty_dict());
  nb::object response = get(resp, QV_NAME("response"), empty_dict());
  return module_attr(QV_NAME("ErrorResponse"))(
      "status_code"_a = get(status, QV_NAME("status_code"), nb::str("")),
      "detail"_a = get(response, QV_NAME("detail"), nb::str("")));
}

// StockAccount(**response["account"]); the block is read without a default, so a reply
// lacking it fails here with TypeError.
nb::object reply_stock_account(nb::handle response) {
  return call_with_fields(module_attr(QV_NAME("StockAccount")),
                          get(response, QV_NAME("account"), nb::none()));
}

// The text a request is signed over: its values' text forms joined with " | ", signed for
// the account's holder.
template <typename... Values>
nb::object sign_request(nb::handle self, nb::handle account, const char* pattern, Values... values) {
  nb::object plain_text = format(pattern, account, values...);
  return attr(self, "prepare_casign")(plain_text, account);
}

nb::dict request_payload(nb::handle account, nb::handle contract, nb::handle order) {
  nb::dict payload;
  payload["account"] = attr(account, QV_NAME("dict"))();
  payload["contract"] = attr(contract, QV_NAME("dict"))();
  payload["order"] = attr(order, QV_NAME("dict"))();
  return payload;
}

// The reply handler of a request: sets the answer's fields on the result's `response`
// member one by one, `price` only for earmarking.
void apply_request_reply(nb::handle self, nb::handle corrid, nb::handle resp, bool with_price) {
  Reply r = begin_reply(self, corrid, resp);
  if (r.ok()) {
    nb::object response = get(resp, QV_NAME("response"), empty_dict());
    nb::object answer = attr(r.result, QV_NAME("response"));
    nb::setattr(answer, "account", reply_stock_account(response));
    nb::setattr(answer, "share", get(response, QV_NAME("share"), nb::int_(0)));
    if (with_price) nb::setattr(answer, "price", get(response, QV_NAME("price"), nb::int_(0)));
    nb::setattr(answer, "status", get(response, QV_NAME("status"), nb::bool_(false)));
    nb::setattr(answer, "info", get(response, QV_NAME("info"), nb::str("")));
  } else {
    nb::setattr(r.result, "error", error_response(resp));
  }
  r.call_back();
}

// ---- the three listings --------------------------------------------------------------

struct Listing {
  const char* method;
  Query query;
  const char* result_cls;  // e.g. ReserveStocksSummaryResponse
  const char* member_cls;  // its `response` member, e.g. ReserveStocksSummary
  const char* row_cls;     // one element of `stocks`, e.g. ReserveStockSummary
};

constexpr Listing kListings[] = {
    {"stock_reserve_summary",
     {"stock_reserve_summary_topic", "_stock_reserve_summary_cb"},
     "ReserveStocksSummaryResponse",
     "ReserveStocksSummary",
     "ReserveStockSummary"},
    {"stock_reserve_detail",
     {"stock_reserve_detail_topic", "_stock_reserve_detail_cb"},
     "ReserveStocksDetailResponse",
     "ReserveStocksDetail",
     "ReserveStockDetail"},
    {"earmarking_detail",
     {"earmarking_detail_topic", "_earmarking_detail_cb"},
     "EarmarkStocksDetailResponse",
     "EarmarkStocksDetail",
     "EarmarkStockDetail"},
};

nb::object listing_placeholder(const Listing& listing, nb::handle account) {
  nb::object member = module_attr(listing.member_cls)("stocks"_a = nb::list(), "account"_a = account);
  return module_attr(listing.result_cls)("response"_a = member);
}

}  // namespace

void define_reserve(ApiClass& api) {
  import_names(api, {"ReserveOrder", "EarmarkingOrder", "ReserveOrderResp", "EarmarkingOrderResp",
                     "ReserveStockResponse", "ReserveEarmarkingResponse", "ErrorResponse"});
  for (const Listing& listing : kListings) {
    import_names(api, {listing.result_cls, listing.member_cls, listing.row_cls});
  }

  api.method(
      "reserve_stock",
      [](nb::handle self, nb::handle account, nb::handle contract, nb::handle share, nb::handle timeout,
         nb::handle cb) -> nb::object {
        auto placeholder = [&] {
          nb::object answer =
              module_attr(QV_NAME("ReserveOrderResp"))("contract"_a = contract, "account"_a = account,
                                                       "share"_a = share, "status"_a = false, "info"_a = "");
          return module_attr(QV_NAME("ReserveStockResponse"))("response"_a = answer);
        };
        // Refused before signing, so simulation needs no certificate.
        if (refuse_in_simulation(self, "reserve_stock")) return placeholder();
        nb::object casign = sign_request(self, account, "{} | {} | {}", contract, share);
        nb::object order = module_attr(QV_NAME("ReserveOrder"))("share"_a = share, "ca"_a = casign);
        nb::dict payload = request_payload(account, contract, order);
        return send_reservation(self, {"reserve_stock_topic", "_reserve_stock_cb"}, payload, timeout, cb,
                                placeholder());
      },
      nb::arg("account"), nb::arg("contract"), nb::arg("share"), nb::arg("timeout") = 5000,
      nb::arg("cb") = nb::none());

  api.method(
      "_reserve_stock_cb",
      [](nb::handle self, nb::handle topic, nb::handle corrid, nb::handle resp) {
        apply_request_reply(self, corrid, resp, false);
      },
      nb::arg("topic"), nb::arg("corrid"), nb::arg("resp"));

  api.method(
      "reserve_earmarking",
      [](nb::handle self, nb::handle account, nb::handle contract, nb::handle share, nb::handle price,
         nb::handle timeout, nb::handle cb) -> nb::object {
        auto placeholder = [&] {
          nb::object price_value = nb::steal(PyNumber_Float(price.ptr()));
          if (!price_value.is_valid()) throw nb::python_error();
          nb::object answer = module_attr(QV_NAME("EarmarkingOrderResp"))(
              "contract"_a = contract, "account"_a = account, "share"_a = share, "price"_a = price_value,
              "status"_a = false, "info"_a = "");
          return module_attr(QV_NAME("ReserveEarmarkingResponse"))("response"_a = answer);
        };
        if (refuse_in_simulation(self, "reserve_earmarking")) return placeholder();
        nb::object casign = sign_request(self, account, "{} | {} | {} | {}", contract, share, price);
        nb::object order =
            module_attr(QV_NAME("EarmarkingOrder"))("share"_a = share, "price"_a = price, "ca"_a = casign);
        nb::dict payload = request_payload(account, contract, order);
        return send_reservation(self, {"reserve_earmarking_topic", "_reserve_earmarking_cb"}, payload,
                                timeout, cb, placeholder());
      },
      nb::arg("account"), nb::arg("contract"), nb::arg("share"), nb::arg("price"), nb::arg("timeout") = 5000,
      nb::arg("cb") = nb::none());

  api.method(
      "_reserve_earmarking_cb",
      [](nb::handle self, nb::handle topic, nb::handle corrid, nb::handle resp) {
        apply_request_reply(self, corrid, resp, true);
      },
      nb::arg("topic"), nb::arg("corrid"), nb::arg("resp"));

  for (const Listing& listing : kListings) {
    api.method(
        listing.method,
        [&listing](nb::handle self, nb::handle account, nb::handle timeout, nb::handle cb) -> nb::object {
          if (refuse_in_simulation(self, listing.method)) return listing_placeholder(listing, account);
          nb::dict payload;
          payload["account"] = attr(account, QV_NAME("dict"))();
          return send_reservation(self, listing.query, payload, timeout, cb,
                                  listing_placeholder(listing, account));
        },
        nb::arg("account"), nb::arg("timeout") = 5000, nb::arg("cb") = nb::none());

    api.method(
        listing.query.handler_attr,
        [&listing](nb::handle self, nb::handle topic, nb::handle corrid, nb::handle resp) {
          Reply r = begin_reply(self, corrid, resp);
          if (r.ok()) {
            nb::object response = get(resp, QV_NAME("response"), empty_dict());
            nb::object answer = attr(r.result, QV_NAME("response"));
            nb::setattr(answer, "account", reply_stock_account(response));
            // Read without a default: a reply lacking `stocks` fails with TypeError.
            nb::object rows = get(response, QV_NAME("stocks"), nb::none());
            nb::setattr(answer, "stocks", records_from(module_attr(listing.row_cls), rows));
          } else {
            nb::setattr(r.result, "error", error_response(resp));
          }
          r.call_back();
        },
        nb::arg("topic"), nb::arg("corrid"), nb::arg("resp"));
  }
}

}  // namespace quorvex::api
