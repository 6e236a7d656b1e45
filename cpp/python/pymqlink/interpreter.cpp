#include "interpreter.hpp"

#include <nanobind/stl/string.h>

namespace pymqlink {

void report_callback_error(const std::string& where) noexcept {
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  if (traceback && value) PyException_SetTraceback(value, traceback);
  nb::object exc = nb::steal(value ? value : nb::none().release().ptr());
  Py_XDECREF(type);
  Py_XDECREF(traceback);
  try {
    nb::module_::import_("pymqlink._log").attr("report_callback_error")(where, exc);
  } catch (nb::python_error& failure) {
    // The logger itself failed: fall back to the interpreter's last-resort report.
    failure.restore();
    PyErr_WriteUnraisable(nullptr);
  } catch (const std::exception& failure) {
    PyErr_SetString(PyExc_RuntimeError, failure.what());
    PyErr_WriteUnraisable(nullptr);
  }
}

}  // namespace pymqlink
