// Python semantics used by every service area, and the shared query sequence.
#include <cstring>
#include <unordered_map>

#include "api.hpp"

namespace quorvex::api {
namespace {
// The api module; it lives in sys.modules for the life of the interpreter.
PyObject* g_module = nullptr;

nb::object call_method(nb::handle obj, nb::handle name, nb::handle a) {
  return nb::steal(PyObject_CallMethodObjArgs(obj.ptr(), name.ptr(), a.ptr(), nullptr));
}
nb::object call_method(nb::handle obj, nb::handle name, nb::handle a, nb::handle b) {
  return nb::steal(PyObject_CallMethodObjArgs(obj.ptr(), name.ptr(), a.ptr(), b.ptr(), nullptr));
}
nb::object checked(nb::object result) {
  if (!result.is_valid()) throw nb::python_error();
  return result;
}
}  // namespace

const char* detail::positional_name(std::size_t index) {
  static const char* const names[] = {"a0",  "a1",  "a2",  "a3",  "a4",  "a5",  "a6",  "a7",  "a8",  "a9",
                                      "a10", "a11", "a12", "a13", "a14", "a15", "a16", "a17", "a18", "a19"};
  return index < sizeof(names) / sizeof(names[0]) ? names[index] : "a_more";
}

nb::handle interned(const char* name) {
  // Keyed by the pointer, checked by the text: a pointer reused for another name is re-made.
  // Used with the GIL held, which guards the table.
  static std::unordered_map<const char*, PyObject*> names;
  PyObject*& slot = names[name];
  if (slot && std::strcmp(PyUnicode_AsUTF8(slot), name) == 0) return slot;
  PyObject* made = PyUnicode_InternFromString(name);
  if (!made) throw nb::python_error();
  Py_XDECREF(slot);
  slot = made;
  return slot;
}

void set_module(nb::handle module) {
  Py_XINCREF(module.ptr());
  g_module = module.ptr();
}

nb::object module_attr(nb::handle name) { return checked(nb::steal(PyObject_GetAttr(g_module, name.ptr()))); }

nb::object builtin(nb::handle name) {
  PyObject* found = PyObject_GetAttr(g_module, name.ptr());
  if (found) return nb::steal(found);
  if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw nb::python_error();
  PyErr_Clear();
  return nb::getattr(nb::module_::import_("builtins"), name);
}

nb::object get(nb::handle mapping, nb::handle key, nb::handle dflt) {
  if (PyDict_CheckExact(mapping.ptr())) {
    PyObject* item = PyDict_GetItemWithError(mapping.ptr(), key.ptr());
    if (item) return nb::borrow(item);
    if (PyErr_Occurred()) throw nb::python_error();
    return nb::borrow(dflt);
  }
  return checked(call_method(mapping, QV_NAME("get"), key, dflt));
}

nb::object pop(nb::handle mapping, nb::handle key, nb::handle dflt) {
  return checked(call_method(mapping, QV_NAME("pop"), key, dflt));
}

nb::object pop(nb::handle mapping, nb::handle key) {
  return checked(call_method(mapping, QV_NAME("pop"), key));
}

void set_item(nb::handle mapping, nb::handle key, nb::handle value) {
  if (PyObject_SetItem(mapping.ptr(), key.ptr(), value.ptr()) != 0) throw nb::python_error();
}

bool truthy(nb::handle obj) {
  const int r = PyObject_IsTrue(obj.ptr());
  if (r < 0) throw nb::python_error();
  return r == 1;
}

bool equals(nb::handle a, nb::handle b) {
  const int r = PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_EQ);
  if (r < 0) throw nb::python_error();
  return r == 1;
}

bool equals(nb::handle obj, long value) {
  if (PyLong_CheckExact(obj.ptr())) {
    int overflow = 0;
    const long v = PyLong_AsLongAndOverflow(obj.ptr(), &overflow);
    if (!overflow && !(v == -1 && PyErr_Occurred())) return v == value;
    PyErr_Clear();
  }
  return equals(obj, nb::handle(nb::int_(value)));
}

nb::object call_with_fields(nb::handle callable, nb::handle fields) {
  nb::object kwargs;
  if (PyDict_Check(fields.ptr())) {
    kwargs = nb::borrow(fields);
  } else if (PyMapping_Check(fields.ptr()) && PyObject_HasAttrString(fields.ptr(), "keys")) {
    kwargs = nb::steal(PyDict_New());
    if (PyDict_Merge(kwargs.ptr(), fields.ptr(), 1) != 0) throw nb::python_error();
  } else {
    nb::object name = nb::getattr(callable, "__qualname__", nb::str(Py_TYPE(callable.ptr())->tp_name));
    PyErr_Format(PyExc_TypeError,
                 "%S() argument after ** must be a mapping of field names to values, not %.200s", name.ptr(),
                 Py_TYPE(fields.ptr())->tp_name);
    throw nb::python_error();
  }
  nb::object args = nb::steal(PyTuple_New(0));
  return checked(nb::steal(PyObject_Call(callable.ptr(), args.ptr(), kwargs.ptr())));
}

