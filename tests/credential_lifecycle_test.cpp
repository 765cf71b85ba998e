#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LifecycleTest : public test::LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    test::makeDirectories(userDir_);
  }

  std::string file(const std::string& name) const { return userDir_ + "/" + name; }
  std::string quoted(const std::string& name) const { return "\"" + file(name) + "\""; }
  std::vector<std::string> files() const { return test::listTree(userDir_); }

  std::unique_ptr<CertFileCache> makeCache(bool withKeys) {
    auto cache = std::make_unique<CertFileCache>(store_, filter_, withKeys);
    clearLog();
    return cache;
  }

  std::vector<std::string> ids(const CertFileCache& cache) const {
    std::vector<std::string> list;
    cache.listIds(list);
    return list;
  }

  static std::string userCertPem(const std::string& email) {
    test::CertOptions options;
    options.commonName = "User";
    options.email = email;
    return test::toPem(test::makeCertificate(options).get());
  }

  test::TempDir dir_;
  const std::string root_ = dir_ / "root";
  const std::string userDir_ = root_ + "/user";
  CertificateStore store_{root_, {root_}};
  boost::shared_ptr<CertificateFilter> filter_ = boost::make_shared<UserCertificateFilter>();
};

class RenameTest : public LifecycleTest {};

TEST_F(RenameTest, RenameFileReplacesTargetsAndMayTolerateAMissingSource) {
  auto cache = makeCache(true);
  EXPECT_TRUE(cache->renameFile("none", ".tpk", "x", ".key", true));
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_THAT(statements(), IsEmpty());

  EXPECT_FALSE(cache->renameFile("none", ".tpk", "x", ".key", false));
  EXPECT_THAT(statements(), ElementsAre("error: An error occurred when renaming " +
                                        quoted("none.tpk") + " to x.key: system:2"));

  test::writeFile(file("p.tpk"), "new key");
  test::writeFile(file("p.key"), "old key");
  EXPECT_TRUE(cache->renameFile("p", ".tpk", "p", ".key", false));
  EXPECT_THAT(files(), ElementsAre("p.key"));
  EXPECT_EQ(test::readFile(file("p.key")), "new key");
}

TEST_F(RenameTest, RenameCertMovesAllThreeFiles) {
  test::writeUserPair(userDir_, "old", "o@x", "pw");
  test::writeFile(file("old.tpk"), "pending");
  auto cache = makeCache(true);
  EXPECT_EQ(cache->renameCert("old", "new"), 0);
  EXPECT_THAT(files(), ElementsAre("new.crt", "new.key", "new.tpk"));
  EXPECT_THAT(
      statements(),
      ElementsAre("info: Certificate in file (old) has been renamed in file store to: new"));
  EXPECT_EQ(cache->getFileBaseName("o@x"), "old");  // the index is not touched

  test::writeFile(file("lone.crt"), userCertPem("l@x"));
  EXPECT_EQ(cache->renameCert("lone", "alone"), 0);
  EXPECT_THAT(files(), ElementsAre("alone.crt", "new.crt", "new.key", "new.tpk"));
}

TEST_F(RenameTest, MissingCertificateRenamesNothing) {
  test::writeFile(file("k.key"), "key");
  auto cache = makeCache(true);
  EXPECT_EQ(cache->renameCert("k", "m"), CertFileCache::kFailed);
  EXPECT_THAT(files(), ElementsAre("k.key"));
  EXPECT_THAT(messages(LogMask::error), ElementsAre("An error occurred when renaming " +
                                                    quoted("k.crt") + " to m.crt: system:2"));
}

TEST_F(RenameTest, KeyThatCannotFollowBringsTheCertificateBack) {
  test::writeUserPair(userDir_, "a", "a@x", "pw");
  test::makeDirectories(file("b.key/occupied"));  // a non-empty directory cannot be replaced
  auto cache = makeCache(true);
  EXPECT_EQ(cache->renameCert("a", "b"), CertFileCache::kKeyNotRenamed);
  EXPECT_THAT(files(), ElementsAre("a.crt", "a.key", "b.key", "b.key/occupied"));
  ASSERT_EQ(messages(LogMask::error).size(), 1u);
  EXPECT_EQ(messages(LogMask::error)[0].rfind(
                "An error occurred when renaming " + quoted("a.key") + " to b.key: system:", 0),
            0u);
  EXPECT_THAT(messages(LogMask::info), IsEmpty());
}

