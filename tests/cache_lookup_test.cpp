#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/exception.hpp>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Lookups over two locations: the root "first" and "second".
class CacheLookupTest : public test::StoreTest {
 protected:
  std::string second(const std::string& name) const { return dir_ / "second/user/" + name; }
  std::unique_ptr<CertFileCache> makeTwoLocationCache(bool withKeys) {
    auto cache = std::make_unique<CertFileCache>(twoLocations_, filter_, withKeys);
    clearLog();
    return cache;
  }
  CertificateStore twoLocations_{root_, {root_, dir_ / "second"}};
};

TEST_F(CacheLookupTest, UnknownIdentifierFailsQuietly) {
  auto cache = makeTwoLocationCache(true);
  int error = -1;
  EXPECT_FALSE(cache->getCertificate("nobody@x", "pw", error, false));
  EXPECT_EQ(error, CertFileCache::kNotInIndex);
  EXPECT_THAT(statements(), IsEmpty());
  EXPECT_EQ(cache->getFileBaseName("nobody@x"), "");
}

TEST_F(CacheLookupTest, FindsTheCertificateInALaterLocationAfresh) {
  test::writeUserPair(dir_ / "second/user", "b", "b@x", "pw");
  auto cache = makeTwoLocationCache(true);
  int error = -1;
  std::shared_ptr<Certificate> cert = cache->getCertificate("b@x", "pw", error, false);
  ASSERT_TRUE(cert);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(EVP_PKEY_eq(cert->getPrivateKey(), test::testKey(0)), 1);
  EXPECT_NE(cache->getCertificate("b@x", "pw", error, false), cert);
  EXPECT_THAT(statements(), IsEmpty());
}

TEST_F(CacheLookupTest, FailingLocationsLeaveTheLastCode) {
  test::writeFile(file("c.crt"), test::userCertPem("c@x"));
  test::makeDirectories(dir_ / "second/user");
  test::writeFile(second("c.crt"), test::userCertPem("c@x"));
  test::writeUserPair(userDir_, "m", "m@x", "pw");
  test::writeFile(second("m.crt"), test::userCertPem("m@x"));
  auto withoutKeys = makeTwoLocationCache(false);
  auto withKeys = makeTwoLocationCache(true);
  test::writeFile(file("c.crt"), "damaged after loading");
  ASSERT_EQ(::unlink(file("m.key").c_str()), 0);

  int error = -1;
  EXPECT_TRUE(withoutKeys->getCertificate("c", "", error, false));  // the second one is good
  EXPECT_EQ(error, CertFileCache::kCertUnreadable);
  EXPECT_FALSE(withKeys->getCertificate("m@x", "pw", error, false));
  EXPECT_EQ(error, CertFileCache::kKeyMissing);
  test::writeFile(second("m.key"), test::encryptedKeyPem(test::testKey(0), "pw"));
  EXPECT_FALSE(withKeys->getCertificate("m@x", "wrong", error, false));
  EXPECT_EQ(error, CertFileCache::kKeyUnreadable);
  EXPECT_THAT(
      statements(),
      ElementsAre("warning: Error reading certificate in '" + quoted("c.crt") + "'",
                  "warning: Error reading certificate. Key missing: " + quoted("m.key"),
                  "warning: Error reading certificate. Key missing: \"" + second("m.key") + "\"",
                  "warning: Error reading certificate. Key missing: " + quoted("m.key"),
                  "warning: Error reading certificate. Key invalid: \"" + second("m.key") + "\""));

  ASSERT_EQ(::unlink(file("m.crt").c_str()), 0);
  ASSERT_EQ(::unlink(second("m.crt").c_str()), 0);
  EXPECT_FALSE(withKeys->getCertificate("m@x", "pw", error, false));
  EXPECT_EQ(error, CertFileCache::kNoLocationHasIt);
}

TEST_F(CacheLookupTest, CertificateOnlyTurnsTheIdentityIntoAFileName) {
  test::writeFile(file("a_at_b.crt"), test::userCertPem("a@b"));
  test::writeUserPair(userDir_, "k_at_x", "k@x", "");
  int error = -1;
  std::shared_ptr<Certificate> cert = makeCache(false)->getCertificateOnly("a@b", error, true);
  ASSERT_TRUE(cert);
  EXPECT_EQ(cert->identity().email, "a@b");
  // A key-holding cache is keyed by the filter's identifiers, so "k_at_x" is not there.
  EXPECT_FALSE(makeCache(true)->getCertificateOnly("k@x", error, false));
  EXPECT_EQ(error, CertFileCache::kNotInIndex);
}

TEST_F(CacheLookupTest, FileInfoLooksInTheRootOnly) {
  test::writeUserPair(userDir_, "r", "r@x", "pw");
  test::writeUserPair(dir_ / "second/user", "s", "s@x", "pw");
  test::writeFile(file("keyonly.key"), "k");
  auto withKeys = makeTwoLocationCache(true);
  std::string key = "unchanged";
  std::string cert = "unchanged";
  EXPECT_EQ(withKeys->getFileInfo("s", key, cert), CertFileCache::kNoKeyFile);
  EXPECT_EQ(key + cert, "unchangedunchanged");
  EXPECT_EQ(withKeys->getFileInfo("keyonly", key, cert), CertFileCache::kNoCertFile);
  EXPECT_EQ(key, file("keyonly.key"));
  EXPECT_EQ(cert, "unchanged");
  EXPECT_EQ(withKeys->getFileInfo("r", key, cert), 0);
  EXPECT_EQ(key, file("r.key"));
  EXPECT_EQ(cert, file("r.crt"));
  EXPECT_EQ(makeTwoLocationCache(false)->getFileInfo("r", key, cert), 0);
  EXPECT_EQ(key, "");
}

TEST_F(CacheLookupTest, ListsIdentifiersInByteOrderReplacingTheVector) {
  for (const char* name : {"b", "B", "a"})
    test::writeFile(file(std::string(name) + ".crt"), test::userCertPem("x@x"));
  std::vector<std::string> ids = {"stale"};
  EXPECT_EQ(makeCache(false)->listIds(ids), 3u);
  EXPECT_THAT(ids, ElementsAre("B", "a", "b"));
  CertificateStore empty(dir_ / "none", {});
  EXPECT_EQ(CertFileCache(empty, filter_, false).listIds(ids), 0u);
  EXPECT_THAT(ids, IsEmpty());
}

TEST_F(CacheLookupTest, LoggingOffChangesNothingButTheLog) {
  test::writeFile(file("x.crt"), "broken");
  test::writeUserPair(userDir_, "y", "y@x", "pw");
  LogFacility::setUp(false);
  auto cache = makeCache(true);
  int error = -1;
  EXPECT_FALSE(cache->getCertificate("y@x", "wrong", error, false));
  EXPECT_EQ(error, CertFileCache::kKeyUnreadable);
  EXPECT_THAT(ids(*cache), ElementsAre("y@x"));
  EXPECT_THAT(statements(), IsEmpty());
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
  test::writeUserPair(userDir_, "r", "r@x", "pw");
  auto cache = makeCache(true);
  ::chmod(userDir_.c_str(), 0600);
  std::string key;
  std::string cert;
  EXPECT_THROW(cache->getFileInfo("r", key, cert), boost::filesystem::filesystem_error);
}

}  // namespace
}  // namespace tavik
