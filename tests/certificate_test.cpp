#include "base/certificate.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/certificatefilter.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

using test::CertOptions;

std::shared_ptr<Certificate> fromOptions(const CertOptions& options) {
  return Certificate::createFromBase64(test::toPem(test::makeCertificate(options).get()));
}

TEST(CertificateFileTest, ReadsPemAndDerFilesLazilyOrWhole) {
  test::TempDir dir;
  X509Ptr cert = test::makeCertificate(CertOptions{"Someone", "pem@example.org", {}});
  test::writeFile(dir / "a.crt", test::toPem(cert.get()));
  test::writeFile(dir / "b.der", test::toDer(cert.get()));
  // Text before the block, as `openssl x509 -text` writes it, is skipped.
  test::writeFile(dir / "c.crt", "Certificate:\n    Data: ...\n" + test::toPem(cert.get()));
  for (const char* name : {"a.crt", "b.der", "c.crt"}) {
    for (const bool loadFlag : {false, true}) {
      std::shared_ptr<Certificate> read = Certificate::createFromFile(dir / name, loadFlag);
      ASSERT_TRUE(read) << name << " " << loadFlag;
      EXPECT_EQ(read->identity().email, "pem@example.org");
      ASSERT_NE(read->getX509(), nullptr);
      EXPECT_EQ(X509_cmp(read->getX509(), cert.get()), 0);
      EXPECT_EQ(read->getPrivateKey(), nullptr);
    }
  }
}

TEST(CertificateFileTest, RefusesWhatIsNotOneWholeCertificateWithoutReadingIt) {
  test::TempDir dir;
  X509Ptr cert = test::makeCertificate(CertOptions{"X", "x@y", {}});
  const std::string der = test::toDer(cert.get());
  const std::string pem = test::toPem(cert.get());
  std::string badPem = pem;
  badPem[badPem.find('\n') + 5] = '*';
  for (const std::string& contents :
       {std::string(), der.substr(0, der.size() - 1), der + "x",
        std::string("\x30\x82\xFF\xFF garbage", 13), std::string("just text\n"), badPem,
        pem.substr(0, pem.size() / 2)}) {
    test::writeFile(dir / "bad.crt", contents);
    EXPECT_FALSE(Certificate::createFromFile(dir / "bad.crt", false)) << contents;
    EXPECT_FALSE(Certificate::createFromFile(dir / "bad.crt", true)) << contents;
  }
  test::makeDirectories(dir / "dir.crt");
  ASSERT_EQ(::mkfifo((dir / "pipe.crt").c_str(), 0600), 0);
  test::writeFile(dir / "huge.crt", pem);
  ASSERT_EQ(::truncate((dir / "huge.crt").c_str(), 2LL << 30), 0);  // sparse, never read
  for (const char* name : {"dir.crt", "pipe.crt", "huge.crt", "missing.crt"}) {
    EXPECT_FALSE(Certificate::createFromFile(dir / name, false)) << name;
  }
}

TEST(CertificateFileTest, ReadsKeyOnlyWithThePasswordAndTheMatchingCertificate) {
  test::TempDir dir;
  test::writeFile(dir / "k.crt", test::userCertPem("k@example.org"));
  test::writeFile(dir / "k.key", test::encryptedKeyPem(test::testKey(0), "secret"));
  test::writeFile(dir / "other.key", test::encryptedKeyPem(test::testKey(1), "secret"));
  auto withKey = [&dir](const char* key, const std::string& password) {
    return Certificate::createFromFileWithKey(dir / "k.crt", dir / key, password, false);
  };
  std::shared_ptr<Certificate> read = withKey("k.key", "secret");
  ASSERT_TRUE(read);
  EXPECT_EQ(EVP_PKEY_eq(read->getPrivateKey(), test::testKey(0)), 1);
  EXPECT_FALSE(withKey("k.key", "wrong"));
  EXPECT_FALSE(withKey("k.key", ""));
  EXPECT_FALSE(withKey("other.key", "secret"));
  EXPECT_FALSE(withKey("none.key", "secret"));
  // The pass phrase ends at the first NUL, as it did when the key was written.
  EXPECT_TRUE(withKey("k.key", std::string("secret\0tail", 11)));
}

TEST(CertificateTextTest, AcceptsPemAndBareBase64OnlyWholeAndSavesPem) {
  X509Ptr cert = test::makeCertificate(CertOptions{"T", "t@example.org", {}});
  const std::string pem = test::toPem(cert.get());
  const std::string body =
      pem.substr(pem.find('\n') + 1, pem.find("-----END") - pem.find('\n') - 1);
  std::string oneLine = body;
  oneLine.erase(std::remove(oneLine.begin(), oneLine.end(), '\n'), oneLine.end());
  for (const std::string& text : {pem, "\n  " + pem + "\r\n", body, " " + oneLine + "\n"}) {
    std::shared_ptr<Certificate> read = Certificate::createFromBase64(text);
    ASSERT_TRUE(read) << text;
    EXPECT_EQ(X509_cmp(read->getX509(), cert.get()), 0);
  }
  for (const std::string& text : {pem + "garbage", oneLine + "QUJD", oneLine + "!", pem + pem,
                                  std::string("   "), oneLine.substr(4)}) {
    EXPECT_FALSE(Certificate::createFromBase64(text)) << text;
  }
  test::TempDir dir;
  ASSERT_TRUE(Certificate::createFromBase64(pem)->saveToFile(dir / "saved.crt"));
  EXPECT_EQ(test::readFile(dir / "saved.crt"), pem);
  EXPECT_FALSE(Certificate::createFromBase64(pem)->saveToFile(dir / "missing/saved.crt"));
}

TEST(CertificateFilterTest, UserFilterTakesEndEntitiesWithAnEmailIdentity) {
  UserCertificateFilter filter;
  EXPECT_STREQ(filter.subdirectory(), "user");
  CertOptions authority{"CA", "ca@x", {}};
  authority.authority = true;
  EXPECT_EQ(filter.certificateId(fromOptions({"Someone", "subject@x", {"alt@x"}})), "subject@x");
  EXPECT_EQ(filter.certificateId(fromOptions({"No Mail", "", {"alt@x"}})), "alt@x");
  EXPECT_EQ(filter.certificateId(fromOptions({"cn@x", "", {}})), "cn@x");
  EXPECT_EQ(filter.certificateId(fromOptions({"Nobody", "", {}})), "");
  EXPECT_TRUE(filter.acceptsCertificate(fromOptions({"cn@x", "", {}})));
  EXPECT_FALSE(filter.acceptsCertificate(fromOptions({"Nobody", "", {}})));
  EXPECT_FALSE(filter.acceptsCertificate(fromOptions(authority)));
}

TEST(CertificateFilterTest, AuthorityFilterTakesCertificatesWithCaConstraint) {
  AuthorityCertificateFilter filter;
  EXPECT_STREQ(filter.subdirectory(), "ca");
  CertOptions named{"Root One", "", {}};
  named.authority = true;
  CertOptions unnamed{"", "root@x", {}};
  unnamed.authority = true;
  EXPECT_TRUE(filter.acceptsCertificate(fromOptions(named)));
  EXPECT_EQ(filter.certificateId(fromOptions(named)), "Root One");
  EXPECT_EQ(filter.certificateId(fromOptions(unnamed)), "/emailAddress=root@x");
  EXPECT_FALSE(filter.acceptsCertificate(fromOptions({"User", "u@x", {}})));
}

}  // namespace
}  // namespace tavik
