// Real-time quote records: fixed fields stored in C++, no per-record dict.
//
// A record type is described once by its content layout: the ordered fields of a quote
// message's `content` list. The same table drives parsing (`from_content`), the field
// getters, `dict()`, equality, `repr` and the way back to content (`to_content`, pickling).
// The layouts themselves live with their modules (tick, bidask, quote) and are documented in
// docs/protocol.md, which the feed publishes from.
#pragma once

#include <nanobind/nanobind.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <new>

namespace quorvex::quote {

namespace nb = nanobind;

// Price levels a bid/ask record carries on each side.
constexpr std::size_t kBookDepth = 5;

enum class Kind : std::uint8_t {
  Code,          // str, the contract code
  Time,          // epoch microseconds in content; naive Taipei datetime.datetime in the record
  Number,        // float: prices, amounts, percentages
  Count,         // int: volumes, order counts, tick and change types
  Flag,          // bool
  PriceLevels,   // list of kBookDepth floats, best level first
  VolumeLevels,  // list of kBookDepth ints, best level first
};

constexpr std::uint16_t slot_width(Kind kind) {
  return kind == Kind::Code ? 0 : (kind == Kind::PriceLevels || kind == Kind::VolumeLevels) ? kBookDepth : 1;
}

struct Field {
  const char* name;
  Kind kind;
  std::uint16_t slot = 0;  // first storage slot; assigned by with_slots
};

// Assigns each field its storage slots, in content order.
template <std::size_t N>
constexpr std::array<Field, N> with_slots(std::array<Field, N> fields) {
  std::uint16_t next = 0;
  for (std::size_t i = 0; i < N; ++i) {
    fields[i].slot = next;
    next = static_cast<std::uint16_t>(next + slot_width(fields[i].kind));
  }
  return fields;
}

template <std::size_t A, std::size_t B>
constexpr std::array<Field, A + B> join(const std::array<Field, A>& first,
                                        const std::array<Field, B>& second) {
  std::array<Field, A + B> fields{};
  for (std::size_t i = 0; i < A; ++i) fields[i] = first[i];
  for (std::size_t i = 0; i < B; ++i) fields[A + i] = second[i];
  return fields;
}

template <std::size_t N>
constexpr std::size_t slot_count(const std::array<Field, N>& fields) {
  std::size_t total = 0;
  for (std::size_t i = 0; i < N; ++i) total += slot_width(fields[i].kind);
  return total;
}

// One stored value; which member is live follows from the field's kind.
union Slot {
  double number;
  std::int64_t count;  // also Time (Taipei wall-clock micros) and Flag (0 or 1)
};

// What the shared code needs to know of a record type.
struct Layout {
  const char* type_name;
  const Field* fields;
  std::size_t field_count;
  bool odd_lot;  // has from_content_odd and the intraday_odd field
};

struct RecordHead {
  nb::object code;
  bool intraday_odd = false;
};

// The storage of one record of layout `Shape` (a struct with kName, kFields, kOddLot, kDoc).
template <class Shape>
struct QuoteRecord {
  static constexpr Layout layout() {
    return {Shape::kName, Shape::kFields.data(), Shape::kFields.size(), Shape::kOddLot};
  }
  RecordHead head;
  std::array<Slot, slot_count(Shape::kFields)> slots{};
};

// ---- layout-generic operations (record.cpp) ------------------------------------------

// Prepares the interpreter's datetime interface; each module calls this once at import.
void init_record_support();

// Fills `head` and `slots` from content elements. Raises TypeError or ValueError (as
// nb::python_error) naming the record type, the field, its position and what it expects.
void parse_content(const Layout& layout, PyObject* const* content, Py_ssize_t count, RecordHead& head,
                   Slot* slots);

// A field's value as a new Python object, or nullptr with a Python error set.
PyObject* field_value(const Field& field, const RecordHead& head, const Slot* slots) noexcept;
// A field as content: like field_value, but a time as epoch microseconds.
PyObject* content_value(const Field& field, const RecordHead& head, const Slot* slots) noexcept;

nb::dict record_dict(const Layout& layout, const RecordHead& head, const Slot* slots);
nb::list record_keys(const Layout& layout);
nb::object record_item(const Layout& layout, const RecordHead& head, const Slot* slots, nb::handle key);
nb::list record_content(const Layout& layout, const RecordHead& head, const Slot* slots);
nb::str record_repr(const Layout& layout, const RecordHead& head, const Slot* slots);
// Consistent with records_equal: equal records hash alike.
Py_hash_t record_hash(const Layout& layout, const RecordHead& head, const Slot* slots);
bool records_equal(const Layout& layout, const RecordHead& a, const Slot* a_slots, const RecordHead& b,
                   const Slot* b_slots);

// Runs `body`, turning a C++ exception into a pending Python error; for C entry points.
template <class Body>
PyObject* guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (nb::python_error& e) {
    e.restore();
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  }
  return nullptr;
}

