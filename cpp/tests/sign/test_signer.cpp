#include <gtest/gtest.h>

#include <fstream>

#include "pki.hpp"
#include "quorvex/sign/signer.hpp"
#include "quorvex/sign/verify.hpp"

namespace quorvex::sign {
namespace {

using testing::Pki;

constexpr const char* kPerson = "A123456789";
constexpr const char* kPassword = "s3cret-Pw";

class SignerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    pki_ = std::make_unique<Pki>();
    good_ = pki_->write("good.p12", pki_->person({{"C", "TW"}, {"CN", kPerson}}), kPassword);
  }
  static void TearDownTestSuite() { pki_.reset(); }

  static std::unique_ptr<Pki> pki_;
  static std::string good_;
};
std::unique_ptr<Pki> SignerTest::pki_;
std::string SignerTest::good_;

TEST_F(SignerTest, OpensTheCertificateOfItsPersonByNameOrSerialNumberInAnyLetterCase) {
  const Signer signer(good_, kPassword, kPerson, "203.0.113.7");
  EXPECT_TRUE(signer.is_active());
  EXPECT_EQ(signer.activation_error(), "");
  EXPECT_NE(signer.certificate_subject().find(kPerson), std::string::npos);
  EXPECT_TRUE(Signer(good_, kPassword, "a123456789", "").is_active());
  const std::string by_serial = pki_->write(
      "serial.p12", pki_->person({{"CN", "Wang Da-Ming"}, {"serialNumber", "B987654321"}}), kPassword);
  EXPECT_TRUE(Signer(by_serial, kPassword, "B987654321", "").is_active());
  EXPECT_TRUE(Signer(by_serial, kPassword, "b987654321", "").is_active());
  EXPECT_FALSE(Signer(by_serial, kPassword, "Wang Da-Min", "").is_active());
  const std::string no_password = pki_->write("nopass.p12", pki_->person({{"CN", kPerson}}), "");
  EXPECT_TRUE(Signer(no_password, "", kPerson, "").is_active());
}

struct Refusal {
  const char* name;
  const char* expected_error;
};

class RefusedCertificate : public SignerTest, public ::testing::WithParamInterface<Refusal> {
 protected:
  // Builds the situation named by the case and opens it.
  Signer open(const std::string& name) {
    const char* password = kPassword;
    std::string path = good_;
    std::string person = kPerson;
    if (name == "missing") path = (pki_->dir() / "absent.p12").string();
    if (name == "directory") path = pki_->dir().string();
    if (name == "not_pkcs12") {
      path = (pki_->dir() / "garbage.p12").string();
      std::ofstream(path) << "this is not a certificate";
    }
    if (name == "wrong_password") password = "s3cret-pw";
    if (name == "expired")
      path = pki_->write("expired.p12", pki_->person({{"CN", kPerson}}, -86400 * 2, -86400), kPassword);
    if (name == "not_yet_valid")
      path = pki_->write("future.p12", pki_->person({{"CN", kPerson}}, 86400, 86400 * 2), kPassword);
    if (name == "other_person") person = "C111111111";
    if (name == "empty_person") person = "";
    return Signer(path, password, person, "203.0.113.7");
  }
};

TEST_P(RefusedCertificate, IsInactiveSaysWhyAndRefusesToSign) {
  const Signer signer = open(GetParam().name);
  EXPECT_FALSE(signer.is_active());
  EXPECT_NE(signer.activation_error().find(GetParam().expected_error), std::string::npos)
      << signer.activation_error();
  for (auto sign : {+[](const Signer& s) { s.sign_text("x"); }, +[](const Signer& s) { s.sign_order(); }}) {
    try {
      sign(signer);
      ADD_FAILURE() << "signing with an inactive certificate succeeded";
    } catch (const SignError& e) {
      const std::string what = e.what();
      EXPECT_NE(what.find("is not active"), std::string::npos) << what;
      EXPECT_EQ(what.find(kPassword), std::string::npos) << "the password leaked: " << what;
      EXPECT_EQ(what.find("s3cret"), std::string::npos) << "the password leaked: " << what;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Files, RefusedCertificate,
                         ::testing::Values(Refusal{"missing", "certificate file not found"},
                                           Refusal{"directory", "is a directory"},
                                           Refusal{"not_pkcs12", "not PKCS#12 data"},
                                           Refusal{"wrong_password", "wrong password"},
                                           Refusal{"expired", "the certificate expired on"},
                                           Refusal{"not_yet_valid", "not valid before"},
                                           Refusal{"other_person", "does not name person_id C111111111"},
                                           Refusal{"empty_person", "person_id is empty"}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(SignerTest, RefusesTheFieldSeparatorInPersonOrAddress) {
  EXPECT_THROW(Signer(good_, kPassword, "A1|B2", ""), std::invalid_argument);
  EXPECT_THROW(Signer(good_, kPassword, kPerson, "1.2.3.4|5"), std::invalid_argument);
}

TEST_F(SignerTest, AMovedSignerKeepsSigning) {
  Signer first(good_, kPassword, kPerson, "");
  Signer second = std::move(first);
  EXPECT_TRUE(second.is_active());
  EXPECT_TRUE(verify_text_signature("abc", second.sign_text("abc"), kPerson));
}

}  // namespace
}  // namespace quorvex::sign
