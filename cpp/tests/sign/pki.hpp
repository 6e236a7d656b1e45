// Throw-away certificate authority and personal certificates for the signing tests, made
// with the OpenSSL API and written as PKCS#12 files into a per-suite temporary folder.
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "quorvex/sign/openssl_handles.hpp"

namespace quorvex::sign::testing {

using Key = PkeyPtr;
using Cert = X509Ptr;

struct Identity {
  Key key;
  Cert cert;
};

// Subject attributes as (short name, value) pairs, e.g. {{"CN", "A123456789"}}.
using Subject = std::vector<std::pair<std::string, std::string>>;

inline void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test PKI: ") + what + " failed");
}

class Pki {
 public:
  Pki() : dir_(std::filesystem::temp_directory_path() / ("qv_sign_" + std::to_string(::getpid()))) {
    std::filesystem::create_directories(dir_);
    authority_ =
        make({{"C", "TW"}, {"O", "Test Authority"}, {"CN", "Test Root"}}, nullptr, -3600, 86400 * 30, true);
  }
  ~Pki() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  const Identity& authority() const { return authority_; }
  const std::filesystem::path& dir() const { return dir_; }

  // A certificate issued by `issuer` (self-signed when null), valid from now+from to now+to seconds.
  Identity make(const Subject& subject, const Identity* issuer, long from, long to, bool ca = false) {
    Identity id{Key(EVP_EC_gen("P-256")), Cert(X509_new())};
    check(id.key && id.cert, "key generation");
    X509* x = id.cert.get();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), ++serial_);
    X509_gmtime_adj(X509_getm_notBefore(x), from);
    X509_gmtime_adj(X509_getm_notAfter(x), to);
    X509_set_pubkey(x, id.key.get());
    X509_NAME* name = X509_get_subject_name(x);
    for (const auto& [field, value] : subject)
      check(X509_NAME_add_entry_by_txt(name, field.c_str(), MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1, 0),
            "subject entry");
    X509_set_issuer_name(x, issuer ? X509_get_subject_name(issuer->cert.get()) : name);
    if (ca) {
      X509V3_CTX ctx;
      X509V3_set_ctx_nodb(&ctx);
      X509V3_set_ctx(&ctx, x, x, nullptr, nullptr, 0);
      std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>> ext(
          X509V3_EXT_conf_nid(nullptr, &ctx, NID_basic_constraints, "critical,CA:TRUE"));
      check(ext && X509_add_ext(x, ext.get(), -1), "CA extension");
    }
    check(X509_sign(x, issuer ? issuer->key.get() : id.key.get(), EVP_sha256()) > 0, "certificate signing");
    return id;
  }

  Identity person(const Subject& subject, long from = -3600, long to = 86400) {
    return make(subject, &authority_, from, to);
  }

  // Writes `id` with the authority certificate as a PKCS#12 file; returns its path.
  std::string write(const std::string& file, const Identity& id, const char* password) {
    X509StackPtr chain(sk_X509_new_null());
    check(chain && sk_X509_push(chain.get(), authority_.cert.get()), "chain");
    X509_up_ref(authority_.cert.get());
    Pkcs12Ptr p12(PKCS12_create(password, "person", id.key.get(), id.cert.get(), chain.get(), 0, 0, 0, 0, 0));
    check(p12 != nullptr, "PKCS12_create");
    const std::string path = (dir_ / file).string();
    BioPtr out(BIO_new_file(path.c_str(), "wb"));
    check(out && i2d_PKCS12_bio(out.get(), p12.get()), "PKCS#12 write");
    return path;
  }

  static std::string pem(const Identity& id) {
    BioPtr out(BIO_new(BIO_s_mem()));
    check(out && PEM_write_bio_X509(out.get(), id.cert.get()), "PEM write");
    char* data = nullptr;
    const long n = BIO_get_mem_data(out.get(), &data);
    return std::string(data, static_cast<std::size_t>(n));
  }

 private:
  std::filesystem::path dir_;
  long serial_ = 0;
  Identity authority_;
};

}  // namespace quorvex::sign::testing
