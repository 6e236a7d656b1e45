// Shared pieces of the signing library: owning handles for OpenSSL objects, Base64, the
// subject rule and the error-queue reading. Internal to qv_sign.
#pragma once

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quorvex::sign::detail {

template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* p) const { Free(p); }
};

using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, Deleter<PKCS12_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;

// OPENSSL_free is a macro; deleters need a function.
inline void openssl_free(void* p) { OPENSSL_free(p); }
inline void free_x509_stack(STACK_OF(X509) * s) { sk_X509_pop_free(s, X509_free); }
using X509StackPtr = std::unique_ptr<STACK_OF(X509), Deleter<free_x509_stack>>;
// A stack whose certificates belong to someone else: only the stack is freed.
inline void free_stack_only(STACK_OF(X509) * s) { sk_X509_free(s); }
using BorrowedX509StackPtr = std::unique_ptr<STACK_OF(X509), Deleter<free_stack_only>>;

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
