// SolaceAPI: certificate activation and signing. One signer per person in `activated_ca`;
// the signing itself is the ca module's (PyTWCASign), which releases the GIL while it works.
#include "api.hpp"

namespace quorvex::api {
namespace {

[[noreturn]] void raise_generic(nb::handle message) {
  PyErr_SetObject(PyExc_Exception, message.ptr());
  throw nb::python_error();
}

// The signing module, chosen at each call: the backend package's copy on macOS.
nb::object signing_module() {
  nb::object platform = attr(module_attr(QV_NAME("sys")), QV_NAME("platform"));
  const bool darwin = equals(platform, nb::str("darwin"));
  return nb::module_::import_(darwin ? "quorvex.backend.solace.ca" : "quorvex.TWCA.ca");
}

// Gives an account without a person to the logged-in user, as the services expect.
void fill_person(nb::handle self, nb::handle account) {
  if (!truthy(attr(account, QV_NAME("person_id"))))
    nb::setattr(account, QV_NAME("person_id"), attr(self, QV_NAME("_person_id")));
}

// The signer registered for the person, else the logged-in user's; None when neither.
nb::object find_signer(nb::handle self, nb::handle person_id) {
  nb::object activated = attr(self, QV_NAME("activated_ca"));
  nb::object signer = get(activated, person_id, nb::none());
  if (signer.is_none()) signer = get(activated, attr(self, QV_NAME("_person_id")), nb::none());
  return signer;
}

[[noreturn]] void raise_not_activated(nb::handle person_id) {
  raise_generic(format("Please activate ca for person_id: {}", person_id));
}

}  // namespace

void define_signing(ApiClass& api) {
  import_names(api, {"CASign"});
  nb::setattr(api.module(), "sys", nb::module_::import_("sys"));

  api.method(
      "activate_ca",
      [](nb::handle self, nb::handle ca_path, nb::handle ca_password, nb::handle person_id,
         nb::handle store) -> nb::object {
        nb::object ca = signing_module();
        nb::object public_ip = attr(self, QV_NAME("_public_ip"));
        if (public_ip.is_none()) raise_generic(nb::str("Login To Activate Ca"));
        nb::object signer =
            attr(ca, QV_NAME("PyTWCASign"))(ca_path, ca_password, person_id, public_ip, store);
        nb::object activated = attr(signer, QV_NAME("is_activate"))();
        // A signer that did not open never replaces one that works.
        if (truthy(activated)) set_item(attr(self, QV_NAME("activated_ca")), person_id, signer);
        return activated;
      },
      nb::arg("ca_path"), nb::arg("ca_password"), nb::arg("person_id"), nb::arg("store") = 0);

  api.method(
      "prepare_ca",
      [](nb::handle self, nb::handle order) -> nb::object {
        nb::object account = attr(order, QV_NAME("account"));
        if (!truthy(account)) raise_generic(format("{} not provide account.", order));
        fill_person(self, account);
        nb::object person_id = attr(account, QV_NAME("person_id"));
        nb::object signer = find_signer(self, person_id);
        if (signer.is_none()) raise_not_activated(person_id);
        nb::object signature = attr(signer, QV_NAME("sign"))();
        nb::setattr(order, QV_NAME("ca"), signature);
        return nb::borrow(order);
      },
      nb::arg("order"));

  api.method(
      "prepare_casign",
      [](nb::handle self, nb::handle plain_text, nb::handle account) -> nb::object {
        fill_person(self, account);
        nb::object person_id = attr(account, QV_NAME("person_id"));
        nb::object signer = find_signer(self, person_id);
        if (signer.is_none()) raise_not_activated(person_id);
        nb::object signature = attr(signer, QV_NAME("get_sign"))(plain_text);
        return module_attr(QV_NAME("CASign"))("signature"_a = signature, "plain_text"_a = plain_text);
      },
      nb::arg("plain_text"), nb::arg("account"));
}

}  // namespace quorvex::api
