#include "wire.hpp"

// The datetime C API is bound per translation unit: it is only used in this file.
#include <datetime.h>
#include <msgpack.hpp>

#include <array>
#include <cstdio>
#include <cstring>
#include <vector>

#include "interpreter.hpp"
#include "quorvex/core/codec.hpp"

namespace pymqlink {
namespace {

constexpr int kMaxDepth = 100;

// Set once at module init and never changed; the references live as long as the process.
struct WireTypes {
  PyObject* enum_type = nullptr;
  PyObject* decimal_type = nullptr;
};

WireTypes& wire_types() {
  static WireTypes types;
  return types;
}

struct Sink {
  std::string& out;
  void write(const char* data, std::size_t size) { out.append(data, size); }
};

[[noreturn]] void raise(PyObject* type, const std::string& message) {
  PyErr_SetString(type, message.c_str());
  throw nb::python_error();
}

class Encoder {
 public:
  Encoder(const char* root, std::string& out) : root_(root), out_(out), sink_{out}, pk_(sink_) {}

  void encode(PyObject* obj, int depth) {
    if (obj == Py_None) return pk_.pack_nil(), void();
    if (obj == Py_True) return pk_.pack_true(), void();
    if (obj == Py_False) return pk_.pack_false(), void();
    PyTypeObject* type = Py_TYPE(obj);
    if (type == &PyLong_Type) return encode_int(obj);
    if (type == &PyFloat_Type) return quorvex::core::append_float64(out_, PyFloat_AS_DOUBLE(obj));
    if (type == &PyUnicode_Type) return encode_str(obj);
    if (type == &PyDict_Type) return encode_dict(obj, depth);
    if (type == &PyList_Type || type == &PyTuple_Type) return encode_sequence(obj, depth);
    if (type == &PyBytes_Type) return encode_bytes(PyBytes_AS_STRING(obj), PyBytes_GET_SIZE(obj));
    encode_other(obj, depth);
  }

 private:
  struct PathItem {
    PyObject* key;  // borrowed while the item is encoded; nullptr for a sequence index
    Py_ssize_t index;
  };

  std::string path() const {
    std::string text = root_;
    for (const auto& item : path_) {
      if (item.key) {
        nb::str repr = nb::steal<nb::str>(PyObject_Repr(item.key));
        text += "[" + std::string(repr.is_valid() ? repr.c_str() : "?") + "]";
        PyErr_Clear();
      } else {
        text += "[" + std::to_string(item.index) + "]";
      }
    }
    return text;
  }

  [[noreturn]] void fail(PyObject* type, const std::string& what) { raise(type, path() + ": " + what); }

  void check_depth(int depth) {
    if (depth >= kMaxDepth) {
      fail(PyExc_ValueError,
           "nesting deeper than " + std::to_string(kMaxDepth) + " levels (does a container hold itself?)");
    }
  }

  void encode_int(PyObject* obj) {
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(obj, &overflow);
    if (overflow == 0) {
      if (value == -1 && PyErr_Occurred()) throw nb::python_error();
      pk_.pack_int64(value);
      return;
    }
    if (overflow > 0) {
      const unsigned long long big = PyLong_AsUnsignedLongLong(obj);
      if (!(big == static_cast<unsigned long long>(-1) && PyErr_Occurred())) {
        pk_.pack_uint64(big);
        return;
      }
      PyErr_Clear();
    }
    fail(PyExc_OverflowError, "int out of range; expected a value that fits 64 bits");
  }

  void encode_str(PyObject* obj) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(obj, &size);
    if (!data) {
      PyErr_Clear();
      fail(PyExc_ValueError, "str cannot be encoded as UTF-8 (lone surrogate?)");
    }
    pk_.pack_str(static_cast<std::uint32_t>(size));
    pk_.pack_str_body(data, static_cast<std::uint32_t>(size));
  }

  void encode_bytes(const char* data, Py_ssize_t size) {
    pk_.pack_bin(static_cast<std::uint32_t>(size));
    pk_.pack_bin_body(data, static_cast<std::uint32_t>(size));
  }