// ---- binding one record type ---------------------------------------------------------

namespace detail {

template <class Shape>
QuoteRecord<Shape>& record_of(PyObject* self) {
  return *nb::inst_ptr<QuoteRecord<Shape>>(self);
}

template <class Shape, bool OddLot>
PyObject* from_content(PyObject* type, PyObject* const* content, Py_ssize_t count) noexcept {
  return guarded([&]() -> PyObject* {
    constexpr Layout layout = QuoteRecord<Shape>::layout();
    QuoteRecord<Shape> parsed;
    parse_content(layout, content, count, parsed.head, parsed.slots.data());
    parsed.head.intraday_odd = OddLot;
    nb::object instance = nb::inst_alloc(type);
    // The instance memory comes from nanobind; the record is moved into it in place.
    ::new (nb::inst_ptr<QuoteRecord<Shape>>(instance)) QuoteRecord<Shape>(std::move(parsed));
    nb::inst_mark_ready(instance);
    return instance.release().ptr();
  });
}

template <class Shape>
PyObject* get_field(PyObject* self, void* closure) noexcept {
  const QuoteRecord<Shape>& record = record_of<Shape>(self);
  return field_value(*static_cast<const Field*>(closure), record.head, record.slots.data());
}

template <class Shape>
PyObject* get_intraday_odd(PyObject* self, void*) noexcept {
  return PyBool_FromLong(record_of<Shape>(self).head.intraday_odd);
}

// Vectorcall-style constructors: the router hands over the message's content items
// without building an argument tuple.
template <class Shape, bool OddLot>
PyMethodDef* content_constructor(const char* name, const char* doc) {
  static PyMethodDef def = {
      name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&from_content<Shape, OddLot>)),
      METH_FASTCALL, doc};
  return &def;
}

void add_static_constructor(nb::handle cls, PyMethodDef* def);
void add_getset(nb::handle cls, PyGetSetDef* def);

}  // namespace detail

template <class Shape>
nb::class_<QuoteRecord<Shape>> bind_record(nb::module_& m) {
  using Record = QuoteRecord<Shape>;
  nb::class_<Record> cls(m, Shape::kName, Shape::kDoc);

  // Plain C getters: a field read costs a slot load and one object, no call dispatch.
  static std::array<PyGetSetDef, Shape::kFields.size() + 1> getters{};
  for (std::size_t i = 0; i < Shape::kFields.size(); ++i) {
    getters[i] = {Shape::kFields[i].name, &detail::get_field<Shape>, nullptr, nullptr,
                  const_cast<Field*>(&Shape::kFields[i])};
    detail::add_getset(cls, &getters[i]);
  }
  if (Shape::kOddLot) {
    getters.back() = {"intraday_odd", &detail::get_intraday_odd<Shape>, nullptr,
                      "True for an intraday odd-lot record, whose volumes count shares", nullptr};
    detail::add_getset(cls, &getters.back());
  }

  detail::add_static_constructor(
      cls,
      detail::content_constructor<Shape, false>(
          "from_content", "from_content(*content)\n--\n\nBuild a record from a message's content elements."));
  if (Shape::kOddLot) {
    detail::add_static_constructor(
        cls, detail::content_constructor<Shape, true>(
                 "from_content_odd",
                 "from_content_odd(*content)\n--\n\nBuild an intraday odd-lot record (volumes in shares)."));
  }

  cls.def(
         "dict", [](const Record& r) { return record_dict(Record::layout(), r.head, r.slots.data()); },
         "The fields as a dict, in content order.")
      .def("keys", [](const Record&) { return record_keys(Record::layout()); })
      .def("__getitem__",
           [](const Record& r, nb::handle key) {
             return record_item(Record::layout(), r.head, r.slots.data(), key);
           })
      .def(
          "to_content",
          [](const Record& r) { return record_content(Record::layout(), r.head, r.slots.data()); },
          "The record as message content: the list from_content takes (time as epoch microseconds).")
      .def("__repr__", [](const Record& r) { return record_repr(Record::layout(), r.head, r.slots.data()); })
      .def(
          "__eq__",
          [](const Record& a, nb::handle other) -> nb::object {
            if (!nb::isinstance<Record>(other)) return nb::borrow(Py_NotImplemented);
            const Record& b = nb::cast<const Record&>(other);
            return nb::bool_(records_equal(Record::layout(), a.head, a.slots.data(), b.head, b.slots.data()));
          },
          nb::is_operator())
      .def("__hash__", [](const Record& r) { return record_hash(Record::layout(), r.head, r.slots.data()); })
      .def("__reduce__", [](nb::handle self) {
        const Record& r = nb::cast<const Record&>(self);
        const char* constructor = r.head.intraday_odd ? "from_content_odd" : "from_content";
        nb::object content = record_content(Record::layout(), r.head, r.slots.data());
        return nb::make_tuple(nb::getattr(self.type(), constructor), nb::tuple(content));
      });
  return cls;
}

}  // namespace quorvex::quote
