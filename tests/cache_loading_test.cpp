#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/make_shared.hpp>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CacheLoadingTest : public test::LogCaptureTest {
 protected:
  // The cache directory of the store location `location` (relative to the temp dir).
  std::string userDir(const std::string& location) const { return dir_ / location + "/user"; }

  void writeUserCert(const std::string& file, const std::string& email) {
    test::CertOptions options;
    options.commonName = "User";
    options.email = email;
    test::makeDirectories(file.substr(0, file.rfind('/')));
    test::writeFile(file, test::toPem(test::makeCertificate(options).get()));
  }

  std::vector<std::string> ids(const CertFileCache& cache) const {
    std::vector<std::string> list;
    cache.listIds(list);
    return list;
  }

  test::TempDir dir_;
  boost::shared_ptr<CertificateFilter> userFilter_ = boost::make_shared<UserCertificateFilter>();
};

TEST_F(CacheLoadingTest, PairsCertificatesWithKeysAndCountsThoseWithout) {
  const std::string d = userDir("root");
  writeUserCert(d + "/x.crt", "x@example.org");
  test::writeUserPair(d, "y", "y@example.org", "pw");
  CertificateStore store(dir_ / "root", {dir_ / "root"});

  CertFileCache cache(store, userFilter_, true);

  EXPECT_THAT(ids(cache), ElementsAre("y@example.org"));
  EXPECT_EQ(cache.getFileBaseName("y@example.org"), "y");
  const std::string quoted = "\"" + d + "\"";
  EXPECT_THAT(messages(LogMask::debug),
              ElementsAre("Certificate without private key. File missing: \"" + d + "/x.key\""));
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("1 certificate(s) without matching key (file) found in " + quoted));
  EXPECT_THAT(messages(LogMask::info),
              ElementsAre("Successfully found 1 certificate(s) in " + quoted));
  EXPECT_THAT(messages(LogMask::trace), ElementsAre("Looking for all certificates...",
                                                    "Scanning dir " + d + " for certificates...",
                                                    "Added certficate y@example.org => y"));
}

TEST_F(CacheLoadingTest, NothingWithKeyEndsInTheFinalWarning) {
  writeUserCert(userDir("a") + "/x.crt", "x@example.org");
  CertificateStore store(dir_ / "a", {dir_ / "a", dir_ / "b"});

  CertFileCache cache(store, userFilter_, true);

  EXPECT_THAT(ids(cache), IsEmpty());
  EXPECT_THAT(messages(LogMask::info), IsEmpty());
  EXPECT_THAT(
      messages(LogMask::warning),
      ElementsAre("1 certificate(s) without matching key (file) found in \"" + userDir("a") + "\"",
                  "Did not find any certificates with matching key in one of the dirs " +
                      (dir_ / "a") + ", " + (dir_ / "b")));
  EXPECT_THAT(messages(LogMask::trace),
              ::testing::Contains("Cert store directory \"" + userDir("b") +
                                  "\" does not exist (we look at other locations!)"));
}

TEST_F(CacheLoadingTest, StoreWithoutLocationsReportsAnEmptyList) {
  CertificateStore store(dir_ / "root", {});
  CertFileCache withoutKeys(store, userFilter_, false);
  EXPECT_THAT(statements(), ElementsAre("trace: Looking for all certificates...",
                                        "info: Did not find any certificates in one of the dirs "));
  EXPECT_THAT(ids(withoutKeys), IsEmpty());
}

TEST_F(CacheLoadingTest, LaterLocationWinsForTheSameIdentifier) {
  writeUserCert(userDir("first") + "/a.crt", "one@example.org");
  writeUserCert(userDir("second") + "/a.crt", "two@example.org");
  CertificateStore store(dir_ / "first", {dir_ / "first", dir_ / "second"});

  CertFileCache cache(store, userFilter_, false);

  EXPECT_THAT(ids(cache), ElementsAre("a"));
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Replacing certificate (a). File 'a' replaced with 'a' from '" +
                          userDir("second") + "'"));
  EXPECT_THAT(messages(LogMask::info),
              ElementsAre("Successfully found 1 certificate(s) in \"" + userDir("first") + "\"",
                          "Successfully found 1 certificate(s) in \"" + userDir("second") + "\""));
}

TEST_F(CacheLoadingTest, MixedCaseExtensionLoadsAndLooksForLowerCaseKey) {
  const std::string d = userDir("root");
  writeUserCert(d + "/Cam1.CRT", "cam@example.org");
  writeUserCert(d + "/Cam2.Crt", "cam2@example.org");
  test::writeFile(d + "/Cam2.KEY", "not looked at");
  test::writeFile(d + "/Cam1.key", "exists, content not examined at load");
  CertificateStore store(dir_ / "root", {dir_ / "root"});

  CertFileCache withKeys(store, userFilter_, true);
  EXPECT_THAT(ids(withKeys), ElementsAre("cam@example.org"));
  EXPECT_THAT(messages(LogMask::debug),
              ElementsAre("Certificate without private key. File missing: \"" + d + "/Cam2.key\""));

  CertFileCache withoutKeys(store, userFilter_, false);
  EXPECT_THAT(ids(withoutKeys), ElementsAre("Cam1", "Cam2"));
  // Lookup builds "Cam1.crt", which a case-sensitive file system does not hold.
  int error = -1;
  EXPECT_FALSE(withoutKeys.getCertificate("Cam1", "", error, false));
  EXPECT_EQ(error, CertFileCache::kNoLocationHasIt);
}

