// Verification of the signatures a Signer makes, for the receiving side (the paper broker).
//
// Threading: free functions without shared state; safe from any thread.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace quorvex::sign {

// What an order signature's content says: "person_id|public_ip|YYYYMMDDhhmmss" (UTC).
struct OrderStamp {
  std::string person_id;
  std::string public_ip;
  std::time_t signed_at = 0;
};

// None when the text is not of that form (three fields, a valid 14-digit UTC time).
std::optional<OrderStamp> parse_order_text(std::string_view text);

struct VerifyOptions {
  // PEM certificates of the authorities to trust. When empty, the signer's chain is not
  // checked: only the signature itself, the signer's validity period and its subject.
  std::string trusted_roots_pem;
  // The moment at which validity periods are judged; now when unset.
  std::optional<std::time_t> at;
};

struct Verification {
  bool valid = false;
  std::string error;                // why it is not valid; empty when valid
  std::string signed_text;          // the content covered by the signature
  std::string signer_subject;       // one-line subject of the signer certificate, when found
  std::optional<OrderStamp> stamp;  // for order signatures
  explicit operator bool() const { return valid; }
};

// Checks a detached signature (Signer::sign_text) of `text` by the certificate of
// `person_id`. Never throws for bad input; the result says what was wrong.
Verification verify_text_signature(std::string_view text, std::string_view signature_base64,
                                   std::string_view person_id, const VerifyOptions& options = {});

// Checks an attached order signature (Signer::sign_order): the CMS signature, the signer
// certificate naming `person_id`, and the stamp inside naming the same person.
Verification verify_order_signature(std::string_view signature_base64, std::string_view person_id,
                                    const VerifyOptions& options = {});

}  // namespace quorvex::sign
