#include "base/certificate.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/certificatefilter.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

using test::CertOptions;
using test::makeCertificate;

CertOptions userOptions(const std::string& email) {
  CertOptions options;
  options.commonName = "Someone";
  options.email = email;
  return options;
}

// Strips the PEM marker lines, leaving the base64 body with its line breaks.
std::string pemBody(const std::string& pem) {
  const std::string::size_type start = pem.find('\n') + 1;
  const std::string::size_type end = pem.find("-----END");
  return pem.substr(start, end - start);
}

class CertificateFileTest : public ::testing::Test {
 protected:
  test::TempDir dir_;
};

TEST_F(CertificateFileTest, ReadsPemAndDerFilesLazilyOrWhole) {
  X509Ptr cert = makeCertificate(userOptions("pem@example.org"));
  test::writeFile(dir_ / "a.crt", test::toPem(cert.get()));
  test::writeFile(dir_ / "b.der", test::toDer(cert.get()));
  // Text before the block, as `openssl x509 -text` writes it, is skipped.
  test::writeFile(dir_ / "c.crt", "Certificate:\n    Data: ...\n" + test::toPem(cert.get()));

  for (const std::string name : {"a.crt", "b.der", "c.crt"}) {
    for (const bool loadFlag : {false, true}) {
      std::shared_ptr<Certificate> read = Certificate::createFromFile(dir_ / name, loadFlag);
      ASSERT_TRUE(read) << name << " " << loadFlag;
      EXPECT_EQ(read->identity().email, "pem@example.org");
      EXPECT_EQ(read->der(), test::toDer(cert.get()));
      ASSERT_NE(read->getX509(), nullptr);
      EXPECT_EQ(X509_cmp(read->getX509(), cert.get()), 0);
      EXPECT_EQ(read->getPrivateKey(), nullptr);
    }
  }
}

TEST_F(CertificateFileTest, RefusesWhatIsNotOneWholeCertificate) {
  const std::string der = test::toDer(makeCertificate(userOptions("x@y")).get());
  std::string pem = test::toPem(makeCertificate(userOptions("x@y")).get());
  std::string badPem = pem;
  badPem[badPem.find('\n') + 5] = '*';
  const std::vector<std::pair<std::string, std::string>> files = {
      {"empty.crt", ""},
      {"truncated.crt", der.substr(0, der.size() - 1)},
      {"trailing.crt", der + "x"},
      {"binary.crt", std::string("\x30\x82\xFF\xFF garbage", 13)},
      {"noblock.crt", "just some text\n"},
      {"badbase64.crt", badPem},
      {"halfpem.crt", pem.substr(0, pem.size() / 2)},
  };
  for (const auto& file : files) {
    test::writeFile(dir_ / file.first, file.second);
    EXPECT_FALSE(Certificate::createFromFile(dir_ / file.first, false)) << file.first;
    EXPECT_FALSE(Certificate::createFromFile(dir_ / file.first, true)) << file.first;
  }
  test::makeDirectories(dir_ / "dir.crt");
  EXPECT_FALSE(Certificate::createFromFile(dir_ / "dir.crt", false));
  EXPECT_FALSE(Certificate::createFromFile(dir_ / "missing.crt", false));
}

TEST_F(CertificateFileTest, NeverOpensFifosOrReadsHugeFiles) {
  ASSERT_EQ(::mkfifo((dir_ / "pipe.crt").c_str(), 0600), 0);
  EXPECT_FALSE(Certificate::createFromFile(dir_ / "pipe.crt", false));  // must not block

  // A sparse file of 2 GiB: refused by its size, never read.
  test::writeFile(dir_ / "huge.crt", test::toPem(makeCertificate(userOptions("h@h")).get()));
  ASSERT_EQ(::truncate((dir_ / "huge.crt").c_str(), 2LL << 30), 0);
  EXPECT_FALSE(Certificate::createFromFile(dir_ / "huge.crt", false));
}

