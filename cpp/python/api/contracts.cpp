// SolaceAPI: the paged download of the contract master.
//
// A probe of page 0 per security type announces how many pages the type has; then every
// page of every type is requested at once, and each reply is merged into self.Contracts by
// _fetch_contracts_cb, which declares a type complete when all its pages have arrived.
// The per-reply work here is a handful of lookups: the container takes each page's list
// of raw contract dicts as one block.
#include "api.hpp"

namespace quorvex::api {
namespace {

bool greater(nb::handle a, long b) {
  const int r = PyObject_RichCompareBool(a.ptr(), nb::int_(b).ptr(), Py_GT);
  if (r < 0) throw nb::python_error();
  return r == 1;
}

// self.Contracts.<Name>s, the collection of one security type.
nb::object collection_of(nb::handle self, nb::handle security_type) {
  return attr(attr(self, QV_NAME("Contracts")), format("{}s", attr(security_type, QV_NAME("name"))));
}

// SecurityType(value) for a reply. A refusal often names no type; its own error then
// says more than the enumeration's, so it is raised instead.
nb::object reply_security_type(nb::handle self, nb::handle value, nb::handle status_code, nb::handle resp) {
  try {
    return module_attr(QV_NAME("SecurityType"))(value);
  } catch (nb::python_error& e) {
    if (is_ok(status_code) || !e.matches(PyExc_ValueError)) throw;
  }
  raise_resp_error(self, status_code, resp);
  PyErr_Format(PyExc_ValueError, "contract page refused with status %S for an unknown security type %R",
               status_code.ptr(), value.ptr());
  throw nb::python_error();
}

}  // namespace

void define_contracts(ApiClass& api) {
  // The default completion callback: one info line per security type.
  nb::object log_fetched = nb::cpp_function(
      [](nb::handle security_type) {
        module_attr(QV_NAME("log")).attr("info")(format("Contracts: {} fetch complete.", security_type));
      },
      nb::name("log_contracts_fetched"), nb::arg("security_type"));

  api.method(
      "fetch_all_contract",
      [](nb::handle self, nb::handle timeout, nb::handle cb) {
        nb::object contracts = attr(self, QV_NAME("Contracts"));
        nb::object fetching = attr(module_attr(QV_NAME("FetchStatus")), "Fetching");
        if (equals(attr(contracts, QV_NAME("status")), fetching)) return;  // one download at a time
        nb::setattr(contracts, "status", fetching);
        attr(self, "fetch_contract_max_page")();
        nb::setattr(self, "contract_all_fetched", nb::int_(0));
        nb::object fetch = attr(self, "fetch_contracts");
        for (nb::handle security_type : module_attr(QV_NAME("SecurityType"))) {
          nb::object max_page = attr(collection_of(self, security_type), "_max_page");
          nb::object pages = checked(PyObject_CallFunctionObjArgs(
              reinterpret_cast<PyObject*>(&PyRange_Type), nb::int_(1).ptr(),
              checked(PyNumber_Add(max_page.ptr(), nb::int_(1).ptr())).ptr(), nullptr));
          for (nb::handle page : pages) fetch(security_type, page, timeout, "cb"_a = cb);
        }
      },
      nb::arg("timeout") = 0, nb::arg("cb") = log_fetched);

  api.method("fetch_contract_max_page", [](nb::handle self) {
    nb::object fetch = attr(self, "fetch_contracts");
    for (nb::handle security_type : module_attr(QV_NAME("SecurityType"))) fetch(security_type, 0, 5000);
  });

  api.method(
      "fetch_contracts",
      [](nb::handle self, nb::handle security_type, nb::handle page, nb::handle timeout, nb::handle page_size,
         nb::handle cb) {
        nb::object corrid = new_corrid(self);
        nb::dict payload;
        payload[QV_NAME("security_type")] = security_type;
        payload[QV_NAME("page")] = page;
        payload[QV_NAME("page_size")] = page_size;
        // Recorded before the send, so that no reply can arrive ahead of its record.
        attr(self, "set_contract_cb")(corrid, page, timeout, cb);
        nb::object topic = attr(self, QV_NAME("data_contracts_topic"));
        nb::object handler = attr(self, QV_NAME("_fetch_contracts_cb"));
        nb::object resp = attr(self, QV_NAME("session"))
                              .attr(QV_NAME("request"))(topic, payload, "corrid"_a = corrid,
                                                        "timeout"_a = timeout, "cb"_a = handler);
        if (truthy(resp)) handler(topic, corrid, resp);
      },
      nb::arg("security_type"), nb::arg("page") = -1, nb::arg("timeout") = 0, nb::arg("page_size") = 5000,
      nb::arg("cb") = log_fetched);

  api.method(
      "set_contract_cb",
      [](nb::handle self, nb::handle corrid, nb::handle page, nb::handle /*timeout*/, nb::handle cb) {
        nb::dict record;
        record[QV_NAME("page")] = page;
        if (truthy(cb)) record[QV_NAME("cb")] = cb;
        set_item(attr(self, QV_NAME("_rep_callback_map")), corrid, record);
      },
      nb::arg("corrid"), nb::arg("page"), nb::arg("timeout"), nb::arg("cb"));

  api.method(
      "_fetch_contracts_cb",
      [](nb::handle self, nb::handle /*topic*/, nb::handle corrid, nb::handle resp) {
        nb::object record = pop(attr(self, QV_NAME("_rep_callback_map")), corrid, empty_dict());
        nb::object cb = get(record, QV_NAME("cb"), nb::none());
        nb::object page = get(record, QV_NAME("page"), nb::int_(1));  // an unknown reply counts as page 1

        nb::object status_code = status_code_of(resp);
        nb::object response = get(resp, QV_NAME("response"), empty_dict());
        nb::object raw_contracts = get(response, QV_NAME("contracts"), empty_list());
        nb::object max_page = get(response, QV_NAME("max_page"), nb::int_(0));
        nb::object security_type = reply_security_type(
            self, get(response, QV_NAME("security_type"), nb::str("")), status_code, resp);
        nb::object contracts = collection_of(self, security_type);

        // Marked before the status is looked at: a refused page counts as arrived.
        if (greater(page, 0)) {
          nb::object index = checked(PyNumber_Subtract(page.ptr(), nb::int_(1).ptr()));
          set_item(attr(contracts, QV_NAME("_page_list")), index, nb::int_(1));
        }
        if (!is_ok(status_code)) {
          raise_resp_error(self, status_code, resp);
          return;
        }
        if (!truthy(raw_contracts)) {
          // The probe's reply: how many pages the type has.
          nb::setattr(contracts, "_max_page", max_page);
          nb::object zeros = checked(PyNumber_Multiply(nb::make_tuple(0).ptr(), max_page.ptr()));
          nb::setattr(contracts, "_page_list", nb::list(zeros));
          return;
        }
        nb::object block = module_attr(QV_NAME("get_product_contracts"))(security_type)(raw_contracts);
        contracts.attr(QV_NAME("append"))(block);
        if (!truthy(attr(self, "fetch_all_page")(attr(contracts, QV_NAME("_page_list"))))) return;

        contracts.attr("set_status_fetched")();
        nb::object done =
            checked(PyNumber_Add(attr(self, QV_NAME("contract_all_fetched")).ptr(), nb::int_(1).ptr()));
        nb::setattr(self, "contract_all_fetched", done);
        if (truthy(cb)) cb(security_type);
        const long type_count = static_cast<long>(nb::len(module_attr(QV_NAME("SecurityType"))));
        if (equals(attr(self, QV_NAME("contract_all_fetched")), type_count)) {
          nb::object all = attr(self, QV_NAME("Contracts"));
          module_attr(QV_NAME("dump_contracts_file"))(all);
          nb::setattr(all, "status", attr(module_attr(QV_NAME("FetchStatus")), "Fetched"));
        }
      },
      nb::arg("topic"), nb::arg("corrid"), nb::arg("resp"));

  api.method(
      "fetch_all_page",
      [](nb::handle /*self*/, nb::handle page_list) -> bool {
        nb::object total = builtin(QV_NAME("sum"))(page_list);
        return equals(total, nb::handle(nb::int_(nb::len(page_list))));
      },
      nb::arg("page_list"));
}

}  // namespace quorvex::api
