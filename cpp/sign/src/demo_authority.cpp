#include "quorvex/sign/demo_authority.hpp"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "openssl_support.hpp"
#include "quorvex/sign/signer.hpp"

namespace quorvex::sign {

using namespace detail;

namespace {

// Published on purpose: anyone may rebuild the authority, which is what lets separate
// processes agree on it without sharing files.
constexpr std::string_view kAuthorityLabel = "quorvex demo certificate authority: paper trading only";
constexpr const char* kAuthorityNotBefore = "20240101000000Z";
constexpr const char* kAuthorityNotAfter = "20491231235959Z";
constexpr const char* kOrganisation = "quorvex paper trading";
// Issued certificates start a little in the past so that a clock slightly behind still accepts them.
constexpr long kBackdateSeconds = 300;

using BignumPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;

[[noreturn]] void openssl_failed(const char* step) {
  throw SignError(std::string("issuing the demo certificate failed in OpenSSL (") + step +
                  "): " + take_openssl_error());
}

void require(bool ok, const char* step) {
  if (!ok) openssl_failed(step);
}

void add_subject_entry(X509_NAME* name, const char* field, std::string_view value) {
  require(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(value.data()),
                                     static_cast<int>(value.size()), -1, 0) == 1,
          "subject");
}

void add_extension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  ExtensionPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  require(ext && X509_add_ext(cert, ext.get(), -1) == 1, "extension");
}

PkeyPtr authority_key() {
  unsigned char seed[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(kAuthorityLabel.data()), kAuthorityLabel.size(), seed);
  PkeyPtr key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, sizeof seed));
  OPENSSL_cleanse(seed, sizeof seed);
  require(key != nullptr, "authority key");
  return key;
}

// Ed25519 signatures are deterministic, so with fixed fields the certificate is the same
// bytes in every process.
X509Ptr authority_certificate(EVP_PKEY* key) {
  X509Ptr cert(X509_new());
  require(cert != nullptr, "authority certificate");
  X509* x = cert.get();
  require(X509_set_version(x, 2) == 1, "version");
  require(ASN1_INTEGER_set(X509_get_serialNumber(x), 1) == 1, "serial number");
  require(ASN1_TIME_set_string_X509(X509_getm_notBefore(x), kAuthorityNotBefore) == 1, "validity");
  require(ASN1_TIME_set_string_X509(X509_getm_notAfter(x), kAuthorityNotAfter) == 1, "validity");
  require(X509_set_pubkey(x, key) == 1, "public key");
  X509_NAME* name = X509_get_subject_name(x);
  add_subject_entry(name, "C", "TW");
  add_subject_entry(name, "O", kOrganisation);
  add_subject_entry(name, "CN", "quorvex Demo Authority");
  require(X509_set_issuer_name(x, name) == 1, "issuer");
  add_extension(x, x, NID_basic_constraints, "critical,CA:TRUE");
  add_extension(x, x, NID_key_usage, "critical,keyCertSign,cRLSign");
  add_extension(x, x, NID_subject_key_identifier, "hash");
  // Ed25519 takes no separate digest.
  require(X509_sign(x, key, nullptr) > 0, "authority signature");
  return cert;
}

void random_serial(X509* cert) {
  unsigned char bytes[16];
  require(RAND_bytes(bytes, sizeof bytes) == 1, "serial number");
  bytes[0] &= 0x7f;  // a positive integer
  bytes[0] |= 0x01;  // and never a short one
  BignumPtr bn(BN_bin2bn(bytes, sizeof bytes, nullptr));
  require(bn && BN_to_ASN1_INTEGER(bn.get(), X509_get_serialNumber(cert)) != nullptr, "serial number");
}

std::string validated_person(std::string_view person_id) {
  if (person_id.empty())
    throw std::invalid_argument("person_id is empty; expected the person's id, e.g. A123456789");
  if (person_id.find('|') != std::string_view::npos)
    throw std::invalid_argument("person_id must not contain '|', the field separator of order signatures");
  return std::string(person_id);
}