TEST_F(CertificateFileTest, ReadsKeyOnlyWithThePasswordAndTheMatchingCertificate) {
  X509Ptr cert = makeCertificate(userOptions("k@example.org"));
  test::writeFile(dir_ / "k.crt", test::toPem(cert.get()));
  test::writeFile(dir_ / "k.key", test::encryptedKeyPem(test::testKey(0), "secret"));
  test::writeFile(dir_ / "other.key", test::encryptedKeyPem(test::testKey(1), "secret"));

  std::shared_ptr<Certificate> withKey =
      Certificate::createFromFileWithKey(dir_ / "k.crt", dir_ / "k.key", "secret", false);
  ASSERT_TRUE(withKey);
  ASSERT_NE(withKey->getPrivateKey(), nullptr);
  EXPECT_EQ(EVP_PKEY_eq(withKey->getPrivateKey(), test::testKey(0)), 1);
  EXPECT_NE(withKey->getX509(), nullptr);

  EXPECT_FALSE(Certificate::createFromFileWithKey(dir_ / "k.crt", dir_ / "k.key", "wrong", false));
  EXPECT_FALSE(Certificate::createFromFileWithKey(dir_ / "k.crt", dir_ / "k.key", "", false));
  EXPECT_FALSE(
      Certificate::createFromFileWithKey(dir_ / "k.crt", dir_ / "other.key", "secret", false));
  EXPECT_FALSE(
      Certificate::createFromFileWithKey(dir_ / "k.crt", dir_ / "none.key", "secret", false));
  // The pass phrase ends at the first NUL, as it did when the key was written.
  EXPECT_TRUE(Certificate::createFromFileWithKey(dir_ / "k.crt", dir_ / "k.key",
                                                 std::string("secret\0tail", 11), false));
}

TEST_F(CertificateFileTest, SavesPemThatReadsBack) {
  std::shared_ptr<Certificate> cert =
      Certificate::createFromBase64(test::toPem(makeCertificate(userOptions("s@s")).get()));
  ASSERT_TRUE(cert);
  ASSERT_TRUE(cert->saveToFile(dir_ / "saved.crt"));
  EXPECT_EQ(test::readFile(dir_ / "saved.crt"), test::toPem(cert->getX509()));
  EXPECT_FALSE(cert->saveToFile(dir_ / "missing/saved.crt"));
}

TEST(CertificateTextTest, AcceptsPemAndBareBase64OnlyWhole) {
  X509Ptr cert = makeCertificate(userOptions("t@example.org"));
  const std::string pem = test::toPem(cert.get());
  std::string body = pemBody(pem);
  std::string oneLine;
  for (char c : body) {
    if (c != '\n') oneLine += c;
  }
  for (const std::string& text :
       {pem, "\n  " + pem + "\r\n", body, oneLine, " " + oneLine + "\n"}) {
    std::shared_ptr<Certificate> read = Certificate::createFromBase64(text);
    ASSERT_TRUE(read) << text;
    EXPECT_EQ(X509_cmp(read->getX509(), cert.get()), 0);
  }
  for (const std::string& text :
       {pem + "garbage", oneLine + "QUJD", oneLine + "!", pem + pem, std::string(),
        std::string("   "), std::string("not a certificate"), oneLine.substr(4)}) {
    EXPECT_FALSE(Certificate::createFromBase64(text)) << text;
  }
}

TEST(CertificateFilterTest, UserFilterTakesEndEntitiesWithAnEmailIdentity) {
  UserCertificateFilter filter;
  EXPECT_STREQ(filter.subdirectory(), "user");
  auto read = [](const CertOptions& options) {
    return Certificate::createFromBase64(test::toPem(makeCertificate(options).get()));
  };
  CertOptions both = userOptions("subject@x");
  both.altEmails = {"alt@x"};
  CertOptions altOnly;
  altOnly.commonName = "No Mail";
  altOnly.altEmails = {"alt@x"};
  CertOptions commonName;
  commonName.commonName = "cn@x";
  CertOptions none;
  none.commonName = "Nobody";
  CertOptions authority = userOptions("ca@x");
  authority.authority = true;

  EXPECT_EQ(filter.certificateId(read(both)), "subject@x");
  EXPECT_EQ(filter.certificateId(read(altOnly)), "alt@x");
  EXPECT_EQ(filter.certificateId(read(commonName)), "cn@x");
  EXPECT_TRUE(filter.acceptsCertificate(read(both)));
  EXPECT_TRUE(filter.acceptsCertificate(read(commonName)));
  EXPECT_FALSE(filter.acceptsCertificate(read(none)));
  EXPECT_EQ(filter.certificateId(read(none)), "");
  EXPECT_FALSE(filter.acceptsCertificate(read(authority)));
}

TEST(CertificateFilterTest, AuthorityFilterTakesCertificatesWithCaConstraint) {
  AuthorityCertificateFilter filter;
  EXPECT_STREQ(filter.subdirectory(), "ca");
  CertOptions named;
  named.commonName = "Root One";
  named.authority = true;
  CertOptions unnamed;
  unnamed.email = "root@x";
  unnamed.authority = true;
  auto read = [](const CertOptions& options) {
    return Certificate::createFromBase64(test::toPem(makeCertificate(options).get()));
  };
  EXPECT_TRUE(filter.acceptsCertificate(read(named)));
  EXPECT_EQ(filter.certificateId(read(named)), "Root One");
  EXPECT_EQ(filter.certificateId(read(unnamed)), "/emailAddress=root@x");
  EXPECT_FALSE(filter.acceptsCertificate(read(userOptions("u@x"))));
}

}  // namespace
}  // namespace tavik
