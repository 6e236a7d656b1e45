#include <gtest/gtest.h>

#include "pki.hpp"
#include "quorvex/sign/signer.hpp"
#include "quorvex/sign/verify.hpp"

namespace quorvex::sign {
namespace {

using testing::Pki;

constexpr const char* kPerson = "A123456789";
constexpr const char* kPassword = "pw";
constexpr const char* kAddress = "198.51.100.20";

class VerifyTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    pki_ = std::make_unique<Pki>();
    const std::string path = pki_->write("v.p12", pki_->person({{"CN", kPerson}}), kPassword);
    signer_ = std::make_unique<Signer>(path, kPassword, kPerson, kAddress);
  }
  static void TearDownTestSuite() {
    signer_.reset();
    pki_.reset();
  }

  static std::unique_ptr<Pki> pki_;
  static std::unique_ptr<Signer> signer_;
};
std::unique_ptr<Pki> VerifyTest::pki_;
std::unique_ptr<Signer> VerifyTest::signer_;

TEST_F(VerifyTest, AcceptsATextSignatureOfThatTextByThatPerson) {
  const std::string text = "A123456789 | 2330 | 1000 \xe5\x8f\xb0\xe7\xa9\x8d";
  const Verification v = verify_text_signature(text, signer_->sign_text(text), kPerson);
  EXPECT_TRUE(v.valid) << v.error;
  EXPECT_EQ(v.signed_text, text);
  EXPECT_NE(v.signer_subject.find(kPerson), std::string::npos);
}

TEST_F(VerifyTest, AcceptsAnOrderSignatureAndReadsItsStamp) {
  const Verification v = verify_order_signature(signer_->sign_order(1700000000), kPerson);
  ASSERT_TRUE(v.valid) << v.error;
  EXPECT_EQ(v.signed_text, "A123456789|198.51.100.20|20231114221320");
  ASSERT_TRUE(v.stamp);
  EXPECT_EQ(v.stamp->public_ip, kAddress);
  EXPECT_EQ(v.stamp->signed_at, 1700000000);
}

TEST_F(VerifyTest, ChecksTheChainWhenGivenTrustedRoots) {
  VerifyOptions trusted{Pki::pem(pki_->authority()), std::nullopt};
  const std::string signature = signer_->sign_text("x");
  EXPECT_TRUE(verify_text_signature("x", signature, kPerson, trusted));

  const auto stranger = pki_->make({{"CN", "Other Root"}}, nullptr, -60, 3600, true);
  const Verification v = verify_text_signature("x", signature, kPerson, {Pki::pem(stranger), std::nullopt});
  EXPECT_FALSE(v.valid);
  EXPECT_NE(v.error.find("signature verification failed"), std::string::npos) << v.error;
}

struct Bad {
  const char* name;
  const char* expected_error;
};

class RejectedSignature : public VerifyTest, public ::testing::WithParamInterface<Bad> {};

TEST_P(RejectedSignature, SaysWhatIsWrong) {
  const std::string name = GetParam().name;
  std::string text = "reserve 1000 of 2330";
  std::string signature = signer_->sign_text(text);
  std::string person = kPerson;
  VerifyOptions options;
  bool order = false;
  if (name == "tampered_text") text[0] = 'R';
  // The signature value ends the structure; a byte in the middle may sit in unchecked fields.
  const std::size_t at = signature.size() - 8;
  if (name == "tampered_signature") signature[at] = signature[at] == 'A' ? 'B' : 'A';
  if (name == "other_person") person = "C111111111";
  if (name == "not_base64") signature = "not base64!";
  if (name == "line_broken") signature.insert(64, "\n");
  if (name == "not_cms") signature = "aGVsbG8=";
  if (name == "after_expiry") options.at = std::time(nullptr) + 86400 * 2;
  if (name == "bad_roots") options.trusted_roots_pem = "no certificates here";
  if (name == "attached_as_text") signature = signer_->sign_order();
  if (name == "detached_as_order") order = true;
  const Verification v = order ? verify_order_signature(signature, person, options)
                               : verify_text_signature(text, signature, person, options);
  EXPECT_FALSE(v.valid);
  EXPECT_NE(v.error.find(GetParam().expected_error), std::string::npos) << v.error;
}

INSTANTIATE_TEST_SUITE_P(Cases, RejectedSignature,
                         ::testing::Values(Bad{"tampered_text", "signature verification failed"},
                                           Bad{"tampered_signature", "signature"},
                                           Bad{"other_person", "does not name person_id C111111111"},
                                           Bad{"not_base64", "not Base64"}, Bad{"line_broken", "not Base64"},
                                           Bad{"not_cms", "not CMS"},
                                           Bad{"after_expiry", "signer: the certificate expired"},
                                           Bad{"bad_roots", "no PEM certificate"},
                                           Bad{"attached_as_text", "expected a detached signature"},
                                           Bad{"detached_as_order", "expected an order signature"}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(VerifyTest, RejectsAnOrderStampNamingSomeoneElse) {
  // A certificate naming two persons cannot sign an order stamp for one and pass for the other.
  const std::string path =
      pki_->write("two.p12", pki_->person({{"CN", "B222222222"}, {"serialNumber", "C333333333"}}), kPassword);
  const Signer signer(path, kPassword, "B222222222", kAddress);
  const Verification v = verify_order_signature(signer.sign_order(), "C333333333");
  EXPECT_FALSE(v.valid);
  EXPECT_NE(v.error.find("stamp names person_id B222222222, expected C333333333"), std::string::npos)
      << v.error;
}

class OrderTextParsing : public ::testing::TestWithParam<const char*> {};

TEST_P(OrderTextParsing, RefusesMalformedStamps) { EXPECT_FALSE(parse_order_text(GetParam())); }

INSTANTIATE_TEST_SUITE_P(Malformed, OrderTextParsing,
                         ::testing::Values("", "A1|1.2.3.4", "A1|1.2.3.4|2023111422132",
                                           "A1|1.2.3.4|202311142213200", "A1|1.2.3.4|2023111422132x",
                                           "A1|1.2.3.4|20231314221320", "A1|1.2.3.4|20230231221320",
                                           "A1|1.2.3.4|20231114251320", "A1|1.2|3|20231114221320"));

}  // namespace
}  // namespace quorvex::sign
