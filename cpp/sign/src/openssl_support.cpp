#include "openssl_support.hpp"

#include <openssl/err.h>

#include <cctype>

namespace quorvex::sign::detail {

BioPtr memory_bio(std::string_view data) {
  // An empty view may carry a null pointer, which BIO_new_mem_buf refuses.
  static const char kNothing = 0;
  BioPtr bio(BIO_new_mem_buf(data.empty() ? &kNothing : data.data(), static_cast<int>(data.size())));
  if (!bio) throw std::bad_alloc();
  return bio;
}

std::string bio_contents(BIO* bio) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

std::string base64_encode(std::string_view bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3), '\0');
  const int n =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

std::optional<std::string> base64_decode(std::string_view text) {
  if (text.empty() || text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '=') {
      // Padding only in the last two places, and nothing but padding after it.
      if (i + 2 < text.size() || (i + 1 < text.size() && text[i + 1] != '=')) return std::nullopt;
      ++padding;
    } else if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/')) {
      return std::nullopt;
    }
  }
  std::string out(3 * (text.size() / 4), '\0');
  const int n =
      EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                      reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  if (n < 0) return std::nullopt;
  // EVP_DecodeBlock counts the zero bytes that padding stands for.
  out.resize(static_cast<std::size_t>(n) - padding);
  return out;
}

std::string take_openssl_error() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return "unknown error";
  const char* reason = ERR_reason_error_string(code);
  return reason ? reason : "error code " + std::to_string(ERR_GET_REASON(code));
}

bool same_person(std::string_view a, std::string_view b) {
  if (a.empty() || a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

bool certificate_names_person(X509* cert, std::string_view person_id) {
  const X509_NAME* name = X509_get_subject_name(cert);
  for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
    const int nid = OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry));
    if (nid != NID_commonName && nid != NID_serialNumber) continue;
    unsigned char* utf8 = nullptr;
    const int n = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(entry));
    if (n < 0) continue;
    std::unique_ptr<unsigned char, Deleter<openssl_free>> owned(utf8);
    if (same_person(std::string_view(reinterpret_cast<char*>(utf8), static_cast<std::size_t>(n)), person_id))
      return true;
  }
  return false;
}

std::string subject_line(X509* cert) {
  BioPtr out(BIO_new(BIO_s_mem()));
  if (!out) throw std::bad_alloc();
  X509_NAME_print_ex(out.get(), X509_get_subject_name(cert), 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
  return bio_contents(out.get());
}

namespace {

std::string time_text(const ASN1_TIME* t) {
  std::tm tm{};
  if (!ASN1_TIME_to_tm(t, &tm)) return "an unreadable date";
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S UTC", &tm);
  return buf;
}

}  // namespace

std::string validity_problem(X509* cert, std::time_t at) {
  const ASN1_TIME* not_before = X509_get0_notBefore(cert);
  const ASN1_TIME* not_after = X509_get0_notAfter(cert);
  const int before = X509_cmp_time(not_before, &at);
  const int after = X509_cmp_time(not_after, &at);
  if (before == 0 || after == 0) return "the certificate's validity dates cannot be read";
  if (before > 0) return "the certificate is not valid before " + time_text(not_before);
  if (after < 0) return "the certificate expired on " + time_text(not_after);
  return {};
}

}  // namespace quorvex::sign::detail
