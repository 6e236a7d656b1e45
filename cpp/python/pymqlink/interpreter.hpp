// The binding's contract with the interpreter: when Python may be touched, references that C++
// owns and may drop on any thread, and how errors of user callbacks are reported.
#pragma once

#include <nanobind/nanobind.h>

#include <string>
#include <utility>

namespace pymqlink {

namespace nb = nanobind;

// False once the interpreter is finalizing: then no thread of ours may take the GIL.
bool interpreter_alive();

// Remembers which thread is the interpreter's main thread (the one that finalizes); at module init.
void init_interpreter();
// Whether a thread that released the GIL must not take it back: the interpreter is finalizing
// and this is not the thread finalizing it.
bool must_not_retake_gil();

// A strong reference held by C++ that may be dropped on any thread, with or without the GIL.
// Created with the GIL held. Dropped after the interpreter is gone, it is leaked on purpose.
class PyRef {
 public:
  PyRef() = default;
  explicit PyRef(nb::handle h) : obj_(h.ptr()) { Py_XINCREF(obj_); }
  PyRef(const PyRef&) = delete;
  PyRef& operator=(const PyRef&) = delete;
  ~PyRef() { reset(); }

  // Replaces the referent; the GIL must be held.
  void assign(nb::handle h) {
    Py_XINCREF(h.ptr());
    reset();
    obj_ = h.ptr();
  }
  void reset();
  nb::handle get() const { return obj_; }
  // A new reference for use with the GIL held (stays valid if the field is replaced meanwhile).
  nb::object borrow() const { return nb::borrow(obj_); }
  explicit operator bool() const { return obj_ != nullptr; }

 private:
  PyObject* obj_ = nullptr;
};

// Logs the Python error now set (with its traceback) through the package's logger and clears it.
// `where` says which callback failed. Needs the GIL.
void report_callback_error(const std::string& where) noexcept;

// Releases the GIL for its scope. If the interpreter started shutting down meanwhile, the thread
// is parked for good instead of taking the GIL back: a thread that does (a daemon thread, say)
// would be ended by the interpreter from inside C++ frames, which aborts the process.
class GilRelease {
 public:
  GilRelease() noexcept : state_(PyEval_SaveThread()) {}
  GilRelease(const GilRelease&) = delete;
  GilRelease& operator=(const GilRelease&) = delete;
  ~GilRelease() {
    if (must_not_retake_gil()) park_forever();
    PyEval_RestoreThread(state_);
  }

 private:
  [[noreturn]] static void park_forever() noexcept;
  PyThreadState* state_;
};

// Runs `f` with the GIL released: around every wait and every core lock.
template <class F>
decltype(auto) without_gil(F&& f) {
  GilRelease release;
  return f();
}

}  // namespace pymqlink
