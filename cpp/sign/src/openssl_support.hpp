// Shared pieces of the signing library: Base64, the subject rule and the error-queue
// reading. Internal to qv_sign.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "quorvex/sign/openssl_handles.hpp"

namespace quorvex::sign::detail {

// Read-only memory BIO over `data`; the bytes must outlive the BIO.
BioPtr memory_bio(std::string_view data);
std::string bio_contents(BIO* bio);

std::string base64_encode(std::string_view bytes);
// None on any character outside the standard alphabet, bad padding or a length that is
// not a multiple of four.
std::optional<std::string> base64_decode(std::string_view text);

// The oldest reason on this thread's OpenSSL error queue ("unknown error" when empty);
// the queue is cleared. OpenSSL reasons never carry passwords.
std::string take_openssl_error();

bool same_person(std::string_view a, std::string_view b);
// Whether a commonName or serialNumber of the certificate's subject is the person id.
bool certificate_names_person(X509* cert, std::string_view person_id);
std::string subject_line(X509* cert);

// What is wrong with the certificate's validity period at `at`; empty when `at` is inside.
std::string validity_problem(X509* cert, std::time_t at);

}  // namespace quorvex::sign::detail
