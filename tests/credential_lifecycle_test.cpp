#include <gtest/gtest.h>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class RenameTest : public test::StoreTest {};

TEST_F(RenameTest, RenameFileReplacesTargetsAndMayTolerateAMissingSource) {
  auto cache = makeCache(true);
  EXPECT_TRUE(cache->renameFile("none", ".tpk", "x", ".key", true));
  EXPECT_FALSE(cache->renameFile("none", ".tpk", "x", ".key", false));
  EXPECT_THAT(statements(), ElementsAre("error: An error occurred when renaming " +
                                        quoted("none.tpk") + " to x.key: system:2"));
  test::writeFile(file("p.tpk"), "new key");
  test::writeFile(file("p.key"), "old key");
  EXPECT_TRUE(cache->renameFile("p", ".tpk", "p", ".key", false));
  EXPECT_THAT(files(), ElementsAre("p.key"));
  EXPECT_EQ(test::readFile(file("p.key")), "new key");
}

TEST_F(RenameTest, RenameCertMovesAllThreeFilesOrNone) {
  test::writeUserPair(userDir_, "old", "o@x", "pw");
  test::writeFile(file("old.tpk"), "pending");
  test::writeFile(file("lone.crt"), "certificate alone");
  auto cache = makeCache(true);
  EXPECT_EQ(cache->renameCert("old", "new"), 0);
  EXPECT_EQ(cache->renameCert("lone", "alone"), 0);
  EXPECT_THAT(files(), ElementsAre("alone.crt", "new.crt", "new.key", "new.tpk"));
  EXPECT_THAT(messages(LogMask::info),
              ElementsAre("Certificate in file (old) has been renamed in file store to: new",
                          "Certificate in file (lone) has been renamed in file store to: alone"));
  EXPECT_EQ(cache->getFileBaseName("o@x"), "old");  // the index is not touched

  clearLog();
  EXPECT_EQ(cache->renameCert("old", "newer"), CertFileCache::kFailed);
  EXPECT_THAT(statements(), ElementsAre("error: An error occurred when renaming " +
                                        quoted("old.crt") + " to newer.crt: system:2"));
}

TEST_F(RenameTest, KeyThatCannotFollowBringsTheCertificateBack) {
  test::writeUserPair(userDir_, "a", "a@x", "pw");
  test::writeFile(file("a.tpk"), "pending");
  test::makeDirectories(file("b.key/occupied"));  // a non-empty directory cannot be replaced
  auto cache = makeCache(true);
  EXPECT_EQ(cache->renameCert("a", "b"), CertFileCache::kKeyNotRenamed);
  EXPECT_THAT(files(), ElementsAre("a.crt", "a.key", "a.tpk", "b.key", "b.key/occupied"));
  ASSERT_EQ(statements().size(), 1u);
  EXPECT_THAT(statements()[0], StartsWith("error: An error occurred when renaming " +
                                          quoted("a.key") + " to b.key: system:"));
}

TEST_F(RenameTest, TemporaryKeyThatCannotFollowDoesNotChangeTheResult) {
  test::writeUserPair(userDir_, "a", "a@x", "pw");
  test::writeFile(file("a.tpk"), "pending");
  test::makeDirectories(file("b.tpk/occupied"));
  auto cache = makeCache(true);
  EXPECT_EQ(cache->renameCert("a", "b"), 0);
  EXPECT_THAT(files(), ElementsAre("a.tpk", "b.crt", "b.key", "b.tpk", "b.tpk/occupied"));
  ASSERT_EQ(statements().size(), 2u);
  EXPECT_THAT(statements()[0],
              StartsWith("error: An error occurred when renaming " + quoted("a.tpk")));
  EXPECT_EQ(statements()[1], "info: Certificate in file (a) has been renamed in file store to: b");
}

class InstallTest : public test::StoreTest {};

