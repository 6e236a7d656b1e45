// The demo certificate authority: issues order-signing certificates for paper trading, so
// that the whole signing path (activation, order and text signatures, the broker's checks)
// runs without a real authority. Nothing it issues is trusted anywhere else.
//
// The authority's key is derived from a fixed, published label and its certificate has
// fixed dates, so every process (a client, a paper broker on another machine) produces the
// same authority certificate and can trust it without exchanging files. Its key is
// therefore public knowledge: the authority exists for demonstrations and tests only.
//
// Threading: free functions without shared state; safe from any thread. Issuing generates a
// key and writes a file: a few milliseconds.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace quorvex::sign {

// Limits on the validity of an issued certificate, in days.
inline constexpr int kDemoCertificateMinDays = 1;
inline constexpr int kDemoCertificateMaxDays = 3650;

struct DemoCertificate {
  std::string path;     // where the PKCS#12 file was written
  std::string subject;  // one-line subject of the person's certificate
  std::time_t not_before = 0;
  std::time_t not_after = 0;
};

// Writes a PKCS#12 file at `path` (created or replaced, readable by the owner only) holding
// a new key and a certificate for `person_id` (its commonName) valid from a few minutes ago
// for `days` days, issued by the demo authority, with the authority certificate as its
// chain. The file is locked with `password`, which is not kept.
// Throws std::invalid_argument for an empty or '|'-holding person id, an empty password or
// days outside [kDemoCertificateMinDays, kDemoCertificateMaxDays]; std::system_error when the
// file cannot be written; SignError when OpenSSL fails.
DemoCertificate issue_demo_certificate(const std::string& path, std::string_view password,
                                       std::string_view person_id, int days = 30);

// The demo authority's certificate in PEM, for VerifyOptions::trusted_roots_pem.
std::string demo_authority_pem();

}  // namespace quorvex::sign
