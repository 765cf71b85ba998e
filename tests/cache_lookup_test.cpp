#include <gtest/gtest.h>

#include <boost/filesystem/exception.hpp>
#include <boost/make_shared.hpp>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CacheLookupTest : public test::LogCaptureTest {
 protected:
  std::string userDir(const std::string& location) const { return dir_ / location + "/user"; }

  void writeCertOnly(const std::string& dir, const std::string& baseName,
                     const std::string& email) {
    test::CertOptions options;
    options.commonName = "User";
    options.email = email;
    test::makeDirectories(dir);
    test::writeFile(dir + "/" + baseName + ".crt",
                    test::toPem(test::makeCertificate(options).get()));
  }

  // A cache over locations "first" and "second", root "first"; the log starts empty.
  std::unique_ptr<CertFileCache> makeCache(bool withKeys) {
    auto cache = std::make_unique<CertFileCache>(store_, filter_, withKeys);
    clearLog();
    return cache;
  }

  test::TempDir dir_;
  boost::shared_ptr<CertificateFilter> filter_ = boost::make_shared<UserCertificateFilter>();
  CertificateStore store_{dir_ / "first", {dir_ / "first", dir_ / "second"}};
};

TEST_F(CacheLookupTest, UnknownIdentifierFailsQuietly) {
  auto cache = makeCache(true);
  int error = -1;
  EXPECT_FALSE(cache->getCertificate("nobody@x", "pw", error, false));
  EXPECT_EQ(error, CertFileCache::kNotInIndex);
  EXPECT_THAT(statements(), IsEmpty());
  EXPECT_EQ(cache->getFileBaseName("nobody@x"), "");
}

TEST_F(CacheLookupTest, FindsTheCertificateInALaterLocation) {
  test::writeUserPair(userDir("second"), "b", "b@x", "pw");
  auto cache = makeCache(true);
  int error = -1;
  std::shared_ptr<Certificate> cert = cache->getCertificate("b@x", "pw", error, false);
  ASSERT_TRUE(cert);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(EVP_PKEY_eq(cert->getPrivateKey(), test::testKey(0)), 1);
  EXPECT_THAT(statements(), IsEmpty());
  // Every lookup reads afresh.
  EXPECT_NE(cache->getCertificate("b@x", "pw", error, false), cert);
}

TEST_F(CacheLookupTest, UnreadableFirstLocationFallsThroughWithItsCode) {
  writeCertOnly(userDir("first"), "c", "c@x");
  writeCertOnly(userDir("second"), "c", "c@x");
  auto cache = makeCache(false);
  test::writeFile(userDir("first") + "/c.crt", "damaged after loading");

  int error = -1;
  EXPECT_TRUE(cache->getCertificate("c", "", error, false));
  EXPECT_EQ(error, CertFileCache::kCertUnreadable);
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Error reading certificate in '\"" + userDir("first") + "/c.crt\"'"));
}

TEST_F(CacheLookupTest, MissingKeyInEveryLocationGivesKeyMissing) {
  test::writeUserPair(userDir("first"), "m", "m@x", "pw");
  writeCertOnly(userDir("second"), "m", "m@x");
  auto cache = makeCache(true);
  ::unlink((userDir("first") + "/m.key").c_str());

  int error = -1;
  EXPECT_FALSE(cache->getCertificate("m@x", "pw", error, false));
  EXPECT_EQ(error, CertFileCache::kKeyMissing);
  EXPECT_THAT(
      messages(LogMask::warning),
      ElementsAre("Error reading certificate. Key missing: \"" + userDir("first") + "/m.key\"",
                  "Error reading certificate. Key missing: \"" + userDir("second") + "/m.key\""));
}

TEST_F(CacheLookupTest, WrongPasswordGivesKeyInvalidAndLaterLocationDecides) {
  test::writeUserPair(userDir("first"), "w", "w@x", "pw");
  auto cache = makeCache(true);
  int error = -1;
  EXPECT_FALSE(cache->getCertificate("w@x", "wrong", error, false));
  EXPECT_EQ(error, CertFileCache::kKeyUnreadable);
  EXPECT_THAT(messages(LogMask::warning), ElementsAre("Error reading certificate. Key invalid: \"" +
                                                      userDir("first") + "/w.key\""));

  // The file gone from every location: nothing held it.
  ::unlink((userDir("first") + "/w.crt").c_str());
  EXPECT_FALSE(cache->getCertificate("w@x", "pw", error, false));
  EXPECT_EQ(error, CertFileCache::kNoLocationHasIt);
}

