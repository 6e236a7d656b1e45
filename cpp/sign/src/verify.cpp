#include "quorvex/sign/verify.hpp"

#include <openssl/err.h>
#include <openssl/pem.h>

#include "openssl_support.hpp"

namespace quorvex::sign {

using namespace detail;

std::optional<OrderStamp> parse_order_text(std::string_view text) {
  const std::size_t first = text.find('|');
  if (first == std::string_view::npos) return std::nullopt;
  const std::size_t second = text.find('|', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  const std::string_view time = text.substr(second + 1);
  if (time.size() != 14) return std::nullopt;
  for (char c : time)
    if (c < '0' || c > '9') return std::nullopt;
  auto number = [&](std::size_t pos, std::size_t len) {
    int v = 0;
    for (std::size_t i = pos; i < pos + len; ++i) v = v * 10 + (time[i] - '0');
    return v;
  };
  std::tm tm{};
  tm.tm_year = number(0, 4) - 1900;
  tm.tm_mon = number(4, 2) - 1;
  tm.tm_mday = number(6, 2);
  tm.tm_hour = number(8, 2);
  tm.tm_min = number(10, 2);
  tm.tm_sec = number(12, 2);
  const std::tm given = tm;
  const std::time_t at = timegm(&tm);
  // timegm normalises out-of-range fields (month 13, 31 February); such stamps are refused.
  if (tm.tm_year != given.tm_year || tm.tm_mon != given.tm_mon || tm.tm_mday != given.tm_mday ||
      tm.tm_hour != given.tm_hour || tm.tm_min != given.tm_min || tm.tm_sec != given.tm_sec)
    return std::nullopt;
  OrderStamp stamp;
  stamp.person_id = std::string(text.substr(0, first));
  stamp.public_ip = std::string(text.substr(first + 1, second - first - 1));
  stamp.signed_at = at;
  return stamp;
}

namespace {

StorePtr trust_store(const VerifyOptions& options, std::string& error) {
  StorePtr store(X509_STORE_new());
  if (!store) throw std::bad_alloc();
  BioPtr pem = memory_bio(options.trusted_roots_pem);
  int count = 0;
  while (X509Ptr cert{PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr)}) {
    if (!X509_STORE_add_cert(store.get(), cert.get())) {
      error = "cannot add a trusted root: " + take_openssl_error();
      return nullptr;
    }
    ++count;
  }
  ERR_clear_error();  // the end of the PEM text leaves a "no start line" entry
  if (count == 0) {
    error = "the trusted roots hold no PEM certificate";
    return nullptr;
  }
  // Personal certificates carry various extended key usages; the signature is what counts.
  X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);
  if (options.at) X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(store.get()), *options.at);
  return store;
}

// Shared by both kinds: `text` is the detached content, or null for an attached signature.
Verification verify(const std::string_view* text, std::string_view signature_base64,
                    std::string_view person_id, const VerifyOptions& options) {
  Verification result;
  auto fail = [&](std::string why) {
    result.error = std::move(why);
    ERR_clear_error();
    return result;
  };

  const std::optional<std::string> der = base64_decode(signature_base64);
  if (!der) return fail("the signature is not Base64 text (standard alphabet, padded, no line breaks)");
  BioPtr der_bio = memory_bio(*der);
  CmsPtr cms(d2i_CMS_bio(der_bio.get(), nullptr));
  if (!cms || OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed)
    return fail("the signature is not CMS (PKCS#7) signed data");
  const bool detached = CMS_is_detached(cms.get()) == 1;
  if (text && !detached)
    return fail("expected a detached signature of the text, got one that carries its own content");
  if (!text && detached)
    return fail("expected an order signature carrying its stamp, got a detached signature");

  StorePtr store;
  if (!options.trusted_roots_pem.empty()) {
    std::string error;
    store = trust_store(options, error);
    if (!store) return fail(error);
  }
  const unsigned int flags = CMS_BINARY | (store ? 0u : static_cast<unsigned int>(CMS_NO_SIGNER_CERT_VERIFY));
  BioPtr content = text ? memory_bio(*text) : nullptr;
  BioPtr out(BIO_new(BIO_s_mem()));
  if (!out) throw std::bad_alloc();
  if (!CMS_verify(cms.get(), nullptr, store.get(), content.get(), out.get(), flags))
    return fail("signature verification failed: " + take_openssl_error());
  result.signed_text = bio_contents(out.get());

  // CMS_get0_signers hands out a new stack of borrowed certificates.
  BorrowedX509StackPtr signers(CMS_get0_signers(cms.get()));
  if (!signers || sk_X509_num(signers.get()) != 1) return fail("expected exactly one signer");
  X509* signer = sk_X509_value(signers.get(), 0);
  result.signer_subject = subject_line(signer);
  const std::string problem = validity_problem(signer, options.at ? *options.at : std::time(nullptr));
  if (!problem.empty()) return fail("signer: " + problem);
  if (!certificate_names_person(signer, person_id))
    return fail("the signer's certificate (subject: " + result.signer_subject + ") does not name person_id " +
                std::string(person_id));

  if (!text) {
    result.stamp = parse_order_text(result.signed_text);
    if (!result.stamp)
      return fail("the order signature's content is not a person_id|public_ip|YYYYMMDDhhmmss stamp");
    if (!same_person(result.stamp->person_id, person_id))
      return fail("the order stamp names person_id " + result.stamp->person_id + ", expected " +
                  std::string(person_id));
  }
  result.valid = true;
  return result;
}

}  // namespace

Verification verify_text_signature(std::string_view text, std::string_view signature_base64,
                                   std::string_view person_id, const VerifyOptions& options) {
  return verify(&text, signature_base64, person_id, options);
}

Verification verify_order_signature(std::string_view signature_base64, std::string_view person_id,
                                    const VerifyOptions& options) {
  return verify(nullptr, signature_base64, person_id, options);
}

}  // namespace quorvex::sign
