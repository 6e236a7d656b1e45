// pymqlink's side of the interpreter glue: the shared pieces, and how errors of user callbacks
// are reported through the package's logger.
#pragma once

#include <string>

#include "glue.hpp"

namespace pymqlink {

namespace nb = nanobind;
using quorvex::pyglue::GilRelease;
using quorvex::pyglue::init_interpreter;
using quorvex::pyglue::interpreter_alive;
using quorvex::pyglue::must_not_retake_gil;
using quorvex::pyglue::PyRef;
using quorvex::pyglue::without_gil;

// Logs the Python error now set (with its traceback) through the package's logger and clears it.
// `where` says which callback failed. Needs the GIL.
void report_callback_error(const std::string& where) noexcept;

}  // namespace pymqlink
