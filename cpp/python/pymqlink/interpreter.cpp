#include "interpreter.hpp"

#include <nanobind/stl/string.h>

#include <chrono>
#include <thread>

namespace pymqlink {

bool interpreter_alive() {
  if (!Py_IsInitialized() || !nb::is_alive()) return false;
#if PY_VERSION_HEX >= 0x030D0000
  return !Py_IsFinalizing();
#else
  return !_Py_IsFinalizing();
#endif
}

namespace {
// Set once at module init, read-only afterwards.
unsigned long& main_thread_ident() {
  static unsigned long ident = 0;
  return ident;
}
}  // namespace

void init_interpreter() {
  main_thread_ident() =
      nb::cast<unsigned long>(nb::module_::import_("threading").attr("main_thread")().attr("ident"));
}

bool must_not_retake_gil() {
  return !interpreter_alive() && PyThread_get_thread_ident() != main_thread_ident();
}

void GilRelease::park_forever() noexcept {
  while (true) std::this_thread::sleep_for(std::chrono::hours(1));
}

void PyRef::reset() {
  PyObject* obj = std::exchange(obj_, nullptr);
  if (!obj || !interpreter_alive()) return;
  const PyGILState_STATE state = PyGILState_Ensure();
  Py_DECREF(obj);
  PyGILState_Release(state);
}

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