TEST_F(InstallTest, RefusesWhatIsNotACertificateOrHasNoName) {
  auto cache = makeCache(true);
  test::CertOptions anonymous;
  anonymous.commonName = "No Mail";
  EXPECT_EQ(cache->saveCert("id", "not a certificate", false), 1);
  EXPECT_EQ(cache->saveCert("", test::userCertPem("t@x") + "trailing garbage", false), 1);
  EXPECT_EQ(cache->saveCert("", test::toPem(test::makeCertificate(anonymous).get()), false),
            CertFileCache::kEmptyBaseName);
  EXPECT_THAT(statements(),
              ElementsAre("error: Can't save certificate to file. Not a valid certificate: id",
                          "error: Can't save certificate to file. Not a valid certificate: ",
                          "error: Can't save certificate to file. Invalid ID: "));
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(InstallTest, PendingKeyBecomesTheKeyFileUnlessACertificateIsInTheWay) {
  test::writeFile(file("p_at_x.tpk"), "pending key");
  test::writeFile(file("p_at_x.crt"), "installed");
  auto cache = makeCache(true);
  const std::string pem = test::userCertPem("p@x");
  EXPECT_EQ(cache->saveCert("", pem, false), CertFileCache::kExists);
  EXPECT_THAT(statements(), IsEmpty());
  EXPECT_THAT(files(), ElementsAre("p_at_x.crt", "p_at_x.tpk"));

  EXPECT_EQ(cache->saveCert("", pem, true), 0);
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
  EXPECT_EQ(cache->saveCert("", test::userCertPem("q@x"), false), CertFileCache::kKeyNotPromoted);
  EXPECT_THAT(files(), IsEmpty());
  EXPECT_THAT(statements(), ElementsAre("error: An error occurred when renaming " +
                                        quoted("q_at_x.tpk") + " to q_at_x.key: system:2"));
  // Replacing an installed pair: its certificate survives the failed install.
  test::writeFile(file("q_at_x.crt"), "installed certificate");
  test::writeFile(file("q_at_x.key"), "installed key");
  EXPECT_EQ(cache->saveCert("", test::userCertPem("q@x"), true), CertFileCache::kKeyNotPromoted);
  EXPECT_EQ(test::readFile(file("q_at_x.crt")), "installed certificate");
  EXPECT_THAT(files(), ElementsAre("q_at_x.crt", "q_at_x.key"));
}

TEST_F(InstallTest, CertificateOnlyCacheWritesTheCertificateAlone) {
  test::writeFile(file("named.tpk"), "not looked at");
  auto cache = makeCache(false);
  EXPECT_EQ(cache->saveCert("named", test::userCertPem("n@x"), false), 0);
  EXPECT_THAT(files(), ElementsAre("named.crt", "named.tpk"));
  EXPECT_EQ(cache->saveCert("x/y", test::userCertPem("n@x"), false), 0);  // the id is encoded
  EXPECT_THAT(files(), ElementsAre("named.crt", "named.tpk", "x%2Fy.crt"));
  CertificateStore missing(dir_ / "nowhere", {});
  CertFileCache nowhere(missing, filter_, false);
  EXPECT_EQ(nowhere.saveCert("named", test::userCertPem("n@x"), false), 1);
  EXPECT_THAT(statements(), ElementsAre("trace: Cert was written: " + quoted("named.crt"),
                                        "trace: Cert was written: " + quoted("x%2Fy.crt"),
                                        "trace: Looking for all certificates...",
                                        "info: Did not find any certificates in one of the dirs ",
                                        "error: Can't save certificate: \"" +
                                            (dir_ / "nowhere/user/named.crt") + "\""));
}

class RemoveTest : public test::StoreTest {};

TEST_F(RemoveTest, RemovesEveryFileAndTheEntry) {
  test::writeUserPair(userDir_, "r", "r@x", "pw");
  test::writeFile(file("r.tpk"), "pending");
  test::writeUserPair(userDir_, "c", "c@x", "pw");
  auto cache = makeCache(true);
  EXPECT_EQ(cache->removeCert("nobody@x"), CertFileCache::kUnknownId);
  EXPECT_EQ(cache->removeCert("r@x"), 0);
  EXPECT_THAT(files(), ElementsAre("c.crt", "c.key"));
  EXPECT_THAT(ids(*cache), ElementsAre("c@x"));
  EXPECT_THAT(statements(), ElementsAre("info: Certificate (r@x) has been removed from store: " +
                                        quoted("r.crt")));
  // A certificate-only cache removes key files beside the certificate all the same.
  EXPECT_EQ(makeCache(false)->removeCert("c"), 0);
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RemoveTest, CertificateThatIsNotInTheRootKeepsTheEntry) {
  CertificateStore twoLocations(root_, {root_, dir_ / "other"});
  test::writeUserPair(dir_ / "other/user", "o", "o@x", "pw");
  test::writeUserPair(userDir_, "g", "g@x", "pw");
  CertFileCache cache(twoLocations, filter_, true);
  ASSERT_EQ(::unlink(file("g.crt").c_str()), 0);  // deleted by someone else
  clearLog();
  EXPECT_EQ(cache.removeCert("g@x"), CertFileCache::kFailed);
  EXPECT_EQ(cache.removeCert("o@x"), CertFileCache::kFailed);
  EXPECT_THAT(
      statements(),
      ElementsAre(
          "warning: Error system:0 removing cert (g@x) from cert store: " + quoted("g.crt"),
          "warning: Error system:0 removing cert (o@x) from cert store: " + quoted("o.crt")));
  EXPECT_THAT(ids(cache), ElementsAre("g@x", "o@x"));
  EXPECT_THAT(files(), ElementsAre("g.key"));
}

TEST_F(RemoveTest, KeyFilesThatCannotBeRemoved) {
  test::writeFile(file("k.crt"), test::userCertPem("k@x"));
  test::makeDirectories(file("k.key/occupied"));  // a non-empty directory cannot be removed
  test::writeFile(file("k.tpk"), "pending");
  test::writeUserPair(userDir_, "t", "t@x", "pw");
  test::makeDirectories(file("t.tpk/occupied"));
  auto cache = makeCache(true);

  EXPECT_EQ(cache->removeCert("k@x"), CertFileCache::kKeyNotRemoved);
  EXPECT_EQ(cache->removeCert("k@x"), CertFileCache::kFailed);  // its certificate is gone already
  EXPECT_EQ(cache->removeCert("t@x"), 0);                       // a temporary key only warns
  EXPECT_THAT(ids(*cache), ElementsAre("k@x"));
  EXPECT_THAT(files(), ElementsAre("k.key", "k.key/occupied", "k.tpk", "t.tpk", "t.tpk/occupied"));
  const std::vector<std::string> logged = statements();
  ASSERT_EQ(logged.size(), 4u);
  EXPECT_THAT(logged[0], StartsWith("warning: Error system:"));
  EXPECT_THAT(logged[0],
              ::testing::EndsWith(" removing key file (k@x) from cert store: " + quoted("k.key")));
  EXPECT_THAT(logged[2], ::testing::EndsWith(" removing temp key file (t@x) from cert store: " +
                                             quoted("t.tpk")));
  EXPECT_EQ(logged[3], "info: Certificate (t@x) has been removed from store: " + quoted("t.crt"));
}

// The whole road of one certificate, with the openssl tool as the signing authority.
class CertificateRoadTest : public test::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    test::makeDirectories(dir_ / "ca");
    ASSERT_EQ(
        test::runCommand("cd '" + (dir_ / "ca") +
                         "' && openssl req -x509 -newkey rsa:2048 "
                         "-nodes -subj '/CN=Road Test CA' -days 30 -keyout ca.key -out ca.crt "
                         ">/dev/null 2>&1"),
        0);
  }

  // Signs a request with the test CA; the reply as PEM, or as bare base64 of the DER.
  std::string sign(const std::string& csr, bool der) {
    test::writeFile(dir_ / "ca/request.csr", csr);
    std::string reply;
    EXPECT_EQ(test::runCommand("cd '" + (dir_ / "ca") +
                                   "' && openssl x509 -req -in request.csr "
                                   "-CA ca.crt -CAkey ca.key -CAcreateserial -days 10 2>/dev/null" +
                                   (der ? " -outform DER | base64 -w0" : ""),
                               &reply),
              0);
    return reply;
  }
};

TEST_F(CertificateRoadTest, RequestSignInstallFindRenameRemove) {
  for (const bool der : {false, true}) {
    SCOPED_TRACE(der ? "reply as base64 DER" : "reply as PEM");
    std::string csr;
    ASSERT_EQ(makeCache(true)->createCsr("", "road@example.org", "road-pw", 0, csr), 0);
    ASSERT_EQ(makeCache(true)->saveCert("", sign(csr, der), false), 0);
    EXPECT_THAT(files(), ElementsAre("road_at_example.org.crt", "road_at_example.org.key"));

    auto reader = makeCache(true);
    EXPECT_THAT(ids(*reader), ElementsAre("road@example.org"));
    int error = -1;
    std::shared_ptr<Certificate> cert =
        reader->getCertificate("road@example.org", "road-pw", error, true);
    ASSERT_TRUE(cert);
    EXPECT_EQ(X509_check_private_key(cert->getX509(), cert->getPrivateKey()), 1);
    ASSERT_EQ(reader->renameCert("road_at_example.org", "road"), 0);
    EXPECT_THAT(files(), ElementsAre("road.crt", "road.key"));

    auto renamed = makeCache(true);
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
