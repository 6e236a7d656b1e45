#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "quorvex/sign/demo_authority.hpp"
#include "quorvex/sign/signer.hpp"
#include "quorvex/sign/verify.hpp"

namespace quorvex::sign {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPerson = "F131331331";
constexpr const char* kPassword = "demo-Pw-1";

class DemoAuthorityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("qv_demo_ca_" + std::to_string(::getpid()));
    fs::create_directories(dir_);
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  std::string file(const char* name) const { return (dir_ / name).string(); }

  fs::path dir_;
};

TEST_F(DemoAuthorityTest, IssuedCertificateSignsWhatTheBrokerAcceptsUnderTheAuthority) {
  const DemoCertificate issued = issue_demo_certificate(file("person.p12"), kPassword, kPerson, 30);
  EXPECT_NE(issued.subject.find(kPerson), std::string::npos);
  EXPECT_NEAR(static_cast<double>(issued.not_after - issued.not_before), 30 * 86400.0 + 300, 5);

  const Signer signer(issued.path, kPassword, kPerson, "127.0.0.1");
  ASSERT_TRUE(signer.is_active()) << signer.activation_error();

  VerifyOptions trusted;
  trusted.trusted_roots_pem = demo_authority_pem();
  const Verification order = verify_order_signature(signer.sign_order(), kPerson, trusted);
  EXPECT_TRUE(order.valid) << order.error;
  const Verification text =
      verify_text_signature("reserve 2330 1000", signer.sign_text("reserve 2330 1000"), kPerson, trusted);
  EXPECT_TRUE(text.valid) << text.error;
  EXPECT_FALSE(verify_order_signature(signer.sign_order(), "A123456789", trusted).valid);
}

TEST_F(DemoAuthorityTest, EveryProcessBuildsTheSameAuthority) {
  // Separate processes trust each other's certificates only if this holds.
  const std::string pem = demo_authority_pem();
  EXPECT_EQ(pem, demo_authority_pem());
  EXPECT_EQ(pem.rfind("-----BEGIN CERTIFICATE-----", 0), 0u);
}

TEST_F(DemoAuthorityTest, FileIsReadableByItsOwnerOnlyEvenWhenReplacingAnother) {
  const std::string path = file("replaced.p12");
  std::ofstream(path) << "old";
  fs::permissions(path, fs::perms::all);
  issue_demo_certificate(path, kPassword, kPerson, 1);
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_TRUE(Signer(path, kPassword, kPerson, "").is_active());
  EXPECT_FALSE(Signer(path, "another", kPerson, "").is_active());
}

struct BadRequest {
  const char* person;
  const char* password;
  int days;
  const char* says;
};

class DemoAuthorityRefusal : public DemoAuthorityTest, public ::testing::WithParamInterface<BadRequest> {};

TEST_P(DemoAuthorityRefusal, SaysWhatWasExpectedAndWritesNothing) {
  const BadRequest& bad = GetParam();
  const std::string path = file("refused.p12");
  try {
    issue_demo_certificate(path, bad.password, bad.person, bad.days);
    FAIL() << "accepted a bad request";
  } catch (const std::invalid_argument& e) {
    EXPECT_NE(std::string(e.what()).find(bad.says), std::string::npos) << e.what();
  }
  EXPECT_FALSE(fs::exists(path));
}

INSTANTIATE_TEST_SUITE_P(Arguments, DemoAuthorityRefusal,
                         ::testing::Values(BadRequest{"", kPassword, 30, "person_id is empty"},
                                           BadRequest{"A1|B2", kPassword, 30, "must not contain '|'"},
                                           BadRequest{kPerson, "", 30, "password is empty"},
                                           BadRequest{kPerson, kPassword, 0,
                                                      "expected a validity of 1 to 3650"},
                                           BadRequest{kPerson, kPassword, 3651, "days is 3651"}));

TEST_F(DemoAuthorityTest, UnwritablePlaceNamesThePath) {
  const std::string path = file("missing/folder/person.p12");
  try {
    issue_demo_certificate(path, kPassword, kPerson);
    FAIL() << "wrote into a missing folder";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code(), std::errc::no_such_file_or_directory);
    EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
  }
}

}  // namespace
}  // namespace quorvex::sign
