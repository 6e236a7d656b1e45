// quorvex.TWCA.ca.issue_demo_certificate and demo_authority_pem: certificates for paper
// trading from the demo authority. Key generation and the file write run without the GIL.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include "glue.hpp"
#include "quorvex/sign/demo_authority.hpp"

namespace nb = nanobind;

namespace {

std::string text_argument(nb::handle value, const char* what) {
  if (!PyUnicode_Check(value.ptr()))
    throw nb::type_error(
        (std::string(what) + " expects str, got " + nb::type_name(value.type()).c_str()).c_str());
  Py_ssize_t size = 0;
  const char* data = PyUnicode_AsUTF8AndSize(value.ptr(), &size);
  if (!data) {
    PyErr_Clear();  // the codec's message would quote the character, maybe of a password
    throw nb::value_error(
        (std::string(what) + " is not valid Unicode text (it holds a lone surrogate)").c_str());
  }
  return std::string(data, static_cast<std::size_t>(size));
}

// str, bytes or os.PathLike in the file system's encoding; the interpreter's own errors for
// anything else and for an embedded NUL.
std::string path_argument(nb::handle value) {
  PyObject* converted = nullptr;
  if (!PyUnicode_FSConverter(value.ptr(), &converted)) throw nb::python_error();
  nb::object bytes = nb::steal(converted);
  return std::string(PyBytes_AS_STRING(bytes.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr())));
}

// The caller's password copied for the GIL-free work, wiped on every way out.
struct WipedText {
  std::string text;
  ~WipedText() { std::fill(text.begin(), text.end(), '\0'); }
};

nb::str issue(nb::handle path, nb::handle password, nb::handle person_id, int days) {
  const std::string file = path_argument(path);
  const WipedText secret{text_argument(password, "password")};
  const std::string person = text_argument(person_id, "person_id");
  quorvex::sign::DemoCertificate issued;
  int error_number = 0;
  {
    quorvex::pyglue::GilRelease unlocked;
    try {
      issued = quorvex::sign::issue_demo_certificate(file, secret.text, person, days);
    } catch (const std::system_error& e) {
      error_number = e.code().value();
    }
  }
  if (error_number != 0) {
    // The interpreter's own OSError subclass (FileNotFoundError, PermissionError, ...) with the path.
    errno = error_number;
    nb::object name =
        nb::steal(PyUnicode_DecodeFSDefaultAndSize(file.data(), static_cast<Py_ssize_t>(file.size())));
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, name.ptr());
    throw nb::python_error();
  }
  return nb::steal<nb::str>(
      PyUnicode_DecodeFSDefaultAndSize(issued.path.data(), static_cast<Py_ssize_t>(issued.path.size())));
}

}  // namespace

void define_demo_authority(nb::module_& m) {
  m.def("issue_demo_certificate", &issue, nb::arg("path").none(), nb::arg("password").none(),
        nb::arg("person_id").none(), nb::arg("days") = 30,
        "Write a PKCS#12 file at path for person_id (its commonName), locked with password and valid for "
        "days days (1 to 3650), issued by the demo authority; returns the path. For paper trading only: "
        "the demo authority's key is public. Raises ValueError for a bad argument, OSError when the file "
        "cannot be written.");
  m.def(
      "demo_authority_pem",
      [] {
        quorvex::pyglue::GilRelease unlocked;
        return quorvex::sign::demo_authority_pem();
      },
      "The demo authority's certificate in PEM, the same in every process.");
}