  void encode_key(PyObject* key) {
    if (PyUnicode_CheckExact(key)) return encode_str(key);
    const bool enumeration = is_enum(key);
    if (PyUnicode_Check(key) && !enumeration) return encode_str(key);
    if (enumeration) {
      nb::object value = enum_value(key);
      if (PyUnicode_Check(value.ptr())) return encode_str(value.ptr());
    }
    fail(PyExc_TypeError,
         std::string("map key of type ") + Py_TYPE(key)->tp_name + " cannot be encoded; expected str");
  }

  void encode_dict(PyObject* dict, int depth) {
    check_depth(depth);
    const Py_ssize_t size = PyDict_Size(dict);
    pk_.pack_map(static_cast<std::uint32_t>(size));
    path_.push_back(PathItem{nullptr, 0});
    Py_ssize_t pos = 0;
    Py_ssize_t seen = 0;
    PyObject* key;
    PyObject* value;
    while (PyDict_Next(dict, &pos, &key, &value)) {
      // Held strongly: encoding an enumeration or a Decimal runs Python code that could mutate the dict.
      nb::object key_ref = nb::borrow(key);
      nb::object value_ref = nb::borrow(value);
      path_.back().key = key;
      if (++seen > size) break;
      encode_key(key);
      encode(value, depth + 1);
    }
    path_.pop_back();
    if (seen != size) fail(PyExc_RuntimeError, "dict changed size while it was being encoded");
  }

  void encode_sequence(PyObject* seq, int depth) {
    check_depth(depth);
    const bool is_list = PyList_Check(seq);
    const Py_ssize_t size = is_list ? PyList_GET_SIZE(seq) : PyTuple_GET_SIZE(seq);
    pk_.pack_array(static_cast<std::uint32_t>(size));
    path_.push_back(PathItem{nullptr, 0});
    for (Py_ssize_t i = 0; i < size; ++i) {
      if (is_list && i >= PyList_GET_SIZE(seq))
        fail(PyExc_RuntimeError, "list changed size while it was being encoded");
      nb::object item = nb::borrow(is_list ? PyList_GET_ITEM(seq, i) : PyTuple_GET_ITEM(seq, i));
      path_.back().index = i;
      encode(item.ptr(), depth + 1);
    }
    path_.pop_back();
    if (is_list && PyList_GET_SIZE(seq) != size)
      fail(PyExc_RuntimeError, "list changed size while it was being encoded");
  }

  // Decided once per class; the classes seen are held, which is harmless for enumerations.
  static bool is_enum(PyObject* obj) {
    static PyObject* const known = PyDict_New();
    PyObject* type = reinterpret_cast<PyObject*>(Py_TYPE(obj));
    PyObject* seen = PyDict_GetItemWithError(known, type);
    if (seen) return seen == Py_True;
    if (PyErr_Occurred()) throw nb::python_error();
    const int result = PyObject_IsInstance(obj, wire_types().enum_type);
    if (result < 0) throw nb::python_error();
    if (PyDict_SetItem(known, type, result ? Py_True : Py_False) != 0) throw nb::python_error();
    return result == 1;
  }

  void encode_text(const char* text, int length) {
    pk_.pack_str(static_cast<std::uint32_t>(length));
    pk_.pack_str_body(text, static_cast<std::uint32_t>(length));
  }

  // A member's value: its `_value_`, which every enumeration keeps on the member itself, read
  // without running the `value` property's Python code; `value` if a member lacks it.
  static nb::object enum_value(PyObject* member) {
    static PyObject* const value_name = PyUnicode_InternFromString("_value_");
    PyObject* value = PyObject_GetAttr(member, value_name);
    if (!value) {
      PyErr_Clear();
      value = PyObject_GetAttrString(member, "value");
      if (!value) throw nb::python_error();
    }
    return nb::steal(value);
  }

