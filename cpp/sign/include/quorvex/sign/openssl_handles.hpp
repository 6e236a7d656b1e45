// Owning handles for the OpenSSL objects the signing library and its users deal in.
#pragma once

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <memory>

namespace quorvex::sign {

// unique_ptr deleter calling an OpenSSL free function.
template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* p) const {
    Free(p);
  }
};

// OPENSSL_free is a macro; deleters need a function.
inline void openssl_free(void* p) { OPENSSL_free(p); }
inline void free_x509_stack(STACK_OF(X509) * s) { sk_X509_pop_free(s, X509_free); }
// A stack whose certificates belong to someone else: only the stack is freed.
inline void free_stack_only(STACK_OF(X509) * s) { sk_X509_free(s); }

using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, Deleter<PKCS12_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;
using X509StackPtr = std::unique_ptr<STACK_OF(X509), Deleter<free_x509_stack>>;
using BorrowedX509StackPtr = std::unique_ptr<STACK_OF(X509), Deleter<free_stack_only>>;

}  // namespace quorvex::sign
