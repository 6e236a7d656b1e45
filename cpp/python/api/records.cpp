// The library's records seen from C++: their fields as dicts without a trip through the
// serializer, for the payloads and merges on the order path.
//
// A record qualifies when its class keeps the library's own dict() and model_dump() and
// declares nothing that changes what they return (serializers, computed or excluded fields).
// Its dict() is then exactly its instance fields in declaration order followed by its extra
// fields, with nested records as dicts; that is built here from __dict__ directly, which
// costs a fraction of the serializer. Anything else is asked for its own dict().
#include "api.hpp"

namespace quorvex::api {
namespace {

// The unbound functions a plain record's class must still have as its dict and model_dump.
struct RecordBase {
  nb::object dict_function;
  nb::object model_dump_function;
};

const RecordBase& record_base() {
  static const RecordBase* const base = [] {
    nb::object library_base = nb::module_::import_("quorvex.common").attr("BaseModel");
    nb::object pydantic_base = nb::module_::import_("pydantic").attr("BaseModel");
    return new RecordBase{attr(library_base, "dict"), attr(pydantic_base, "model_dump")};
  }();
  return *base;
}

bool empty(nb::handle mapping) {
  const Py_ssize_t n = PyObject_Length(mapping.ptr());
  if (n < 0) throw nb::python_error();
  return n == 0;
}

bool decide_plain(nb::handle type) {
  const RecordBase& base = record_base();
  if (!PyObject_HasAttrString(type.ptr(), "__pydantic_decorators__")) return false;
  if (!attr(type, "dict").is(base.dict_function)) return false;
  if (!attr(type, "model_dump").is(base.model_dump_function)) return false;
  nb::object decorators = attr(type, "__pydantic_decorators__");
  for (const char* kind : {"field_serializers", "model_serializers", "computed_fields"}) {
    if (!empty(nb::getattr(decorators, kind))) return false;
  }
  nb::object fields = attr(type, "model_fields");
  for (nb::handle info : checked(PyDict_Values(fields.ptr()))) {
    if (truthy(nb::getattr(info, interned("exclude"), nb::none()))) return false;
  }
  return true;
}

// What instances of a class are, decided once per class. The classes are held by the cache,
// which is harmless: record classes live as long as the program.
enum class Kind : long { Other = 0, PlainRecord = 1, OtherModel = 2 };

Kind kind_of_instance(nb::handle obj) {
  static PyObject* const cache = PyDict_New();
  PyObject* type = reinterpret_cast<PyObject*>(Py_TYPE(obj.ptr()));
  PyObject* known = PyDict_GetItemWithError(cache, type);
  if (known) return static_cast<Kind>(PyLong_AsLong(known));
  if (PyErr_Occurred()) throw nb::python_error();
  Kind kind = Kind::Other;
  if (PyObject_HasAttrString(type, "__pydantic_decorators__")) {
    kind = decide_plain(type) ? Kind::PlainRecord : Kind::OtherModel;
  }
  nb::object value = nb::int_(static_cast<long>(kind));
  if (PyDict_SetItem(cache, type, value.ptr()) != 0) throw nb::python_error();
  return kind;
}

bool is_plain_record(nb::handle obj) { return kind_of_instance(obj) == Kind::PlainRecord; }

// The instance's extra fields (a dict), or nullptr when it has none.
PyObject* extras_of(nb::handle record) {
  nb::object extra = nb::getattr(record, interned("__pydantic_extra__"), nb::none());
  if (!PyDict_Check(extra.ptr()) || PyDict_GET_SIZE(extra.ptr()) == 0) return nullptr;
  return extra.release().ptr();
}

nb::object dumped(nb::handle value);

// A list or tuple with every record in it dumped; the value itself when it holds none.
nb::object dumped_sequence(nb::handle sequence) {
  const bool is_list = PyList_CheckExact(sequence.ptr());
  const Py_ssize_t n = PySequence_Fast_GET_SIZE(sequence.ptr());
  PyObject** items = PySequence_Fast_ITEMS(sequence.ptr());
  nb::object out = checked(is_list ? PyList_New(n) : PyTuple_New(n));
  for (Py_ssize_t i = 0; i < n; ++i) {
    nb::object item = dumped(items[i]);
    if (is_list) {
      PyList_SET_ITEM(out.ptr(), i, item.release().ptr());
    } else {
      PyTuple_SET_ITEM(out.ptr(), i, item.release().ptr());
    }
  }
  return out;
}

// A dict with every record among its values dumped, as a new dict.
nb::object dumped_mapping(nb::handle mapping) {
  nb::object out = checked(PyDict_New());
  PyObject *key, *value;
  Py_ssize_t pos = 0;
  while (PyDict_Next(mapping.ptr(), &pos, &key, &value)) {
    if (PyDict_SetItem(out.ptr(), key, dumped(value).ptr()) != 0) throw nb::python_error();
  }
  return out;
}

// What dict() makes of a field's value: records become dicts, containers new containers, the
// rest stays as it is (enumeration members, datetimes, numbers and texts alike).
nb::object dumped(nb::handle value) {
  PyObject* v = value.ptr();
  if (PyUnicode_Check(v) || PyLong_Check(v) || PyFloat_Check(v) || v == Py_None) return nb::borrow(value);
  if (PyList_CheckExact(v) || PyTuple_CheckExact(v)) return dumped_sequence(value);
  if (PyDict_CheckExact(v)) return dumped_mapping(value);
  switch (kind_of_instance(value)) {
    case Kind::PlainRecord: return record_dict(value);
    case Kind::OtherModel: return attr(value, "model_dump")();
    case Kind::Other: break;
  }
  return nb::borrow(value);
}

// The fields of a plain record's class that an assignment would store as given when the value
// is of the class already there: none when the class has validators of its own, else those
// whose annotation carries no validator or other metadata. Decided once per class.
bool assigns_as_given(nb::handle record, nb::handle name) {
  static PyObject* const cache = PyDict_New();
  PyObject* type = reinterpret_cast<PyObject*>(Py_TYPE(record.ptr()));
  PyObject* known = PyDict_GetItemWithError(cache, type);
  if (!known) {
    if (PyErr_Occurred()) throw nb::python_error();
    nb::object names = checked(PySet_New(nullptr));
    nb::object decorators = attr(type, "__pydantic_decorators__");
    bool validated = false;
    for (const char* kind : {"validators", "field_validators", "root_validators", "model_validators"}) {
      validated = validated || !empty(nb::getattr(decorators, kind));
    }
    if (!validated) {
      PyObject *field, *info;
      Py_ssize_t pos = 0;
      nb::object fields = attr(type, "model_fields");
      while (PyDict_Next(fields.ptr(), &pos, &field, &info)) {
        if (empty(attr(info, "metadata")) && PySet_Add(names.ptr(), field) != 0) throw nb::python_error();
      }
    }
    if (PyDict_SetItem(cache, type, names.ptr()) != 0) throw nb::python_error();
    known = names.ptr();
  }
  const int r = PySet_Contains(known, name.ptr());
  if (r < 0) throw nb::python_error();
  return r == 1;
}

}  // namespace

nb::object record_fields(nb::handle record) {
  if (!is_plain_record(record)) return nb::object();
  nb::object fields = checked(PyDict_Copy(attr(record, "__dict__").ptr()));
  if (PyObject* extra = extras_of(record)) {
    nb::object held = nb::steal(extra);
    if (PyDict_Update(fields.ptr(), extra) != 0) throw nb::python_error();
  }
  return fields;
}

nb::object record_dict(nb::handle record) {
  nb::object fields = record_fields(record);
  if (!fields.is_valid()) return attr(record, "dict")();
  PyObject *key, *value;
  Py_ssize_t pos = 0;
  // Values are replaced in place; the dict's size does not change while it is walked.
  while (PyDict_Next(fields.ptr(), &pos, &key, &value)) {
    nb::object shown = dumped(value);
    if (!shown.is(value) && PyDict_SetItem(fields.ptr(), key, shown.ptr()) != 0) throw nb::python_error();
  }
  return fields;
}

bool same_fields(nb::handle record, nb::handle fields) {
  if (!PyDict_CheckExact(fields.ptr()) || !is_plain_record(record)) return false;
  nb::object own = record_fields(record);
  if (PyDict_GET_SIZE(own.ptr()) != PyDict_GET_SIZE(fields.ptr())) return false;
  PyObject *key, *value;
  Py_ssize_t pos = 0;
  while (PyDict_Next(fields.ptr(), &pos, &key, &value)) {
    PyObject* mine = PyDict_GetItemWithError(own.ptr(), key);
    if (!mine) {
      if (PyErr_Occurred()) throw nb::python_error();
      return false;
    }
    if (PyDict_CheckExact(value) && !PyDict_CheckExact(mine)) {
      if (!same_fields(mine, value)) return false;
      continue;
    }
    // A float field compares equal to the int the wire may carry; an enumeration to its text.
    if (Py_TYPE(mine) != Py_TYPE(value) && !(PyNumber_Check(mine) && PyNumber_Check(value)) &&
        !(PyUnicode_Check(mine) && PyUnicode_Check(value))) {
      return false;
    }
    const int r = PyObject_RichCompareBool(mine, value, Py_EQ);
    if (r < 0) throw nb::python_error();
    if (r == 0) return false;
  }
  return true;
}

void set_field(nb::handle record, const char* name, nb::handle value) {
  if (is_plain_record(record) && assigns_as_given(record, interned(name))) {
    nb::object fields = attr(record, "__dict__");
    PyObject* current = PyDict_GetItemWithError(fields.ptr(), interned(name).ptr());
    if (!current && PyErr_Occurred()) throw nb::python_error();
    // Assigning validates the value against the field's type, which passes an instance of the
    // class already there through unchanged: store it as that would.
    if (current && Py_TYPE(current) == Py_TYPE(value.ptr())) {
      set_item(fields, interned(name), value);
      return;
    }
  }
  set_attr(record, name, value);
}

}  // namespace quorvex::api
