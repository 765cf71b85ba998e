// Names that come from identifiers, subjects, e-mail addresses and the
// identities inside certificates reach the file system only as harmless names
// inside the root's cache directory. A store is set up beside other
// directories; every operation is given hostile names ("..", "../x",
// "/etc/passwd", NUL, control characters, 300-byte names), and the tree around
// the cache directory must stay exactly as it was. Base names given to
// getFileInfo, renameFile and renameCert are used as they stand by design and
// are not tried here.
#include <gtest/gtest.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <map>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

namespace fs = boost::filesystem;
using ::testing::AnyOf;
using ::testing::Eq;

const std::string kPassword = "containment-password";

std::vector<std::string> hostileNames() {
  return {"..",
          ".",
          "../x",
          "../../outside/victim",
          "/etc/passwd",
          "a/b",
          "../user/evil",
          std::string("nul\0inside", 10),
          std::string("\0", 1),
          "\x01\x1b[31m\r\n\t",
          ".hidden",
          "%2E%2E%2Fx",
          "user",
          std::string(300, 'a'),
          std::string(150, 'b') + "@" + std::string(150, 'c'),
          std::string(100, '/')};
}

// Everything below a directory: relative path to kind, mode and content.
using Tree = std::map<std::string, std::string>;

Tree snapshot(const std::string& dir) {
  Tree tree;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    const fs::file_status status = it->symlink_status();
    std::string description = std::to_string(static_cast<int>(status.permissions())) + " ";
    description +=
        fs::is_regular_file(status) ? "file " + test::readFile(it->path().string()) : "other";
    tree[fs::relative(it->path(), dir).string()] = description;
  }
  return tree;
}

// A user certificate whose only identity is the rfc822Name `email`, which
// may hold any bytes.
std::string certificateForEmail(const std::string& email) {
  test::CertOptions options;
  options.commonName = "Hostile";
  X509Ptr cert = test::makeCertificate(options);
  GeneralNamesPtr names(GENERAL_NAMES_new());
  GENERAL_NAME* name = GENERAL_NAME_new();
  ASN1_IA5STRING* text = ASN1_IA5STRING_new();
  ASN1_STRING_set(text, email.data(), static_cast<int>(email.size()));
  GENERAL_NAME_set0_value(name, GEN_EMAIL, text);
  sk_GENERAL_NAME_push(names.get(), name);
  X509_add1_ext_i2d(cert.get(), NID_subject_alt_name, names.get(), 0, X509V3_ADD_DEFAULT);
  X509_sign(cert.get(), test::testKey(0), EVP_sha256());
  return test::toPem(cert.get());
}

class ContainmentTest : public test::LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    test::makeDirectories(userDir_);
    test::makeDirectories(dir_ / "outside");
    test::writeFile(dir_ / "outside/victim", "victim");
    test::writeFile(dir_ / "store/x", "sibling of the root");
    test::writeFile(root_ + "/x", "in the root");
    test::writeFile(root_ + "/evil", "in the root");
    test::makeDirectories(root_ + "/ca");
    test::writeFile(root_ + "/ca/passwd", "another cache directory");
    test::writeUserPair(userDir_, "existing", "existing@example.org", kPassword);
  }

  // The tree outside the root's cache directory, and the cache directory's
  // own entries, which must all be plain files directly in it.
  void expectContained(const Tree& before, const std::string& what) {
    Tree after = snapshot(dir_.path());
    Tree outsideBefore;
    Tree outsideAfter;
    for (const auto& entry : before) {
      if (entry.first.rfind("store/root/user/", 0) != 0) outsideBefore.insert(entry);
    }
    for (const auto& entry : after) {
      if (entry.first.rfind("store/root/user/", 0) != 0) {
        outsideAfter.insert(entry);
        continue;
      }
      const std::string name = entry.first.substr(std::string("store/root/user/").size());
      EXPECT_EQ(name.find('/'), std::string::npos) << what << " made " << name;
      EXPECT_NE(name[0], '.') << what << " made a hidden file " << name;
    }
    EXPECT_EQ(outsideAfter, outsideBefore) << what << " changed something outside";
    EXPECT_TRUE(fs::is_directory(userDir_));
  }

  test::TempDir dir_;
  const std::string root_ = dir_ / "store/root";
  const std::string userDir_ = root_ + "/user";
  CertificateStore store_{root_, {root_}};
  boost::shared_ptr<CertificateFilter> filter_ = boost::make_shared<UserCertificateFilter>();
};

