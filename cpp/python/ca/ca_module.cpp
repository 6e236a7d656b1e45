// quorvex.TWCA.ca: the person's order-signing certificate for Python callers.
// All OpenSSL work (opening, unlocking, signing) runs with the GIL released.
#include <nanobind/nanobind.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>

#include <optional>
#include <string>
#include <string_view>

#include "glue.hpp"
#include "quorvex/sign/signer.hpp"

namespace nb = nanobind;
void define_demo_authority(nb::module_& m);  // demo_authority_binding.cpp
using quorvex::sign::CertificateStore;
using quorvex::sign::Signer;
using quorvex::sign::SignError;

namespace {

std::string type_of(nb::handle value) { return nb::type_name(value.type()).c_str(); }

// A path given as str, bytes or os.PathLike, in the file system's encoding.
std::string path_argument(nb::handle value) {
  nb::object path = nb::steal(PyOS_FSPath(value.ptr()));
  if (!path.is_valid()) {
    PyErr_Clear();
    throw nb::type_error(
        ("ca_path expects a path (str, bytes or os.PathLike), got " + type_of(value)).c_str());
  }
  if (PyUnicode_Check(path.ptr())) {
    path = nb::steal(PyUnicode_EncodeFSDefault(path.ptr()));
    if (!path.is_valid()) throw nb::python_error();
  }
  std::string bytes(PyBytes_AS_STRING(path.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(path.ptr())));
  if (bytes.find('\0') != std::string::npos)
    throw nb::value_error("ca_path must not contain a NUL character");
  return bytes;
}

// A view of the caller's text without copying it, so that no unwiped copy of a secret is
// made here; the view lives as long as the argument object. `what` names the argument.
std::string_view text_view(nb::handle value, const char* what, bool secret) {
  if (PyUnicode_Check(value.ptr())) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(value.ptr(), &size);
    if (!data) {
      // The codec's own message quotes the offending character; never show a secret's.
      PyErr_Clear();
      throw nb::value_error(
          (std::string(what) + " is not valid Unicode text (it holds a lone surrogate)").c_str());
    }
    return {data, static_cast<std::size_t>(size)};
  }
  if (secret && PyBytes_Check(value.ptr()))
    return {PyBytes_AS_STRING(value.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(value.ptr()))};
  throw nb::type_error(
      (std::string(what) + (secret ? " expects str or bytes, got " : " expects str, got ") + type_of(value))
          .c_str());
}

Signer open_signer(nb::handle ca_path, nb::handle ca_password, std::string person_id,
                   std::optional<std::string> public_ip, int store) {
  if (store != static_cast<int>(CertificateStore::File))
    throw nb::value_error(
        ("store " + std::to_string(store) + " is not supported; expected 0, the certificate file store")
            .c_str());
  const std::string path = path_argument(ca_path);
  const std::string_view password = text_view(ca_password, "ca_password", true);
  quorvex::pyglue::GilRelease unlocked;
  return Signer(path, password, std::move(person_id), public_ip.value_or(std::string()));
}

std::string repr(const Signer& signer) {
  nb::str text = nb::str("PyTWCASign(person_id={!r}, public_ip={!r}, active={})")
                     .format(signer.person_id(), signer.public_ip(), signer.is_active());
  return text.c_str();
}

}  // namespace

NB_MODULE(ca, m) {
  m.doc() = "Order-signing certificates: PKCS#12 files opened with their password, CMS signatures in Base64.";
  quorvex::pyglue::init_interpreter();

  nb::exception<SignError>(m, "CASignError", PyExc_RuntimeError);

  nb::class_<Signer>(
      m, "PyTWCASign",
      "A person's signing certificate, opened from a PKCS#12 file. A file that is missing, "
      "unreadable, locked with another password, expired or issued to someone else leaves the "
      "signer inactive (is_activate() is False, activation_error says why); signing then raises "
      "CASignError. The password is not kept.")
      .def(nb::new_(&open_signer), nb::arg("ca_path"), nb::arg("ca_password"), nb::arg("person_id"),
           nb::arg("public_ip").none(), nb::arg("store") = 0,
           "Open the certificate file. store must be 0 (the file store); public_ip may be None.")
      .def("is_activate", &Signer::is_active,
           "True when the file opened, its certificate names person_id (commonName or serialNumber) and "
           "is inside its validity period now.")
      .def(
          "sign",
          [](const Signer& signer) {
            quorvex::pyglue::GilRelease unlocked;
            return signer.sign_order();
          },
          "Order signature: Base64 CMS signed data carrying the text 'person_id|public_ip|YYYYMMDDhhmmss' "
          "(UTC, now).")
      .def(
          "get_sign",
          [](const Signer& signer, nb::handle plain_text) {
            const std::string_view text = text_view(plain_text, "get_sign plain_text", false);
            quorvex::pyglue::GilRelease unlocked;
            return signer.sign_text(text);
          },
          nb::arg("plain_text"),
          "Detached Base64 CMS signature of the text's UTF-8 bytes, with the signer certificate included.")
      .def_prop_ro("person_id", &Signer::person_id)
      .def_prop_ro("public_ip", &Signer::public_ip)
      .def_prop_ro("activation_error", &Signer::activation_error,
                   "Why the signer is not active; empty text when it is.")
      .def_prop_ro("subject", &Signer::certificate_subject,
                   "The certificate subject; empty if the file did not open.")
      .def("__repr__", &repr);

  define_demo_authority(m);
}
