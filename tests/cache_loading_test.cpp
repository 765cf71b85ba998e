#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CacheLoadingTest : public test::StoreTest {
 protected:
  // The cache directory of another store location, named relative to the temp dir.
  std::string userDir(const std::string& location) const { return dir_ / location + "/user"; }
  void writeCert(const std::string& path, const std::string& email) {
    test::makeDirectories(path.substr(0, path.rfind('/')));
    test::writeFile(path, test::userCertPem(email));
  }
  std::unique_ptr<CertFileCache> loadLogged(CertificateStore& store, bool withKeys) {
    clearLog();
    return std::make_unique<CertFileCache>(store, filter_, withKeys);
  }
};

TEST_F(CacheLoadingTest, PairsCertificatesWithKeysAndCountsThoseWithout) {
  writeCert(file("x.crt"), "x@example.org");
  test::writeUserPair(userDir_, "y", "y@example.org", "pw");
  auto cache = loadLogged(store_, true);
  EXPECT_THAT(ids(*cache), ElementsAre("y@example.org"));
  EXPECT_EQ(cache->getFileBaseName("y@example.org"), "y");
  EXPECT_THAT(
      statements(),
      ElementsAre(
          "trace: Looking for all certificates...",
          "trace: Scanning dir " + userDir_ + " for certificates...",
          "debug: Certificate without private key. File missing: " + quoted("x.key"),
          "trace: Added certficate y@example.org => y",
          "warning: 1 certificate(s) without matching key (file) found in \"" + userDir_ + "\"",
          "info: Successfully found 1 certificate(s) in \"" + userDir_ + "\""));
}

TEST_F(CacheLoadingTest, NothingFoundIsReportedOnceAtTheEnd) {
  writeCert(file("x.crt"), "x@example.org");
  CertificateStore twoLocations(root_, {root_, dir_ / "b"});
  loadLogged(twoLocations, true);
  EXPECT_THAT(messages(LogMask::info), IsEmpty());
  EXPECT_THAT(
      messages(LogMask::warning),
      ElementsAre("1 certificate(s) without matching key (file) found in \"" + userDir_ + "\"",
                  "Did not find any certificates with matching key in one of the dirs " + root_ +
                      ", " + (dir_ / "b")));
  EXPECT_THAT(messages(LogMask::trace),
              ::testing::Contains("Cert store directory \"" + userDir("b") +
                                  "\" does not exist (we look at other locations!)"));

  CertificateStore none(root_, {});
  EXPECT_THAT(ids(*loadLogged(none, false)), IsEmpty());
  EXPECT_THAT(statements(), ElementsAre("trace: Looking for all certificates...",
                                        "info: Did not find any certificates in one of the dirs "));
}

TEST_F(CacheLoadingTest, LaterLocationWinsForTheSameIdentifier) {
  writeCert(userDir("first") + "/a.crt", "one@example.org");
  writeCert(userDir("second") + "/a.crt", "two@example.org");
  CertificateStore store(dir_ / "first", {dir_ / "first", dir_ / "second"});
  EXPECT_THAT(ids(*loadLogged(store, false)), ElementsAre("a"));
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Replacing certificate (a). File 'a' replaced with 'a' from '" +
                          userDir("second") + "'"));
  EXPECT_THAT(messages(LogMask::info),
              ElementsAre("Successfully found 1 certificate(s) in \"" + userDir("first") + "\"",
                          "Successfully found 1 certificate(s) in \"" + userDir("second") + "\""));
}

TEST_F(CacheLoadingTest, MixedCaseExtensionLoadsAndLooksForLowerCaseKey) {
  writeCert(file("Cam1.CRT"), "cam@example.org");
  writeCert(file("Cam2.Crt"), "cam2@example.org");
  test::writeFile(file("Cam2.KEY"), "not looked at");
  test::writeFile(file("Cam1.key"), "exists; its content is not examined at load");
  EXPECT_THAT(ids(*loadLogged(store_, true)), ElementsAre("cam@example.org"));
  EXPECT_THAT(messages(LogMask::debug),
              ElementsAre("Certificate without private key. File missing: " + quoted("Cam2.key")));

  auto withoutKeys = makeCache(false);
  EXPECT_THAT(ids(*withoutKeys), ElementsAre("Cam1", "Cam2"));
  // Lookup builds "Cam1.crt", which a case-sensitive file system does not hold.
  int error = -1;
  EXPECT_FALSE(withoutKeys->getCertificate("Cam1", "", error, false));
  EXPECT_EQ(error, CertFileCache::kNoLocationHasIt);
}

