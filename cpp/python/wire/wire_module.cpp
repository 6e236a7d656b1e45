// quorvex._wire: the core's wire helpers (Base58) for Python code.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include "quorvex/core/base58.hpp"

namespace nb = nanobind;
using namespace quorvex::core;

namespace {

std::string_view as_bytes_view(nb::handle h, const char* what) {
  if (PyBytes_Check(h.ptr())) {
    return {PyBytes_AS_STRING(h.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(h.ptr()))};
  }
  if (PyUnicode_Check(h.ptr())) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(h.ptr(), &size);
    if (!data) throw nb::python_error();
    return {data, static_cast<std::size_t>(size)};
  }
  throw nb::type_error(
      (std::string(what) + " expects bytes or str, got " + nb::type_name(h.type()).c_str()).c_str());
}

}  // namespace

NB_MODULE(_wire, m) {
  m.doc() = "Wire helpers of the quorvex core: Base58 with the Bitcoin alphabet.";
  nb::set_leak_warnings(false);

  m.def(
      "b58encode",
      [](nb::handle data) {
        const std::string text = base58_encode(as_bytes_view(data, "b58encode"));
        return nb::bytes(text.data(), text.size());
      },
      nb::arg("data"), "Encode bytes as Base58; returns ASCII bytes.");

  m.def(
      "b58decode",
      [](nb::handle text) {
        std::string_view view = as_bytes_view(text, "b58decode");
        try {
          const Bytes raw = base58_decode(view);
          return nb::bytes(reinterpret_cast<const char*>(raw.data()), raw.size());
        } catch (const Base58Error& e) {
          throw nb::value_error(e.what());
        }
      },
      nb::arg("text"), "Decode Base58 text (str or ASCII bytes) to bytes; ValueError on a bad character.");
}