nb::list records_from(nb::handle cls, nb::handle rows) {
  nb::list records;
  for (nb::handle row : rows) records.append(call_with_fields(cls, row));
  return records;
}

nb::object empty_dict() { return nb::dict(); }
nb::object empty_list() { return nb::list(); }

nb::object status_code_of(nb::handle resp) {
  nb::object status = get(resp, QV_NAME("status"), empty_dict());
  return get(status, QV_NAME("status_code"), nb::int_(0));
}

void raise_resp_error(nb::handle self, nb::handle status_code, nb::handle resp) {
  module_attr(QV_NAME("raise_resp_error"))(status_code, resp, attr(self, QV_NAME("session")));
}

void log_error(nb::handle msg) { module_attr(QV_NAME("log")).attr(QV_NAME("error"))(msg); }

void logger_warning(nb::handle msg) { module_attr(QV_NAME("logger")).attr(QV_NAME("warning"))(msg); }

void check_arg_type(nb::handle value, const char* name, PyTypeObject* type) {
  if (value.is_none() || PyObject_TypeCheck(value.ptr(), type)) return;
  PyErr_Format(PyExc_TypeError, "Argument '%.200s' has incorrect type (expected %.200s, got %.200s)", name,
               type->tp_name, Py_TYPE(value.ptr())->tp_name);
  throw nb::python_error();
}

bool refuse_in_simulation(nb::handle self, const char* method) {
  if (!truthy(attr(self, QV_NAME("_simulation")))) return false;
  logger_warning(nb::str(("Simulation not support " + std::string(method) + " yet").c_str()));
  return true;
}

nb::object local_now_text(const char* fmt) {
  nb::object datetime_cls = module_attr(QV_NAME("datetime")).attr(QV_NAME("datetime"));
  return datetime_cls.attr(QV_NAME("now"))().attr(QV_NAME("strftime"))(fmt);
}

nb::object new_corrid(nb::handle self) {
  return attr(self, QV_NAME("session")).attr(QV_NAME("_gen_reqid"))();
}

nb::object send_request(nb::handle self, nb::handle topic, nb::handle payload, nb::handle corrid,
                        nb::handle timeout, nb::handle handler) {
  return attr(self, QV_NAME("session"))
      .attr(QV_NAME("request"))(topic, payload, "corrid"_a = corrid, "timeout"_a = timeout, "cb"_a = handler);
}

nb::object send_query(nb::handle self, const Query& query, nb::handle corrid, nb::handle payload,
                      nb::handle timeout, nb::handle cb,
                      const std::function<nb::object()>& make_placeholder) {
  const bool blocking = truthy(timeout);
  nb::object topic = attr(self, query.topic_attr);
  nb::object handler = attr(self, query.handler_attr);
  // Made first, so a record that cannot be built leaves nothing registered.
  nb::object placeholder = make_placeholder();
  if (!blocking) set_item(attr(self, QV_NAME("_rep_callback_map")), corrid, cb);
  // Stored before the send: a non-blocking reply may be handled on the messaging thread
  // before request() returns, and its handler must find the placeholder.
  nb::object reqrep = attr(self, QV_NAME("_reqrep"));
  set_item(reqrep, corrid, placeholder);
  nb::object resp;
  try {
    resp = send_request(self, topic, payload, corrid, timeout, handler);
  } catch (nb::python_error&) {
    // A request that was never sent (or timed out waiting) gets no reply to collect it.
    PyObject* key = corrid.ptr();
    if (PyDict_Check(reqrep.ptr()) && PyDict_GetItem(reqrep.ptr(), key) == placeholder.ptr())
      PyDict_DelItem(reqrep.ptr(), key);
    PyErr_Clear();
    throw;
  }
  if (blocking) handler(topic, corrid, resp);
  return placeholder;
}

Reply begin_reply(nb::handle self, nb::handle corrid, nb::handle resp) {
  Reply reply;
  reply.cb = pop(attr(self, QV_NAME("_rep_callback_map")), corrid, nb::none());
  reply.status_code = status_code_of(resp);
  reply.result = pop(attr(self, QV_NAME("_reqrep")), corrid);
  return reply;
}

void Reply::call_back() const {
  if (truthy(cb)) cb(result);
}

}  // namespace quorvex::api