TEST_F(CacheLoadingTest, SkipsNonCertificatesSilentlyAndBadCertificatesWithWarnings) {
  writeCert(file("good.crt"), "good@example.org");
  writeCert(file("A.crt.bak"), "bak@example.org");
  writeCert(file("A.pem"), "pem@example.org");
  test::makeDirectories(file("B.crt"));
  ASSERT_EQ(::symlink(file("nowhere.crt").c_str(), file("dead.crt").c_str()), 0);
  ASSERT_EQ(::symlink(file("good.crt").c_str(), file("link.crt").c_str()), 0);
  ASSERT_EQ(::mkfifo(file("pipe.crt").c_str(), 0600), 0);
  test::writeFile(file("D.crt"), "no certificate here");
  test::CertOptions authority;
  authority.commonName = "Some CA";
  authority.authority = true;
  test::writeFile(file("ca.crt"), test::toPem(test::makeCertificate(authority).get()));

  EXPECT_THAT(ids(*loadLogged(store_, false)), ElementsAre("good", "link"));
  std::vector<std::string> warnings = messages(LogMask::warning);
  std::sort(warnings.begin(), warnings.end());
  EXPECT_THAT(warnings,
              ElementsAre("Loading certificate from " + quoted("D.crt") + " failed",
                          "The certificate in " + quoted("ca.crt") + " is not the required type"));
  EXPECT_THAT(messages(LogMask::info),
              ElementsAre("Successfully found 2 certificate(s) in \"" + userDir_ + "\""));
}

TEST_F(CacheLoadingTest, FileInPlaceOfCacheDirectoryScansNothingQuietly) {
  test::makeDirectories(dir_ / "plain");
  test::writeFile(dir_ / "plain/user", "a file, not a directory");
  CertificateStore store(dir_ / "plain", {dir_ / "plain"});
  loadLogged(store, false);
  EXPECT_THAT(
      statements(),
      ElementsAre("trace: Looking for all certificates...",
                  "trace: Scanning dir " + userDir("plain") + " for certificates...",
                  "info: Did not find any certificates in one of the dirs " + (dir_ / "plain")));
}

TEST_F(CacheLoadingTest, QuotesPathsHoldingQuotesAndAmpersands) {
  const std::string location = dir_ / "we\"ird&dir";
  writeCert(location + "/user/bad.crt", "x@y");
  test::writeFile(location + "/user/bad.crt", "broken");
  CertificateStore store(location, {location});
  loadLogged(store, false);
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Loading certificate from \"" + (dir_ / "we&\"ird&&dir") +
                          "/user/bad.crt\" failed"));
}

TEST_F(CacheLoadingTest, LoadsFilesWrittenByTheOpensslTool) {
  // A request signed with its own key: a version-1 end-entity certificate, PEM and DER.
  ASSERT_EQ(
      test::runCommand(
          "cd '" + userDir_ +
          "' && (openssl req -new -newkey rsa:2048 -passout pass:toolpw "
          "-subj '/CN=Tool/emailAddress=tool@example.org' -keyout tool.key -out tool.csr && "
          "openssl x509 -req -in tool.csr -signkey tool.key -passin pass:toolpw -out tool.crt && "
          "openssl x509 -in tool.crt -outform DER -out der.crt && cp tool.key der.key && "
          "rm tool.csr) 2>/dev/null"),
      0);
  auto cache = loadLogged(store_, true);
  EXPECT_THAT(ids(*cache), ElementsAre("tool@example.org"));  // both files give one identifier
  EXPECT_EQ(messages(LogMask::warning).size(), 1u);           // the replacement
  int error = -1;
  std::shared_ptr<Certificate> cert =
      cache->getCertificate("tool@example.org", "toolpw", error, true);
  ASSERT_TRUE(cert);
  EXPECT_EQ(X509_check_private_key(cert->getX509(), cert->getPrivateKey()), 1);
}

TEST_F(CacheLoadingTest, LoadAgainKeepsEntriesWhoseFilesHaveGone) {
  writeCert(file("a.crt"), "a@x");
  auto cache = makeCache(false);
  ASSERT_EQ(::unlink(file("a.crt").c_str()), 0);
  writeCert(file("b.crt"), "b@x");
  cache->load();
  EXPECT_THAT(ids(*cache), ElementsAre("a", "b"));
}

// Run as an unprivileged user by run_unprivileged.sh; root reads every file.
class CacheLoadingUnprivilegedTest : public CacheLoadingTest {
 protected:
  void SetUp() override {
    if (::geteuid() == 0) GTEST_SKIP() << "runs as an unprivileged user";
    CacheLoadingTest::SetUp();
  }
};

TEST_F(CacheLoadingUnprivilegedTest, UnreadableCertificateIsSkippedWithItsWarning) {
  writeCert(file("locked.crt"), "l@x");
  ::chmod(file("locked.crt").c_str(), 0);
  EXPECT_THAT(ids(*loadLogged(store_, false)), IsEmpty());
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Loading certificate from " + quoted("locked.crt") + " failed"));
}

}  // namespace
}  // namespace tavik
