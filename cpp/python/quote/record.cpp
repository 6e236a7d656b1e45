// Layout-driven parsing and presentation of the real-time quote records.
#include "record.hpp"

#include <datetime.h>

#include <cstring>
#include <string>

#include "market_time.hpp"

namespace quorvex::quote {
namespace {

[[noreturn]] void raise() { throw nb::python_error(); }

nb::object checked(PyObject* result) {
  if (!result) raise();
  return nb::steal(result);
}

// "TickSTKv1 content[3] (close) must be a number, got str"
[[noreturn]] void wrong_type(const Layout& layout, std::size_t index, const char* expected, PyObject* got) {
  PyErr_Format(PyExc_TypeError, "%s content[%zu] (%s) must be %s, got %.200s", layout.type_name, index,
               layout.fields[index].name, expected, Py_TYPE(got)->tp_name);
  raise();
}

[[noreturn]] void wrong_value(const Layout& layout, std::size_t index, const char* problem, PyObject* got) {
  PyErr_Format(PyExc_ValueError, "%s content[%zu] (%s) %s, got %R", layout.type_name, index,
               layout.fields[index].name, problem, got);
  raise();
}

double to_number(const Layout& layout, std::size_t index, PyObject* value) {
  if (PyFloat_CheckExact(value)) return PyFloat_AS_DOUBLE(value);
  if (PyUnicode_Check(value) || PyBytes_Check(value) || !PyNumber_Check(value)) {
    wrong_type(layout, index, "a number", value);
  }
  const double number = PyFloat_AsDouble(value);
  if (number == -1.0 && PyErr_Occurred()) raise();
  return number;
}

std::int64_t to_count(const Layout& layout, std::size_t index, PyObject* value) {
  nb::object integer;
  if (!PyLong_Check(value)) {
    if (!PyIndex_Check(value)) wrong_type(layout, index, "an integer", value);
    integer = checked(PyNumber_Index(value));
    value = integer.ptr();
  }
  int overflow = 0;
  const long long count = PyLong_AsLongLongAndOverflow(value, &overflow);
  if (overflow) wrong_value(layout, index, "does not fit a 64-bit integer", value);
  if (count == -1 && PyErr_Occurred()) raise();
  return count;
}

std::int64_t to_flag(const Layout& layout, std::size_t index, PyObject* value) {
  if (value == Py_True) return 1;
  if (value == Py_False) return 0;
  if (!PyLong_Check(value)) wrong_type(layout, index, "a bool", value);
  const int set = PyObject_IsTrue(value);
  if (set < 0) raise();
  return set;
}

// Taipei wall-clock micros of an epoch-microseconds integer or a datetime.datetime (naive:
// already Taipei time; aware: converted).
std::int64_t to_time(const Layout& layout, std::size_t index, PyObject* value) {
  std::int64_t wall = 0;
  if (PyLong_Check(value) && !PyBool_Check(value)) {
    int overflow = 0;
    const long long epoch = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (epoch == -1 && PyErr_Occurred()) raise();
    if (overflow || epoch < epoch_from_taipei(kEarliestWallMicros) ||
        epoch > epoch_from_taipei(kLatestWallMicros)) {
      wrong_value(layout, index, "is outside the years 1 to 9999 (expected epoch microseconds)", value);
    }
    return taipei_from_epoch(epoch);
  }
  if (!PyDateTime_Check(value)) {
    wrong_type(layout, index, "epoch microseconds (int) or a datetime.datetime", value);
  }
  wall = wall_micros({PyDateTime_GET_YEAR(value), PyDateTime_GET_MONTH(value), PyDateTime_GET_DAY(value),
                      PyDateTime_DATE_GET_HOUR(value), PyDateTime_DATE_GET_MINUTE(value),
                      PyDateTime_DATE_GET_SECOND(value), PyDateTime_DATE_GET_MICROSECOND(value)});
  nb::object offset = checked(PyObject_CallMethod(value, "utcoffset", nullptr));
  if (!offset.is_none()) {
    const std::int64_t utc = wall - (PyDateTime_DELTA_GET_DAYS(offset.ptr()) * kMicrosPerDay +
                                     PyDateTime_DELTA_GET_SECONDS(offset.ptr()) * kMicrosPerSecond +
                                     PyDateTime_DELTA_GET_MICROSECONDS(offset.ptr()));
    wall = taipei_from_epoch(utc);
    if (wall < kEarliestWallMicros || wall > kLatestWallMicros) {
      wrong_value(layout, index, "is outside the years 1 to 9999 in Taipei time", value);
    }
  }
  return wall;
}

void to_levels(const Layout& layout, std::size_t index, PyObject* value, Slot* out) {
  const bool prices = layout.fields[index].kind == Kind::PriceLevels;
  const char* expected = prices ? "a list of prices, best first" : "a list of volumes, best first";
  if (PyUnicode_Check(value) || PyBytes_Check(value) || !PySequence_Check(value)) {
    wrong_type(layout, index, expected, value);
  }
  nb::object levels = checked(PySequence_Fast(value, expected));
  const Py_ssize_t depth = PySequence_Fast_GET_SIZE(levels.ptr());
  if (depth > static_cast<Py_ssize_t>(kBookDepth)) {
    PyErr_Format(PyExc_ValueError, "%s content[%zu] (%s) holds at most %zu levels, got %zd", layout.type_name,
                 index, layout.fields[index].name, kBookDepth, depth);
    raise();
  }
  PyObject** items = PySequence_Fast_ITEMS(levels.ptr());
  for (Py_ssize_t level = 0; level < depth; ++level) {
    PyObject* item = items[level];
    if (prices) {
      if (PyFloat_CheckExact(item)) {
        out[level].number = PyFloat_AS_DOUBLE(item);
      } else if (PyUnicode_Check(item) || !PyNumber_Check(item)) {
        PyErr_Format(PyExc_TypeError, "%s content[%zu] (%s) level %zd must be a number, got %.200s",
                     layout.type_name, index, layout.fields[index].name, level, Py_TYPE(item)->tp_name);
        raise();
      } else {
        out[level].number = PyFloat_AsDouble(item);
        if (out[level].number == -1.0 && PyErr_Occurred()) raise();
      }
    } else {
      if (!PyLong_Check(item) && !PyIndex_Check(item)) {
        PyErr_Format(PyExc_TypeError, "%s content[%zu] (%s) level %zd must be an integer, got %.200s",
                     layout.type_name, index, layout.fields[index].name, level, Py_TYPE(item)->tp_name);
        raise();
      }
      out[level].count = to_count(layout, index, item);
    }
  }
  // A thin book fills the missing levels with zeros.
  for (std::size_t level = static_cast<std::size_t>(depth); level < kBookDepth; ++level) out[level].count = 0;
}

std::string field_list(const Layout& layout) {
  std::string names;
  for (std::size_t i = 0; i < layout.field_count; ++i) {
    if (i) names += ", ";
    names += layout.fields[i].name;
  }
  return names;
}

PyObject* time_value(std::int64_t wall) noexcept {
  const WallTime t = wall_time(wall);
  return PyDateTime_FromDateAndTime(t.year, t.month, t.day, t.hour, t.minute, t.second, t.microsecond);
}

PyObject* levels_value(const Slot* slots, bool prices) noexcept {
  PyObject* list = PyList_New(kBookDepth);
  if (!list) return nullptr;
  for (std::size_t level = 0; level < kBookDepth; ++level) {
    PyObject* item =
        prices ? PyFloat_FromDouble(slots[level].number) : PyLong_FromLongLong(slots[level].count);
    if (!item) {
      Py_DECREF(list);
      return nullptr;
    }
    PyList_SET_ITEM(list, static_cast<Py_ssize_t>(level), item);
  }
  return list;
}

PyObject* value_of(const Field& field, const RecordHead& head, const Slot* slots, bool as_content) noexcept {
  const Slot* slot = slots + field.slot;
  switch (field.kind) {
    case Kind::Code: {
      PyObject* code = head.code.is_valid() ? head.code.ptr() : Py_None;
      Py_INCREF(code);
      return code;
    }
    case Kind::Time:
      return as_content ? PyLong_FromLongLong(epoch_from_taipei(slot->count)) : time_value(slot->count);
    case Kind::Number: return PyFloat_FromDouble(slot->number);
    case Kind::Count: return PyLong_FromLongLong(slot->count);
    case Kind::Flag: return PyBool_FromLong(slot->count != 0);
    case Kind::PriceLevels: return levels_value(slot, true);
    case Kind::VolumeLevels: return levels_value(slot, false);
  }
  PyErr_SetString(PyExc_SystemError, "quote record field of unknown kind");
  return nullptr;
}

}  // namespace

void init_record_support() {
  PyDateTime_IMPORT;
  if (!PyDateTimeAPI) raise();
}

void parse_content(const Layout& layout, PyObject* const* content, Py_ssize_t count, RecordHead& head,
                   Slot* slots) {
  if (count != static_cast<Py_ssize_t>(layout.field_count)) {
    PyErr_Format(PyExc_TypeError, "%s expects %zu content elements (%s), got %zd", layout.type_name,
                 layout.field_count, field_list(layout).c_str(), count);
    raise();
  }
  for (std::size_t i = 0; i < layout.field_count; ++i) {
    const Field& field = layout.fields[i];
    PyObject* value = content[i];
    Slot* slot = slots + field.slot;
    switch (field.kind) {
      case Kind::Code:
        if (!PyUnicode_Check(value)) wrong_type(layout, i, "a str", value);
        head.code = nb::borrow(value);
        break;
      case Kind::Time: slot->count = to_time(layout, i, value); break;
      case Kind::Number: slot->number = to_number(layout, i, value); break;
      case Kind::Count: slot->count = to_count(layout, i, value); break;
      case Kind::Flag: slot->count = to_flag(layout, i, value); break;
      case Kind::PriceLevels:
      case Kind::VolumeLevels: to_levels(layout, i, value, slot); break;
    }
  }
}

PyObject* field_value(const Field& field, const RecordHead& head, const Slot* slots) noexcept {
  return value_of(field, head, slots, false);
}

PyObject* content_value(const Field& field, const RecordHead& head, const Slot* slots) noexcept {
  return value_of(field, head, slots, true);
}

nb::dict record_dict(const Layout& layout, const RecordHead& head, const Slot* slots) {
  nb::dict fields;
  for (std::size_t i = 0; i < layout.field_count; ++i) {
    const Field& field = layout.fields[i];
    nb::object value = checked(field_value(field, head, slots));
    if (PyDict_SetItemString(fields.ptr(), field.name, value.ptr()) != 0) raise();
  }
  if (layout.odd_lot &&
      PyDict_SetItemString(fields.ptr(), "intraday_odd", head.intraday_odd ? Py_True : Py_False)) {
    raise();
  }
  return fields;
}

nb::list record_keys(const Layout& layout) {
  nb::list names;
  for (std::size_t i = 0; i < layout.field_count; ++i) names.append(layout.fields[i].name);
  if (layout.odd_lot) names.append("intraday_odd");
  return names;
}

nb::object record_item(const Layout& layout, const RecordHead& head, const Slot* slots, nb::handle key) {
  if (PyUnicode_Check(key.ptr())) {
    const char* name = PyUnicode_AsUTF8(key.ptr());
    if (!name) raise();
    for (std::size_t i = 0; i < layout.field_count; ++i) {
      if (std::string_view(name) == layout.fields[i].name)
        return checked(field_value(layout.fields[i], head, slots));
    }
    if (layout.odd_lot && std::string_view(name) == "intraday_odd") return nb::bool_(head.intraday_odd);
  }
  PyErr_SetObject(PyExc_KeyError, nb::str("{} has no field {!r}; its fields are {}")
                                      .format(layout.type_name, key, field_list(layout).c_str())
                                      .ptr());
  raise();
}

nb::list record_content(const Layout& layout, const RecordHead& head, const Slot* slots) {
  nb::list content;
  for (std::size_t i = 0; i < layout.field_count; ++i) {
    content.append(checked(content_value(layout.fields[i], head, slots)));
  }
  return content;
}

nb::str record_repr(const Layout& layout, const RecordHead& head, const Slot* slots) {
  std::string text = layout.type_name;
  text += '(';
  for (std::size_t i = 0; i < layout.field_count; ++i) {
    if (i) text += ", ";
    text += layout.fields[i].name;
    text += '=';
    nb::object value = checked(field_value(layout.fields[i], head, slots));
    text += nb::repr(value).c_str();
  }
  if (layout.odd_lot) text += head.intraday_odd ? ", intraday_odd=True" : ", intraday_odd=False";
  text += ')';
  return nb::str(text.c_str(), text.size());
}

bool records_equal(const Layout& layout, const RecordHead& a, const Slot* a_slots, const RecordHead& b,
                   const Slot* b_slots) {
  if (a.intraday_odd != b.intraday_odd) return false;
  for (std::size_t i = 0; i < layout.field_count; ++i) {
    const Field& field = layout.fields[i];
    const Slot* x = a_slots + field.slot;
    const Slot* y = b_slots + field.slot;
    switch (field.kind) {
      case Kind::Code: {
        const int same = PyObject_RichCompareBool(a.code.ptr(), b.code.ptr(), Py_EQ);
        if (same < 0) raise();
        if (!same) return false;
        break;
      }
      case Kind::Number:
        if (x->number != y->number) return false;
        break;
      case Kind::PriceLevels:
        for (std::size_t level = 0; level < kBookDepth; ++level) {
          if (x[level].number != y[level].number) return false;
        }
        break;
      case Kind::VolumeLevels:
        for (std::size_t level = 0; level < kBookDepth; ++level) {
          if (x[level].count != y[level].count) return false;
        }
        break;
      case Kind::Time:
      case Kind::Count:
      case Kind::Flag:
        if (x->count != y->count) return false;
        break;
    }
  }
  return true;
}

Py_hash_t record_hash(const Layout& layout, const RecordHead& head, const Slot* slots) {
  std::uint64_t hash = 1469598103934665603ULL;  // FNV-1a over the stored values
  auto mix = [&hash](std::uint64_t value) { hash = (hash ^ value) * 1099511628211ULL; };
  auto mix_number = [&mix](double number) {
    // 0.0 and -0.0 are equal, so they must hash alike.
    if (number == 0.0) number = 0.0;
    std::uint64_t bits = 0;
    std::memcpy(&bits, &number, sizeof bits);
    mix(bits);
  };
  mix(head.intraday_odd);
  for (std::size_t i = 0; i < layout.field_count; ++i) {
    const Field& field = layout.fields[i];
    const Slot* slot = slots + field.slot;
    switch (field.kind) {
      case Kind::Code: {
        const Py_hash_t code = head.code.is_valid() ? PyObject_Hash(head.code.ptr()) : 0;
        if (code == -1) raise();
        mix(static_cast<std::uint64_t>(code));
        break;
      }
      case Kind::Number: mix_number(slot->number); break;
      case Kind::PriceLevels:
        for (std::size_t level = 0; level < kBookDepth; ++level) mix_number(slot[level].number);
        break;
      case Kind::VolumeLevels:
        for (std::size_t level = 0; level < kBookDepth; ++level)
          mix(static_cast<std::uint64_t>(slot[level].count));
        break;
      case Kind::Time:
      case Kind::Count:
      case Kind::Flag: mix(static_cast<std::uint64_t>(slot->count)); break;
    }
  }
  return static_cast<Py_hash_t>(hash >> 1);  // non-negative, so never the error value -1
}

namespace detail {

void add_static_constructor(nb::handle cls, PyMethodDef* def) {
  nb::object module_name = nb::getattr(cls, "__module__");
  nb::object function = checked(PyCFunction_NewEx(def, cls.ptr(), module_name.ptr()));
  nb::object method = checked(PyStaticMethod_New(function.ptr()));
  if (PyObject_SetAttrString(cls.ptr(), def->ml_name, method.ptr()) != 0) raise();
}

void add_getset(nb::handle cls, PyGetSetDef* def) {
  nb::object descriptor = checked(PyDescr_NewGetSet(reinterpret_cast<PyTypeObject*>(cls.ptr()), def));
  if (PyObject_SetAttrString(cls.ptr(), def->name, descriptor.ptr()) != 0) raise();
}

}  // namespace detail

}  // namespace quorvex::quote
