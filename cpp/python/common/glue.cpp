#include "glue.hpp"

#include <chrono>
#include <thread>

namespace quorvex::pyglue {

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

void park_forever() noexcept {
  while (true) std::this_thread::sleep_for(std::chrono::hours(1));
}

void PyRef::reset() {
  PyObject* obj = std::exchange(obj_, nullptr);
  if (!obj || !interpreter_alive()) return;
  GilAcquire gil;
  Py_DECREF(obj);
}

}  // namespace quorvex::pyglue