TEST_F(CacheLoadingTest, SkipsNonCertificatesSilentlyAndBadCertificatesWithWarnings) {
  const std::string d = userDir("root");
  writeUserCert(d + "/good.crt", "good@example.org");
  writeUserCert(d + "/A.crt.bak", "bak@example.org");
  writeUserCert(d + "/A.pem", "pem@example.org");
  test::makeDirectories(d + "/B.crt");
  ASSERT_EQ(::symlink((d + "/nowhere.crt").c_str(), (d + "/dead.crt").c_str()), 0);
  ASSERT_EQ(::mkfifo((d + "/pipe.crt").c_str(), 0600), 0);
  test::writeFile(d + "/D.crt", "no certificate here");
  test::CertOptions authority;
  authority.commonName = "Some CA";
  authority.authority = true;
  test::writeFile(d + "/ca.crt", test::toPem(test::makeCertificate(authority).get()));
  ASSERT_EQ(::symlink((d + "/good.crt").c_str(), (d + "/link.crt").c_str()), 0);
  CertificateStore store(dir_ / "root", {dir_ / "root"});

  CertFileCache cache(store, userFilter_, false);

  EXPECT_THAT(ids(cache), ElementsAre("good", "link"));
  std::vector<std::string> warnings = messages(LogMask::warning);
  std::sort(warnings.begin(), warnings.end());
  EXPECT_THAT(warnings,
              ElementsAre("Loading certificate from \"" + d + "/D.crt\" failed",
                          "The certificate in \"" + d + "/ca.crt\" is not the required type"));
  EXPECT_THAT(messages(LogMask::info),
              ElementsAre("Successfully found 2 certificate(s) in \"" + d + "\""));
}

TEST_F(CacheLoadingTest, FileInPlaceOfCacheDirectoryScansNothingQuietly) {
  test::makeDirectories(dir_ / "root");
  test::writeFile(dir_ / "root/user", "a file, not a directory");
  CertificateStore store(dir_ / "root", {dir_ / "root"});

  CertFileCache cache(store, userFilter_, false);

  EXPECT_THAT(
      statements(),
      ElementsAre("trace: Looking for all certificates...",
                  "trace: Scanning dir " + userDir("root") + " for certificates...",
                  "info: Did not find any certificates in one of the dirs " + (dir_ / "root")));
}

TEST_F(CacheLoadingTest, QuotesPathsHoldingQuotesAndAmpersands) {
  const std::string location = dir_ / "we\"ird&dir";
  writeUserCert(location + "/user/bad.crt", "x@y");
  test::writeFile(location + "/user/bad.crt", "broken");
  CertificateStore store(location, {location});

  CertFileCache cache(store, userFilter_, false);

  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Loading certificate from \"" + (dir_ / "we&\"ird&&dir") +
                          "/user/bad.crt\" failed"));
}

TEST_F(CacheLoadingTest, LoadsFilesWrittenByTheOpensslTool) {
  const std::string d = userDir("root");
  test::makeDirectories(d);
  // A request signed with its own key: a version-1 end-entity certificate.
  const std::string command =
      "cd '" + d +
      "' && openssl req -new -newkey rsa:2048 -subj '/CN=Tool/emailAddress=tool@example.org' "
      "-passout pass:toolpw -keyout tool.key -out tool.csr 2>/dev/null && "
      "openssl x509 -req -in tool.csr -signkey tool.key -passin pass:toolpw -days 30 -out tool.crt "
      "2>/dev/null && rm tool.csr";
  ASSERT_EQ(test::runCommand(command), 0);
  ASSERT_EQ(test::runCommand("openssl x509 -in '" + d + "/tool.crt' -outform DER -out '" + d +
                             "/der.crt' && cp '" + d + "/tool.key' '" + d + "/der.key'"),
            0);
  CertificateStore store(dir_ / "root", {dir_ / "root"});

  CertFileCache cache(store, userFilter_, true);

  EXPECT_THAT(ids(cache), ElementsAre("tool@example.org"));  // the two files share the identifier
  int error = -1;
  std::shared_ptr<Certificate> cert =
      cache.getCertificate("tool@example.org", "toolpw", error, true);
  ASSERT_TRUE(cert);
  EXPECT_EQ(error, 0);
  EXPECT_NE(cert->getPrivateKey(), nullptr);
}

TEST_F(CacheLoadingTest, LoadAgainKeepsEntriesWhoseFilesHaveGone) {
  const std::string d = userDir("root");
  writeUserCert(d + "/a.crt", "a@x");
  CertificateStore store(dir_ / "root", {dir_ / "root"});
  CertFileCache cache(store, userFilter_, false);
  ::unlink((d + "/a.crt").c_str());
  writeUserCert(d + "/b.crt", "b@x");

  cache.load();

  EXPECT_THAT(ids(cache), ElementsAre("a", "b"));
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
  const std::string d = userDir("root");
  writeUserCert(d + "/locked.crt", "l@x");
  ::chmod((d + "/locked.crt").c_str(), 0);
  CertificateStore store(dir_ / "root", {dir_ / "root"});

  CertFileCache cache(store, userFilter_, false);

  EXPECT_THAT(ids(cache), IsEmpty());
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Loading certificate from \"" + d + "/locked.crt\" failed"));
}

}  // namespace
}  // namespace tavik
