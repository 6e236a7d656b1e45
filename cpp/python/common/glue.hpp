// The glue every extension module shares with the interpreter: when Python may be touched,
// references that C++ owns and may drop on any thread, and releasing the GIL so that a thread
// coming back while the interpreter shuts down is parked instead of unwound. Each module calls
// init_interpreter() when it is imported.
#pragma once

#include <cxxabi.h>
#include <nanobind/nanobind.h>

#include <string>
#include <utility>

namespace quorvex::pyglue {

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

// Sleeps for good: where a thread goes that must never run Python again.
[[noreturn]] void park_forever() noexcept;

// Takes the GIL for its scope on a thread of ours (a messaging thread). If the interpreter ends
// the thread while it waits (shutdown began), the thread is parked instead of unwound.
class GilAcquire {
 public:
  GilAcquire() noexcept {
    try {
      state_ = PyGILState_Ensure();
    } catch (...) {
      park_forever();
    }
  }
  GilAcquire(const GilAcquire&) = delete;
  GilAcquire& operator=(const GilAcquire&) = delete;
  ~GilAcquire() { PyGILState_Release(state_); }

 private:
  PyGILState_STATE state_{};
};

// Runs `f`; if the interpreter ends this thread inside it (a Python call that waited for the
// GIL while shutdown began), parks the thread instead of letting the unwind cross C++ frames
// that cannot pass it (nanobind's dispatch, noexcept functions).
template <class F>
decltype(auto) parking_on_exit(F&& f) {
  try {
    return f();
  } catch (abi::__forced_unwind&) {
    park_forever();
  }
}

// Releases the GIL for its scope. If the interpreter started shutting down meanwhile, the thread
// is parked for good instead of taking the GIL back: a thread that does (a daemon thread, say)
// would be ended by the interpreter from inside C++ frames, which aborts the process. The thread
// shutting the interpreter down keeps the GIL: releasing it then would wake a thread already
// waiting for it, which the interpreter ends the same way.
class GilRelease {
 public:
  GilRelease() noexcept : state_(interpreter_alive() ? PyEval_SaveThread() : nullptr) {}
  GilRelease(const GilRelease&) = delete;
  GilRelease& operator=(const GilRelease&) = delete;
  ~GilRelease() {
    if (state_ == nullptr) return;
    if (must_not_retake_gil()) park_forever();
    try {
      PyEval_RestoreThread(state_);
    } catch (...) {
      // The shutdown began while this thread waited for the GIL, and the interpreter ended the
      // thread (a forced unwind, which no C++ frame above may see). Park it inside the handler:
      // the process exits around it.
      park_forever();
    }
  }

 private:
  PyThreadState* state_;
};

// Runs `f` with the GIL released: around every wait and every core lock.
template <class F>
decltype(auto) without_gil(F&& f) {
  GilRelease release;
  return f();
}

}  // namespace quorvex::pyglue