  void encode_other(PyObject* obj, int depth) {
    if (is_enum(obj)) {
      check_depth(depth);
      return encode(enum_value(obj).ptr(), depth + 1);
    }
    char buf[48];
    if (PyDateTime_Check(obj)) {
      const int usec = PyDateTime_DATE_GET_MICROSECOND(obj);
      const int n = std::snprintf(
          buf, sizeof buf, usec ? "%04d-%02d-%02d %02d:%02d:%02d.%06d" : "%04d-%02d-%02d %02d:%02d:%02d",
          PyDateTime_GET_YEAR(obj), PyDateTime_GET_MONTH(obj), PyDateTime_GET_DAY(obj),
          PyDateTime_DATE_GET_HOUR(obj), PyDateTime_DATE_GET_MINUTE(obj), PyDateTime_DATE_GET_SECOND(obj),
          usec);
      return encode_text(buf, n);
    }
    if (PyDate_Check(obj)) {
      const int n = std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", PyDateTime_GET_YEAR(obj),
                                  PyDateTime_GET_MONTH(obj), PyDateTime_GET_DAY(obj));
      return encode_text(buf, n);
    }
    if (PyTime_Check(obj)) {
      const int usec = PyDateTime_TIME_GET_MICROSECOND(obj);
      const int n = std::snprintf(buf, sizeof buf, usec ? "%02d:%02d:%02d.%06d" : "%02d:%02d:%02d",
                                  PyDateTime_TIME_GET_HOUR(obj), PyDateTime_TIME_GET_MINUTE(obj),
                                  PyDateTime_TIME_GET_SECOND(obj), usec);
      return encode_text(buf, n);
    }
    const int is_decimal = PyObject_IsInstance(obj, wire_types().decimal_type);
    if (is_decimal < 0) throw nb::python_error();
    if (is_decimal) {
      nb::object text = nb::steal(PyObject_Str(obj));
      if (!text.is_valid()) throw nb::python_error();
      return encode_str(text.ptr());
    }
    if (PyLong_Check(obj)) return encode_int(obj);
    if (PyFloat_Check(obj)) return quorvex::core::append_float64(out_, PyFloat_AsDouble(obj));
    if (PyUnicode_Check(obj)) return encode_str(obj);
    if (PyDict_Check(obj)) return encode_dict(obj, depth);
    if (PyList_Check(obj) || PyTuple_Check(obj)) return encode_sequence(obj, depth);
    if (PyBytes_Check(obj)) return encode_bytes(PyBytes_AS_STRING(obj), PyBytes_GET_SIZE(obj));
    if (PyByteArray_Check(obj)) return encode_bytes(PyByteArray_AS_STRING(obj), PyByteArray_GET_SIZE(obj));
    fail(PyExc_TypeError, std::string("cannot encode object of type ") + Py_TYPE(obj)->tp_name);
  }

  const char* root_;
  std::string& out_;
  Sink sink_;
  msgpack::packer<Sink> pk_;
  std::vector<PathItem> path_;
};

struct DecodeFrame {
  DecodeFrame(PyObject* container_, bool is_map_) : container(container_), is_map(is_map_) {}
  PyObject* container;  // borrowed: owned by its parent or the root
  bool is_map;
  bool key_position = false;
  Py_ssize_t index = 0;
  PyObject* key = nullptr;  // owned until the value arrives
};

}  // namespace

namespace {

// Texts seen recently in payloads, map keys and short values, shared by every decoder of the
// process and used with the GIL held: the payloads of a stream repeat their keys and many of
// their values ("Buy", "LMT", an account id), which then cost neither a new str nor a new hash.
// Keys are interned, so the dicts and attribute lookups that use them compare by identity.
class RecentTexts {
 public:
  static constexpr std::uint32_t kMaxKey = 32;
  static constexpr std::uint32_t kMaxValue = 16;

  // A new reference to the str of `data`, nullptr with a Python error on bad UTF-8.
  PyObject* text(const char* data, std::uint32_t size, bool is_key) {
    if (size > (is_key ? kMaxKey : kMaxValue)) return PyUnicode_DecodeUTF8(data, size, "strict");
    std::uint32_t hash = is_key ? 2166136261u : 84696351u;
    for (std::uint32_t i = 0; i < size; ++i) hash = (hash ^ static_cast<unsigned char>(data[i])) * 16777619u;
    Slot& slot = slots_[hash % kSlots];
    // Only ASCII texts are kept, so a kept text's characters are its UTF-8 bytes.
    if (slot.text && slot.hash == hash && PyUnicode_GET_LENGTH(slot.text) == static_cast<Py_ssize_t>(size) &&
        (size == 0 || std::memcmp(PyUnicode_DATA(slot.text), data, size) == 0)) {  // "" comes with no data
      Py_INCREF(slot.text);
      return slot.text;
    }
    PyObject* text = PyUnicode_DecodeUTF8(data, size, "strict");
    if (!text || !PyUnicode_IS_ASCII(text)) return text;
    if (is_key) PyUnicode_InternInPlace(&text);
    Py_INCREF(text);
    Py_XSETREF(slot.text, text);
    slot.hash = hash;
    return text;
  }