TEST_F(ContainmentTest, CreatingCredentialsStaysInTheCacheDirectory) {
  CertFileCache cache(store_, filter_, true);
  for (const std::string& name : hostileNames()) {
    const std::string shown = ::testing::PrintToString(name);
    for (int flags : {0, CertFileCache::overwriteExisting}) {
      const Tree before = snapshot(dir_.path());
      // The hostile name as the subject: it alone names the files.
      const int bySubject = cache.createSelfSignedKeyPair(name, "a@example.org", kPassword, flags);
      EXPECT_THAT(bySubject, AnyOf(Eq(0), Eq(1), Eq(2))) << shown;
      // As the e-mail address, which also goes into the certificate.
      const int byEmail = cache.createSelfSignedKeyPair("", name, kPassword, flags);
      EXPECT_THAT(byEmail, AnyOf(Eq(0), Eq(1), Eq(2))) << shown;
      std::string csr;
      EXPECT_THAT(cache.createCsr(name, "a@example.org", kPassword, flags, csr),
                  AnyOf(Eq(0), Eq(1), Eq(2)))
          << shown;
      EXPECT_THAT(
          cache.createCsr("", name, kPassword, flags | CertFileCache::skipTemporaryKey, csr),
          AnyOf(Eq(0), Eq(1), Eq(2)))
          << shown;
      EXPECT_THAT(cache.cleanupCsr(name, ""), AnyOf(Eq(0), Eq(11))) << shown;
      EXPECT_THAT(cache.cleanupCsr("", name), AnyOf(Eq(0), Eq(11))) << shown;
      expectContained(before, "creating with " + shown);
    }
  }
}

TEST_F(ContainmentTest, OverlongNamesFailWithACodeAndAMessage) {
  CertFileCache cache(store_, filter_, true);
  const std::string longName(300, 'a');
  const std::string longKey = "\"" + userDir_ + "/" + longName + ".key\"";

  EXPECT_EQ(cache.createSelfSignedKeyPair(longName, "a@example.org", kPassword, 0),
            CertFileCache::kFailed);
  EXPECT_THAT(messages(LogMask::error),
              ::testing::ElementsAre("Can't create file BIO: " + longKey));

  clearLog();
  std::string csr;
  EXPECT_EQ(
      cache.createCsr(longName, "a@example.org", kPassword, CertFileCache::skipTemporaryKey, csr),
      CertFileCache::kFailed);
  EXPECT_THAT(messages(LogMask::error),
              ::testing::ElementsAre("Can't create file BIO: " + longKey));

  clearLog();
  EXPECT_EQ(cache.saveCert(longName, certificateForEmail("a@example.org"), false),
            CertFileCache::kFailed);
  EXPECT_THAT(
      messages(LogMask::error),
      ::testing::ElementsAre("Can't save certificate: \"" + userDir_ + "/" + longName + ".crt\""));
  EXPECT_THAT(test::listTree(userDir_), ::testing::ElementsAre("existing.crt", "existing.key"));
}

TEST_F(ContainmentTest, InstallingStaysInTheCacheDirectory) {
  for (bool withKeys : {true, false}) {
    CertFileCache cache(store_, filter_, withKeys);
    for (const std::string& name : hostileNames()) {
      const std::string shown = ::testing::PrintToString(name);
      const Tree before = snapshot(dir_.path());
      // A hostile identifier names the files...
      EXPECT_THAT(cache.saveCert(name, certificateForEmail("a@example.org"), true),
                  AnyOf(Eq(0), Eq(1), Eq(10)))
          << shown;
      // ...and so does the identity inside a certificate given without one.
      EXPECT_THAT(cache.saveCert("", certificateForEmail(name), true),
                  AnyOf(Eq(0), Eq(1), Eq(3), Eq(10)))
          << shown;
      expectContained(before, "installing with " + shown);
    }
  }
}

TEST_F(ContainmentTest, LookupsAndRemovalWithHostileIdentifiersTouchNothing) {
  // A hostile certificate that the cache itself installed and found again:
  // its identifier is hostile, its base name is not.
  for (const std::string& name : hostileNames()) {
    const std::string pem = certificateForEmail(name);
    CertFileCache installer(store_, filter_, false);
    installer.saveCert("", pem, true);
  }
  for (bool withKeys : {true, false}) {
    CertFileCache cache(store_, filter_, withKeys);
    std::vector<std::string> ids;
    cache.listIds(ids);
    for (const std::string& name : hostileNames()) ids.push_back(name);
    for (const std::string& id : ids) {
      const std::string shown = ::testing::PrintToString(id);
      const Tree before = snapshot(dir_.path());
      int errorCode = -1;
      cache.getCertificate(id, kPassword, errorCode, true);
      cache.getCertificateOnly(id, errorCode, false);
      EXPECT_EQ(snapshot(dir_.path()), before) << "lookups of " << shown << " changed files";
      EXPECT_THAT(cache.removeCert(id), AnyOf(Eq(0), Eq(4))) << shown;
      expectContained(before, "removing " + shown);
    }
  }
  // Everything the installs made was found and removed again, with the pair
  // that was there before.
  EXPECT_THAT(test::listTree(userDir_), ::testing::IsEmpty());
}

}  // namespace
}  // namespace tavik