// The file holds a private key: created for its owner only, and replaced in place.
class OwnerOnlyFile {
 public:
  explicit OwnerOnlyFile(const std::string& path)
      : path_(path), fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
    if (fd_ < 0) fail();
    if (::fchmod(fd_, 0600) != 0) fail();
  }
  ~OwnerOnlyFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  OwnerOnlyFile(const OwnerOnlyFile&) = delete;
  OwnerOnlyFile& operator=(const OwnerOnlyFile&) = delete;

  void write_all(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        const int error = errno;
        ::unlink(path_.c_str());  // a truncated key file is worse than none
        errno = error;
        fail();
      }
      done += static_cast<std::size_t>(n);
    }
    const int fd = std::exchange(fd_, -1);
    if (::close(fd) != 0) fail();
  }

 private:
  [[noreturn]] void fail() const {
    throw std::system_error(errno, std::generic_category(), "cannot write the certificate file " + path_);
  }
  std::string path_;
  int fd_;
};

}  // namespace

DemoCertificate issue_demo_certificate(const std::string& path, std::string_view password,
                                       std::string_view person_id, int days) {
  const std::string person = validated_person(person_id);
  if (password.empty())
    throw std::invalid_argument(
        "the certificate password is empty; expected a password to lock the file with");
  if (days < kDemoCertificateMinDays || days > kDemoCertificateMaxDays)
    throw std::invalid_argument("days is " + std::to_string(days) + "; expected a validity of " +
                                std::to_string(kDemoCertificateMinDays) + " to " +
                                std::to_string(kDemoCertificateMaxDays) + " days");
  if (path.empty()) throw std::invalid_argument("the certificate path is empty; expected a file path");

  const PkeyPtr authority = authority_key();
  const X509Ptr authority_cert = authority_certificate(authority.get());

  PkeyPtr key(EVP_EC_gen("P-256"));
  require(key != nullptr, "key generation");
  X509Ptr cert(X509_new());
  require(cert != nullptr, "certificate");
  X509* x = cert.get();
  require(X509_set_version(x, 2) == 1, "version");
  random_serial(x);
  std::time_t now = std::time(nullptr);  // OpenSSL takes it by non-const pointer
  DemoCertificate issued;
  issued.not_before = now - kBackdateSeconds;
  issued.not_after = now + static_cast<std::time_t>(days) * 86400;
  require(X509_time_adj_ex(X509_getm_notBefore(x), 0, -kBackdateSeconds, &now) != nullptr, "validity");
  require(X509_time_adj_ex(X509_getm_notAfter(x), days, 0, &now) != nullptr, "validity");
  require(X509_set_pubkey(x, key.get()) == 1, "public key");
  X509_NAME* name = X509_get_subject_name(x);
  add_subject_entry(name, "C", "TW");
  add_subject_entry(name, "O", kOrganisation);
  add_subject_entry(name, "CN", person);
  require(X509_set_issuer_name(x, X509_get_subject_name(authority_cert.get())) == 1, "issuer");
  add_extension(x, authority_cert.get(), NID_basic_constraints, "critical,CA:FALSE");
  add_extension(x, authority_cert.get(), NID_key_usage, "critical,digitalSignature,nonRepudiation");
  add_extension(x, authority_cert.get(), NID_authority_key_identifier, "keyid:always");
  require(X509_sign(x, authority.get(), nullptr) > 0, "certificate signature");

  X509StackPtr chain(sk_X509_new_null());
  require(chain && sk_X509_push(chain.get(), authority_cert.get()) > 0, "chain");
  X509_up_ref(authority_cert.get());  // the chain's pop_free releases this reference

  // A NUL-terminated copy for OpenSSL, wiped before it is released.
  std::vector<char> secret;
  secret.reserve(password.size() + 1);  // never reallocates, so no unwiped copy is left behind
  secret.assign(password.begin(), password.end());
  secret.push_back('\0');
  Pkcs12Ptr p12(
      PKCS12_create(secret.data(), person.c_str(), key.get(), cert.get(), chain.get(), 0, 0, 0, 0, 0));
  OPENSSL_cleanse(secret.data(), secret.size());
  require(p12 != nullptr, "PKCS#12 packing");

  BioPtr der(BIO_new(BIO_s_mem()));
  require(der && i2d_PKCS12_bio(der.get(), p12.get()) == 1, "PKCS#12 encoding");
  OwnerOnlyFile(path).write_all(bio_contents(der.get()));

  issued.path = path;
  issued.subject = subject_line(x);
  return issued;
}

std::string demo_authority_pem() {
  const PkeyPtr key = authority_key();
  const X509Ptr cert = authority_certificate(key.get());
  BioPtr out(BIO_new(BIO_s_mem()));
  require(out && PEM_write_bio_X509(out.get(), cert.get()) == 1, "PEM encoding");
  return bio_contents(out.get());
}

}  // namespace quorvex::sign