 private:
  static constexpr std::size_t kSlots = 1024;
  struct Slot {
    PyObject* text = nullptr;  // owned; an ASCII str
    std::uint32_t hash = 0;    // of its bytes, seeded by key or value
  };
  std::array<Slot, kSlots> slots_;
};

// Made once and never freed: str objects must not be released after the interpreter is gone.
RecentTexts& recent_texts() {
  static RecentTexts* const texts = new RecentTexts();
  return *texts;
}

}  // namespace

struct PayloadDecoder::Scratch {
  std::vector<DecodeFrame> frames;
};

namespace {

// Builds Python objects from msgpack parse events.
class ObjectBuilder {
 public:
  ObjectBuilder(std::size_t input_size, PayloadDecoder::Scratch& scratch)
      : guard_(input_size, kMaxDepth), scratch_(scratch), frames_(scratch.frames) {
    frames_.clear();
  }
  ~ObjectBuilder() {
    for (auto& frame : frames_) Py_CLEAR(frame.key);
    frames_.clear();
    Py_XDECREF(root_);
  }

  PyObject* release_root() { return std::exchange(root_, nullptr); }
  const std::string& error() const { return error_; }
  bool python_error() const { return python_error_; }

  bool visit_nil() { return place(nb::none().release().ptr()); }
  bool visit_boolean(bool v) { return place(PyBool_FromLong(v)); }
  bool visit_positive_integer(std::uint64_t v) { return place(PyLong_FromUnsignedLongLong(v)); }
  bool visit_negative_integer(std::int64_t v) { return place(PyLong_FromLongLong(v)); }
  bool visit_float32(float v) { return place(PyFloat_FromDouble(v)); }
  bool visit_float64(double v) { return place(PyFloat_FromDouble(v)); }
  bool visit_str(const char* data, std::uint32_t size) {
    if (in_key()) return take_key(recent_texts().text(data, size, true));
    return place(recent_texts().text(data, size, false));
  }
  bool visit_bin(const char* data, std::uint32_t size) {
    return place(PyBytes_FromStringAndSize(data, size));
  }
  bool visit_ext(const char* data, std::uint32_t /*size*/) {
    return fail("msgpack extension type " +
                std::to_string(static_cast<int>(static_cast<std::int8_t>(data[0]))) + " is not supported");
  }
  bool start_array(std::uint32_t n) {
    if (!admit(n, false)) return false;
    PyObject* list = PyList_New(n);
    return open(list, false);
  }
  bool start_array_item() { return true; }
  bool end_array_item() { return true; }
  bool end_array() { return close(); }
  bool start_map(std::uint32_t n) {
    if (!admit(n, true)) return false;
    // Sized for its entries up front, so a record-sized map is not rehashed as it fills.
    return open(n > 5 ? _PyDict_NewPresized(static_cast<Py_ssize_t>(n)) : PyDict_New(), true);
  }
  bool start_map_key() {
    frames_.back().key_position = true;
    return true;
  }
  bool end_map_key() { return true; }
  bool start_map_value() {
    frames_.back().key_position = false;
    return true;
  }
  bool end_map_value() { return true; }
  bool end_map() { return close(); }
  void parse_error(std::size_t, std::size_t error_offset) {
    fail(quorvex::core::DecodeGuard::malformed_at(error_offset));
  }
  void insufficient_bytes(std::size_t, std::size_t) { fail(guard_.truncated()); }
  bool referenced() const { return false; }
  void set_referenced(bool) {}

 private:
  using Frame = DecodeFrame;

  bool in_key() const { return !frames_.empty() && frames_.back().is_map && frames_.back().key_position; }

  // The wire kind of a decoded scalar, named as the core's decoder names it.
  static const char* kind_name(PyObject* obj) {
    if (obj == Py_None) return "nil";
    if (PyBool_Check(obj)) return "bool";
    if (PyLong_Check(obj)) return "int";
    if (PyFloat_Check(obj)) return "double";
    if (PyBytes_Check(obj)) return "binary";
    return Py_TYPE(obj)->tp_name;
  }

