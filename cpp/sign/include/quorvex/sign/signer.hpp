// A person's order-signing certificate: opened from a PKCS#12 file, it signs texts and
// order stamps as CMS (PKCS#7) SignedData, Base64-encoded.
//
// Threading: a Signer is immutable once constructed; its const members may be called from
// several threads at once. Construction reads the file and derives the key from the
// password (PBKDF work) and so may take tens of milliseconds; signing takes about a
// millisecond. Nothing here blocks on anything but the CPU and the file.
#pragma once

#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quorvex::sign {

// Raised when a signature is asked of a signer that is not active, or when OpenSSL fails
// while signing. The text never holds a password or key material.
class SignError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Where the certificate comes from. Only files are supported.
enum class CertificateStore : int { File = 0 };

// The text an order signature covers: "person_id|public_ip|YYYYMMDDhhmmss", the time in UTC.
std::string order_text(std::string_view person_id, std::string_view public_ip, std::time_t at);

class Signer {
 public:
  // Opens the PKCS#12 file at `path` with `password`. Never throws for a missing,
  // unreadable or locked file: the signer is then inactive and activation_error() says
  // why. The password is copied only into a buffer that is wiped before returning.
  // Throws std::invalid_argument when person_id or public_ip holds a '|', the field
  // separator of order stamps.
  Signer(const std::string& path, std::string_view password, std::string person_id, std::string public_ip);
  ~Signer();
  Signer(Signer&&) noexcept;
  Signer& operator=(Signer&&) noexcept;
  Signer(const Signer&) = delete;
  Signer& operator=(const Signer&) = delete;

  // True when the file opened, the certificate names the person (a commonName or
  // serialNumber attribute of its subject equals the person id, ASCII letters compared
  // without regard to case) and the current time lies
  // inside its validity period (checked at each call, so a signer can expire).
  bool is_active() const;
  // Why the signer is not active; empty when it is.
  std::string activation_error() const;

  const std::string& person_id() const { return person_id_; }
  const std::string& public_ip() const { return public_ip_; }
  // The certificate subject in one line ("CN=..., serialNumber=..."); empty if not opened.
  std::string certificate_subject() const;

  // Detached CMS signature of the UTF-8 bytes of `text`, with the signer certificate (and
  // any chain certificates from the file) included; Base64 without line breaks.
  std::string sign_text(std::string_view text) const;
  // Attached CMS signature whose content is order_text(person, public address, at);
  // Base64 without line breaks. The broker reads the stamp from the signature itself.
  std::string sign_order(std::time_t at) const;
  std::string sign_order() const { return sign_order(std::time(nullptr)); }

 private:
  struct Material;
  std::string person_id_;
  std::string public_ip_;
  std::string open_error_;  // set when the file did not open or names someone else
  std::unique_ptr<Material> material_;

  // Opens and unlocks the file; on failure returns null and says why in `error`.
  static std::unique_ptr<Material> open_file(const std::string& path, std::string_view password,
                                             std::string& error);
  void require_active() const;
  std::string sign_bytes(std::string_view data, bool detached) const;
};

}  // namespace quorvex::sign