TEST_F(CacheLookupTest, StoreWithoutLocationsFindsNothing) {
  test::writeUserPair(userDir("first"), "n", "n@x", "pw");
  auto cache = makeCache(true);
  CertificateStore empty(dir_ / "first", {});
  CertFileCache emptyCache(empty, filter_, true);
  int error = -1;
  EXPECT_FALSE(emptyCache.getCertificate("n@x", "pw", error, false));
  EXPECT_EQ(error, CertFileCache::kNotInIndex);
  // An index entry whose store lost its locations: no location holds the file.
  std::vector<std::string> ids;
  ASSERT_EQ(cache->listIds(ids), 1u);
}

TEST_F(CacheLookupTest, CertificateOnlyTurnsTheIdentityIntoAFileName) {
  writeCertOnly(userDir("first"), "a_at_b", "a@b");
  test::writeUserPair(userDir("second"), "k_at_x", "k@x", "pw");
  auto withoutKeys = makeCache(false);
  int error = -1;
  std::shared_ptr<Certificate> cert = withoutKeys->getCertificateOnly("a@b", error, true);
  ASSERT_TRUE(cert);
  EXPECT_EQ(cert->identity().email, "a@b");

  // A key-holding cache is keyed by the filter's identifiers, so "k_at_x" is not there.
  auto withKeys = makeCache(true);
  EXPECT_FALSE(withKeys->getCertificateOnly("k@x", error, false));
  EXPECT_EQ(error, CertFileCache::kNotInIndex);
}

TEST_F(CacheLookupTest, FileInfoLooksInTheRootOnly) {
  test::writeUserPair(userDir("first"), "r", "r@x", "pw");
  test::writeUserPair(userDir("second"), "s", "s@x", "pw");
  test::writeFile(userDir("first") + "/keyonly.key", "k");
  auto withKeys = makeCache(true);
  auto withoutKeys = makeCache(false);

  std::string key = "unchanged";
  std::string cert = "unchanged";
  EXPECT_EQ(withKeys->getFileInfo("r", key, cert), 0);
  EXPECT_EQ(key, userDir("first") + "/r.key");
  EXPECT_EQ(cert, userDir("first") + "/r.crt");

  key = cert = "unchanged";
  EXPECT_EQ(withKeys->getFileInfo("s", key, cert), CertFileCache::kNoKeyFile);
  EXPECT_EQ(key, "unchanged");
  EXPECT_EQ(withKeys->getFileInfo("keyonly", key, cert), CertFileCache::kNoCertFile);
  EXPECT_EQ(key, userDir("first") + "/keyonly.key");
  EXPECT_EQ(cert, "unchanged");

  EXPECT_EQ(withoutKeys->getFileInfo("r", key, cert), 0);
  EXPECT_EQ(key, "");
  EXPECT_EQ(cert, userDir("first") + "/r.crt");
}

// Run as an unprivileged user by run_unprivileged.sh; root searches every directory.
class CacheLookupUnprivilegedTest : public CacheLookupTest {
 protected:
  void SetUp() override {
    if (::geteuid() == 0) GTEST_SKIP() << "runs as an unprivileged user";
    CacheLookupTest::SetUp();
  }
};

TEST_F(CacheLookupUnprivilegedTest, FileInfoPassesFileSystemFailuresOn) {
  test::writeUserPair(userDir("first"), "r", "r@x", "pw");
  auto cache = makeCache(true);
  ::chmod(userDir("first").c_str(), 0600);
  std::string key;
  std::string cert;
  EXPECT_THROW(cache->getFileInfo("r", key, cert), boost::filesystem::filesystem_error);
}

TEST_F(CacheLookupTest, ListsIdentifiersInByteOrderReplacingTheVector) {
  writeCertOnly(userDir("first"), "b", "b@x");
  writeCertOnly(userDir("first"), "B", "B@x");
  writeCertOnly(userDir("second"), "a", "a@x");
  auto cache = makeCache(false);
  std::vector<std::string> ids = {"stale"};
  EXPECT_EQ(cache->listIds(ids), 3u);
  EXPECT_THAT(ids, ElementsAre("B", "a", "b"));

  CertificateStore empty(dir_ / "none", {});
  CertFileCache emptyCache(empty, filter_, false);
  EXPECT_EQ(emptyCache.listIds(ids), 0u);
  EXPECT_THAT(ids, IsEmpty());
}

TEST_F(CacheLookupTest, LoggingOffChangesNothingButTheLog) {
  writeCertOnly(userDir("first"), "x", "x@x");
  LogFacility::setUp(false);
  auto cache = makeCache(true);
  int error = -1;
  EXPECT_FALSE(cache->getCertificate("x@x", "pw", error, false));
  EXPECT_EQ(error, CertFileCache::kNotInIndex);
  std::vector<std::string> ids;
  EXPECT_EQ(cache->listIds(ids), 0u);
  EXPECT_THAT(statements(), IsEmpty());
}

}  // namespace
}  // namespace tavik