  bool fail(std::string message) {
    if (error_.empty() && !python_error_) error_ = std::move(message);
    return false;
  }

  bool admit(std::uint32_t n, bool is_map) {
    if (in_key()) return fail(quorvex::core::DecodeGuard::non_string_key(is_map ? "map" : "array"));
    std::string refusal = guard_.admit(frames_.size(), n, is_map);
    return refusal.empty() || fail(std::move(refusal));
  }

  bool take_key(PyObject* key) {
    if (!key) return python_error_ = true, false;
    guard_.spend();
    frames_.back().key = key;
    return true;
  }

  // Takes ownership of `obj` (a new reference, or nullptr with a Python error set).
  bool place(PyObject* obj) {
    if (!obj) return python_error_ = true, false;
    if (frames_.empty()) {
      root_ = obj;
      return true;
    }
    Frame& frame = frames_.back();
    if (frame.is_map && frame.key_position) {
      const char* kind = kind_name(obj);
      Py_DECREF(obj);
      return fail(quorvex::core::DecodeGuard::non_string_key(kind));
    }
    guard_.spend();
    if (!frame.is_map) {
      PyList_SET_ITEM(frame.container, frame.index++, obj);
      return true;
    }
    const Py_ssize_t before = PyDict_GET_SIZE(frame.container);
    const int rc = PyDict_SetItem(frame.container, frame.key, obj);
    Py_DECREF(obj);
    PyObject* key = std::exchange(frame.key, nullptr);
    if (rc < 0) {
      Py_DECREF(key);
      return python_error_ = true, false;
    }
    if (PyDict_GET_SIZE(frame.container) == before) {
      Py_ssize_t size = 0;
      const char* text = PyUnicode_AsUTF8AndSize(key, &size);
      std::string name = text ? std::string(text, size) : std::string("?");
      Py_DECREF(key);
      return fail(quorvex::core::DecodeGuard::duplicate_key(name));
    }
    Py_DECREF(key);
    return true;
  }

  bool open(PyObject* container, bool is_map) {
    if (!container) return python_error_ = true, false;
    PyObject* borrowed = container;
    if (!place(container)) return false;
    frames_.emplace_back(borrowed, is_map);
    return true;
  }

  bool close() {
    Py_XDECREF(frames_.back().key);
    frames_.pop_back();
    return true;
  }

  quorvex::core::DecodeGuard guard_;
  PayloadDecoder::Scratch& scratch_;
  std::vector<Frame>& frames_;
  PyObject* root_ = nullptr;
  std::string error_;
  bool python_error_ = false;
};

}  // namespace

void init_wire() {
  PyDateTime_IMPORT;
  if (!PyDateTimeAPI) throw nb::python_error();
  wire_types().enum_type = nb::object(nb::module_::import_("enum").attr("Enum")).release().ptr();
  wire_types().decimal_type = nb::object(nb::module_::import_("decimal").attr("Decimal")).release().ptr();
}

void encode_payload_into(nb::handle obj, const char* root, std::string& out) {
  Encoder encoder(root, out);
  encoder.encode(obj.ptr(), 0);
}

std::string encode_payload(nb::handle obj, const char* root) {
  std::string out;
  encode_payload_into(obj, root, out);
  return out;
}

PayloadDecoder::PayloadDecoder() : scratch_(std::make_unique<Scratch>()) {}
PayloadDecoder::~PayloadDecoder() = default;

nb::object decode_payload(std::string_view bytes) {
  PayloadDecoder decoder;
  return decoder.decode(bytes);
}

nb::object PayloadDecoder::decode(std::string_view bytes) {
  using quorvex::core::DecodeGuard;
  if (bytes.empty()) raise(PyExc_ValueError, DecodeGuard::empty_input());
  ObjectBuilder builder(bytes.size(), *scratch_);
  std::size_t offset = 0;
  const bool ok = msgpack::parse(bytes.data(), bytes.size(), offset, builder);
  if (!ok) {
    if (builder.python_error()) throw nb::python_error();
    raise(PyExc_ValueError, builder.error().empty() ? "malformed msgpack" : builder.error());
  }
  if (offset != bytes.size()) raise(PyExc_ValueError, DecodeGuard::trailing(offset, bytes.size()));
  return nb::steal(builder.release_root());
}

}  // namespace pymqlink
