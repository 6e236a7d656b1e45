#include "quorvex/sign/signer.hpp"

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <filesystem>
#include <system_error>
#include <vector>

#include "openssl_support.hpp"

namespace quorvex::sign {

using namespace detail;

struct Signer::Material {
  PkeyPtr key;
  X509Ptr cert;
  X509StackPtr chain;  // authority certificates from the file, sent along with signatures
};

namespace {

// A NUL-terminated copy of a secret for OpenSSL, wiped when it goes out of scope.
class WipedCopy {
 public:
  explicit WipedCopy(std::string_view secret) {
    // Reserve first so that the buffer never reallocates and leaves an unwiped copy behind.
    data_.reserve(secret.size() + 1);
    data_.assign(secret.begin(), secret.end());
    data_.push_back('\0');
  }
  ~WipedCopy() { OPENSSL_cleanse(data_.data(), data_.size()); }
  WipedCopy(const WipedCopy&) = delete;
  WipedCopy& operator=(const WipedCopy&) = delete;

  const char* c_str() const { return data_.data(); }
  int size() const { return static_cast<int>(data_.size() - 1); }

 private:
  std::vector<char> data_;
};

bool mac_accepts(PKCS12* p12, const WipedCopy& password) {
  if (!PKCS12_mac_present(p12)) return true;
  if (password.size() == 0) {
    // An empty password may have been applied as "no password" or as the empty text.
    return PKCS12_verify_mac(p12, nullptr, 0) || PKCS12_verify_mac(p12, "", 0);
  }
  return PKCS12_verify_mac(p12, password.c_str(), password.size());
}

}  // namespace

std::unique_ptr<Signer::Material> Signer::open_file(const std::string& path, std::string_view password,
                                                    std::string& error) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  if (!fs::exists(status)) {
    error = "certificate file not found: " + path;
    return nullptr;
  }
  if (fs::is_directory(status)) {
    error = "certificate path is a directory, expected a PKCS#12 (.pfx or .p12) file: " + path;
    return nullptr;
  }
  BioPtr file(BIO_new_file(path.c_str(), "rb"));
  if (!file) {
    const std::string reason = std::error_code(errno, std::generic_category()).message();
    ERR_clear_error();
    error = "cannot read the certificate file " + path + ": " + reason;
    return nullptr;
  }
  Pkcs12Ptr p12(d2i_PKCS12_bio(file.get(), nullptr));
  if (!p12) {
    ERR_clear_error();
    error = "the certificate file is not PKCS#12 data (expected a .pfx or .p12 file): " + path;
    return nullptr;
  }

  const WipedCopy secret(password);
  if (!mac_accepts(p12.get(), secret)) {
    ERR_clear_error();
    error = "wrong password for the certificate file " + path;
    return nullptr;
  }
  EVP_PKEY* key = nullptr;
  X509* cert = nullptr;
  STACK_OF(X509)* chain = nullptr;
  if (!PKCS12_parse(p12.get(), secret.c_str(), &key, &cert, &chain)) {
    const std::string reason = take_openssl_error();
    error = "cannot decrypt the certificate file " + path + " (" + reason +
            "); a file protected with a legacy cipher such as RC2 must be exported again with AES";
    return nullptr;
  }
  auto material = std::make_unique<Material>();
  material->key.reset(key);
  material->cert.reset(cert);
  material->chain.reset(chain);
  if (!material->key || !material->cert) {
    error = "the certificate file holds no certificate with its private key: " + path;
    return nullptr;
  }
  if (!X509_check_private_key(material->cert.get(), material->key.get())) {
    ERR_clear_error();
    error = "the private key in the certificate file does not belong to its certificate: " + path;
    return nullptr;
  }
  return material;
}

std::string order_text(std::string_view person_id, std::string_view public_ip, std::time_t at) {
  std::tm tm{};
  gmtime_r(&at, &tm);
  char stamp[16];
  std::strftime(stamp, sizeof stamp, "%Y%m%d%H%M%S", &tm);
  std::string text;
  text.reserve(person_id.size() + public_ip.size() + 16);
  text.append(person_id).append("|").append(public_ip).append("|").append(stamp);
  return text;
}

Signer::Signer(const std::string& path, std::string_view password, std::string person_id,
               std::string public_ip)
    : person_id_(std::move(person_id)), public_ip_(std::move(public_ip)) {
  if (person_id_.find('|') != std::string::npos || public_ip_.find('|') != std::string::npos)
    throw std::invalid_argument(
        "person_id and public_ip must not contain '|', the field separator of order signatures");
  material_ = open_file(path, password, open_error_);
  if (!material_) return;
  if (person_id_.empty()) {
    open_error_ = "person_id is empty; expected the id that the certificate names";
  } else if (!certificate_names_person(material_->cert.get(), person_id_)) {
    open_error_ = "the certificate (subject: " + subject_line(material_->cert.get()) +
                  ") does not name person_id " + person_id_ +
                  "; expected a commonName or serialNumber equal to it";
  }
}

Signer::~Signer() = default;
Signer::Signer(Signer&&) noexcept = default;
Signer& Signer::operator=(Signer&&) noexcept = default;

bool Signer::is_active() const { return activation_error().empty(); }

std::string Signer::activation_error() const {
  if (!open_error_.empty()) return open_error_;
  if (!material_) return "no certificate";  // only after being moved from
  const std::string problem = validity_problem(material_->cert.get(), std::time(nullptr));
  return problem.empty() ? problem : problem + "; expected a certificate valid now";
}

std::string Signer::certificate_subject() const {
  return material_ ? subject_line(material_->cert.get()) : std::string();
}

void Signer::require_active() const {
  const std::string why = activation_error();
  if (!why.empty())
    throw SignError("the certificate for person_id " + person_id_ + " is not active: " + why +
                    "; activate it again with a valid certificate file and its password");
}

std::string Signer::sign_bytes(std::string_view data, bool detached) const {
  require_active();
  // Binary mode: the exact bytes are signed, without MIME line-ending canonicalisation.
  const unsigned int flags = CMS_BINARY | CMS_PARTIAL | (detached ? CMS_DETACHED : 0u);
  auto failed = [] { return SignError("signing failed in OpenSSL: " + take_openssl_error()); };
  CmsPtr cms(CMS_sign(nullptr, nullptr, material_->chain.get(), nullptr, flags));
  if (!cms) throw failed();
  if (!CMS_add1_signer(cms.get(), material_->cert.get(), material_->key.get(), EVP_sha256(), flags))
    throw failed();
  BioPtr content = memory_bio(data);
  if (!CMS_final(cms.get(), content.get(), nullptr, flags)) throw failed();
  BioPtr der(BIO_new(BIO_s_mem()));
  if (!der || !i2d_CMS_bio(der.get(), cms.get())) throw failed();
  return base64_encode(bio_contents(der.get()));
}

std::string Signer::sign_text(std::string_view text) const { return sign_bytes(text, true); }

std::string Signer::sign_order(std::time_t at) const {
  return sign_bytes(order_text(person_id_, public_ip_, at), false);
}

}  // namespace quorvex::sign