TEST_F(RenameTest, TemporaryKeyThatCannotFollowDoesNotChangeTheResult) {
  test::writeUserPair(userDir_, "a", "a@x", "pw");
  test::writeFile(file("a.tpk"), "pending");
  test::makeDirectories(file("b.tpk/occupied"));
  auto cache = makeCache(true);
  EXPECT_EQ(cache->renameCert("a", "b"), 0);
  EXPECT_THAT(files(), ElementsAre("a.tpk", "b.crt", "b.key", "b.tpk", "b.tpk/occupied"));
  ASSERT_EQ(statements().size(), 2u);
  EXPECT_EQ(statements()[0].rfind("error: An error occurred when renaming " + quoted("a.tpk"), 0),
            0u);
  EXPECT_EQ(statements()[1], "info: Certificate in file (a) has been renamed in file store to: b");
}

class InstallTest : public LifecycleTest {};

TEST_F(InstallTest, RefusesTextThatIsNotExactlyACertificate) {
  auto cache = makeCache(true);
  const std::string pem = userCertPem("t@x");
  EXPECT_EQ(cache->saveCert("id", "not a certificate", false), CertFileCache::kFailed);
  EXPECT_EQ(cache->saveCert("", pem + "trailing garbage", false), CertFileCache::kFailed);
  EXPECT_THAT(statements(),
              ElementsAre("error: Can't save certificate to file. Not a valid certificate: id",
                          "error: Can't save certificate to file. Not a valid certificate: "));
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(InstallTest, CertificateWithoutIdentityNeedsAnId) {
  auto cache = makeCache(false);
  test::CertOptions anonymous;
  anonymous.commonName = "No Mail";
  const std::string pem = test::toPem(test::makeCertificate(anonymous).get());
  EXPECT_EQ(cache->saveCert("", pem, false), CertFileCache::kEmptyBaseName);
  EXPECT_THAT(statements(), ElementsAre("error: Can't save certificate to file. Invalid ID: "));
  EXPECT_EQ(cache->saveCert("named", pem, false), 0);
  EXPECT_THAT(files(), ElementsAre("named.crt"));
}

TEST_F(InstallTest, ExistingCertificateIsKeptUnlessOverwriting) {
  test::writeFile(file("e_at_x.crt"), "installed");
  test::writeFile(file("e_at_x.tpk"), "pending");
  auto cache = makeCache(true);
  EXPECT_EQ(cache->saveCert("", userCertPem("e@x"), false), CertFileCache::kExists);
  EXPECT_THAT(statements(), IsEmpty());
  EXPECT_EQ(test::readFile(file("e_at_x.crt")), "installed");
  EXPECT_THAT(files(), ElementsAre("e_at_x.crt", "e_at_x.tpk"));
}

TEST_F(InstallTest, PendingKeyBecomesTheKeyFile) {
  test::writeFile(file("p_at_x.tpk"), "pending key");
  auto cache = makeCache(true);
  const std::string pem = userCertPem("p@x");
  EXPECT_EQ(cache->saveCert("", pem, false), 0);
  EXPECT_THAT(files(), ElementsAre("p_at_x.crt", "p_at_x.key"));
  EXPECT_EQ(test::readFile(file("p_at_x.key")), "pending key");
  EXPECT_EQ(test::readFile(file("p_at_x.crt")), pem);
  EXPECT_THAT(statements(), ElementsAre("trace: Temporary private key file for " +
                                            quoted("p_at_x.crt") + " was renamed successflly",
                                        "trace: Cert was written: " + quoted("p_at_x.crt")));
  EXPECT_THAT(ids(*cache), IsEmpty());
}

TEST_F(InstallTest, NoPendingKeyTakesTheNewCertificateAwayAgain) {
  auto cache = makeCache(true);
  EXPECT_EQ(cache->saveCert("", userCertPem("q@x"), false), CertFileCache::kKeyNotPromoted);
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_THAT(statements(), ElementsAre("error: An error occurred when renaming " +
                                        quoted("q_at_x.tpk") + " to q_at_x.key: system:2"));

  // Replacing an installed pair: its certificate survives the failed install.
  test::writeFile(file("q_at_x.crt"), "installed certificate");
  test::writeFile(file("q_at_x.key"), "installed key");
  EXPECT_EQ(cache->saveCert("", userCertPem("q@x"), true), CertFileCache::kKeyNotPromoted);
  EXPECT_EQ(test::readFile(file("q_at_x.crt")), "installed certificate");
  EXPECT_THAT(files(), ElementsAre("q_at_x.crt", "q_at_x.key"));
}

TEST_F(InstallTest, CertificateOnlyCacheWritesTheCertificateAlone) {
  test::writeFile(file("named.tpk"), "not looked at");
  auto cache = makeCache(false);
  EXPECT_EQ(cache->saveCert("named", userCertPem("n@x"), false), 0);
  EXPECT_THAT(files(), ElementsAre("named.crt", "named.tpk"));
  EXPECT_THAT(statements(), ElementsAre("trace: Cert was written: " + quoted("named.crt")));

  CertificateStore missing(dir_ / "nowhere", {});
  CertFileCache nowhere(missing, filter_, false);
  clearLog();
  EXPECT_EQ(nowhere.saveCert("named", userCertPem("n@x"), false), CertFileCache::kFailed);
  EXPECT_THAT(statements(), ElementsAre("error: Can't save certificate: \"" +
                                        (dir_ / "nowhere/user/named.crt") + "\""));
}

class RemoveTest : public LifecycleTest {};

TEST_F(RemoveTest, RemovesEveryFileAndTheEntry) {
  test::writeUserPair(userDir_, "r", "r@x", "pw");
  test::writeFile(file("r.tpk"), "pending");
  auto cache = makeCache(true);
  EXPECT_EQ(cache->removeCert("nobody@x"), CertFileCache::kUnknownId);
  EXPECT_EQ(cache->removeCert("r@x"), 0);
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_THAT(ids(*cache), IsEmpty());
  EXPECT_THAT(statements(), ElementsAre("info: Certificate (r@x) has been removed from store: " +
                                        quoted("r.crt")));

  // A certificate-only cache removes key files beside the certificate all the same.
  test::writeUserPair(userDir_, "c", "c@x", "pw");
  test::writeFile(file("c.tpk"), "pending");
  auto certificatesOnly = makeCache(false);
  EXPECT_EQ(certificatesOnly->removeCert("c"), 0);
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RemoveTest, CertificateThatIsGoneKeepsTheEntry) {
  CertificateStore twoLocations(root_, {root_, dir_ / "other"});
  test::writeUserPair(dir_ / "other/user", "o", "o@x", "pw");
  test::writeUserPair(userDir_, "g", "g@x", "pw");
  CertFileCache cache(twoLocations, filter_, true);
  test::writeFile(file("g.crt"), "");
  ASSERT_EQ(::unlink(file("g.crt").c_str()), 0);
  clearLog();

  EXPECT_EQ(cache.removeCert("g@x"), CertFileCache::kFailed);
  EXPECT_EQ(cache.removeCert("o@x"), CertFileCache::kFailed);  // not in the root
  EXPECT_THAT(
      statements(),
      ElementsAre(
          "warning: Error system:0 removing cert (g@x) from cert store: " + quoted("g.crt"),
          "warning: Error system:0 removing cert (o@x) from cert store: " + quoted("o.crt")));
  EXPECT_THAT(ids(cache), ElementsAre("g@x", "o@x"));
  EXPECT_TRUE(test::fileExists(file("g.key")));
}

TEST_F(RemoveTest, KeyThatCannotBeRemovedStopsAfterTheCertificate) {
  test::writeFile(file("k.crt"), userCertPem("k@x"));
  test::makeDirectories(file("k.key/occupied"));
  test::writeFile(file("k.tpk"), "pending");
  auto cache = makeCache(true);
  EXPECT_EQ(cache->removeCert("k@x"), CertFileCache::kKeyNotRemoved);
  EXPECT_THAT(files(), ElementsAre("k.key", "k.key/occupied", "k.tpk"));
  ASSERT_EQ(statements().size(), 1u);
  EXPECT_EQ(statements()[0].rfind("warning: Error system:", 0), 0u);
  EXPECT_NE(statements()[0].find(" removing key file (k@x) from cert store: " + quoted("k.key")),
            std::string::npos);
  EXPECT_THAT(ids(*cache), ElementsAre("k@x"));
  EXPECT_EQ(cache->removeCert("k@x"), CertFileCache::kFailed);
}

TEST_F(RemoveTest, TemporaryKeyThatCannotBeRemovedOnlyWarns) {
  test::writeUserPair(userDir_, "t", "t@x", "pw");
  test::makeDirectories(file("t.tpk/occupied"));
  auto cache = makeCache(true);
  EXPECT_EQ(cache->removeCert("t@x"), 0);
  EXPECT_THAT(files(), ElementsAre("t.tpk", "t.tpk/occupied"));
  ASSERT_EQ(statements().size(), 2u);
  EXPECT_NE(
      statements()[0].find(" removing temp key file (t@x) from cert store: " + quoted("t.tpk")),
      std::string::npos);
  EXPECT_EQ(statements()[1],
            "info: Certificate (t@x) has been removed from store: " + quoted("t.crt"));
  EXPECT_THAT(ids(*cache), IsEmpty());
}

// The whole road of one certificate, with the openssl tool as the signing authority.
class CertificateRoadTest : public LifecycleTest {
 protected:
  void SetUp() override {
    LifecycleTest::SetUp();
    const std::string ca = dir_ / "ca";
    test::makeDirectories(ca);
    ASSERT_EQ(test::runCommand("cd '" + ca +
                               "' && openssl req -x509 -newkey rsa:2048 -nodes "
                               "-subj '/CN=Road Test CA' -days 30 -keyout ca.key -out ca.crt "
                               ">/dev/null 2>&1"),
              0);
  }

  // Signs a request with the test CA; the reply as PEM, or as bare base64 of the DER.
  std::string sign(const std::string& csr, bool der) {
    const std::string ca = dir_ / "ca";
    test::writeFile(ca + "/request.csr", csr);
    std::string reply;
    const std::string format = der ? " -outform DER | base64 -w0" : "";
    EXPECT_EQ(test::runCommand("cd '" + ca +
                                   "' && openssl x509 -req -in request.csr -CA ca.crt "
                                   "-CAkey ca.key -CAcreateserial -days 10 2>/dev/null" +
                                   format,
                               &reply),
              0);
    return reply;
  }
};

TEST_F(CertificateRoadTest, RequestSignInstallFindRenameRemove) {
  for (const bool der : {false, true}) {
    SCOPED_TRACE(der ? "reply as base64 DER" : "reply as PEM");
    auto creator = makeCache(true);
    std::string csr;
    ASSERT_EQ(creator->createCsr("", "road@example.org", "road-pw", 0, csr), 0);
    ASSERT_EQ(creator->saveCert("", sign(csr, der), false), 0);
    EXPECT_THAT(files(), ElementsAre("road_at_example.org.crt", "road_at_example.org.key"));

    auto reader = makeCache(true);
    EXPECT_THAT(ids(*reader), ElementsAre("road@example.org"));
    int error = -1;
    std::shared_ptr<Certificate> cert =
        reader->getCertificate("road@example.org", "road-pw", error, true);
    ASSERT_TRUE(cert);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(X509_check_private_key(cert->getX509(), cert->getPrivateKey()), 1);
    EXPECT_FALSE(reader->getCertificate("road@example.org", "wrong", error, true));

    ASSERT_EQ(reader->renameCert("road_at_example.org", "road"), 0);
    EXPECT_THAT(files(), ElementsAre("road.crt", "road.key"));
    auto renamed = makeCache(true);
    EXPECT_EQ(renamed->getFileBaseName("road@example.org"), "road");
    ASSERT_EQ(renamed->removeCert("road@example.org"), 0);
    EXPECT_THAT(ids(*renamed), IsEmpty());
    EXPECT_THAT(files(), IsEmpty());
  }
}

TEST_F(CertificateRoadTest, AbandonedAndKeyFirstRequests) {
  auto cache = makeCache(true);
  std::string csr;
  ASSERT_EQ(cache->createCsr("", "gone@example.org", "pw", 0, csr), 0);
  EXPECT_EQ(cache->cleanupCsr("", "gone@example.org"), 0);
  EXPECT_THAT(files(), IsEmpty());

  // The key went straight to .key: nothing is pending, so installing cannot promote it.
  ASSERT_EQ(cache->createCsr("", "direct@example.org", "pw", CertFileCache::skipTemporaryKey, csr),
            0);
  EXPECT_EQ(cache->saveCert("", sign(csr, false), false), CertFileCache::kKeyNotPromoted);
  EXPECT_THAT(files(), ElementsAre("direct_at_example.org.key"));
}

}  // namespace
}  // namespace tavik
