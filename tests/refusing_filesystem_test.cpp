// The cache over a file system that refuses: unreadable certificate and key
// files, a cache directory that cannot be listed or written, files that
// cannot be removed or renamed, and the access mode of new key files. Root passes every
// permission check, so these tests skip as root and run_unprivileged.sh runs
// them again as an unprivileged user: the EACCES paths are real.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kPassword = "refusing-fs-password";

class RefusingFileSystemUnprivilegedTest : public test::StoreTest {
 protected:
  void SetUp() override {
    if (::geteuid() == 0) GTEST_SKIP() << "runs as an unprivileged user";
    StoreTest::SetUp();
  }

  // The cache directory refuses new entries, renames and removals.
  void lockDirectory() { ASSERT_EQ(::chmod(userDir_.c_str(), 0555), 0); }

  static std::string userCertPem(const std::string& email, EVP_PKEY* key) {
    test::CertOptions options;
    options.commonName = "User";
    options.email = email;
    options.key = key;
    return test::toPem(test::makeCertificate(options).get());
  }

  static mode_t modeOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
  }
};

TEST_F(RefusingFileSystemUnprivilegedTest, UnreadableFilesFailLookupsWithTheirCodes) {
  test::writeUserPair(userDir_, "a", "a@example.org", kPassword);
  auto keyCache = makeCache(true);
  auto plainCache = makeCache(false);
  ASSERT_EQ(::chmod(file("a.key").c_str(), 0), 0);

  int errorCode = -1;
  EXPECT_EQ(keyCache->getCertificate("a@example.org", kPassword, errorCode, true), nullptr);
  EXPECT_EQ(errorCode, CertFileCache::kKeyUnreadable);
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Error reading certificate. Key invalid: " + quoted("a.key")));

  ASSERT_EQ(::chmod(file("a.crt").c_str(), 0), 0);
  clearLog();
  EXPECT_EQ(plainCache->getCertificate("a", "", errorCode, true), nullptr);
  EXPECT_EQ(errorCode, CertFileCache::kCertUnreadable);
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Error reading certificate in '" + quoted("a.crt") + "'"));
}

TEST_F(RefusingFileSystemUnprivilegedTest, UnlistableCacheDirectoryGivesAnEmptyIndex) {
  test::writeUserPair(userDir_, "a", "a@example.org", kPassword);
  ASSERT_EQ(::chmod(userDir_.c_str(), 0), 0);

  auto cache = makeCache(true);

  std::vector<std::string> ids;
  EXPECT_EQ(cache->listIds(ids), 0u);
}

TEST_F(RefusingFileSystemUnprivilegedTest, CreationInALockedDirectoryLeavesNothing) {
  auto cache = makeCache(true);
  lockDirectory();

  EXPECT_EQ(cache->createSelfSignedKeyPair("", "s@example.org", kPassword, 0),
            CertFileCache::kFailed);
  EXPECT_THAT(messages(LogMask::error),
              ElementsAre("Can't create file BIO: " + quoted("s_at_example.org.key")));

  std::string csr = "untouched";
  clearLog();
  EXPECT_EQ(cache->createCsr("", "r@example.org", kPassword, 0, csr), CertFileCache::kFailed);
  EXPECT_THAT(messages(LogMask::error),
              ElementsAre("Can't create file BIO: " + quoted("r_at_example.org.tpk")));
  // The request was made; only its key could not be kept.
  EXPECT_NE(csr.find("BEGIN CERTIFICATE REQUEST"), std::string::npos);
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(RefusingFileSystemUnprivilegedTest, InstallingIntoALockedDirectoryKeepsTheRequestPending) {
  test::writeFile(file("r_at_example.org.tpk"), test::encryptedKeyPem(test::testKey(1), kPassword));
  auto cache = makeCache(true);
  lockDirectory();

  EXPECT_EQ(cache->saveCert("", userCertPem("r@example.org", test::testKey(1)), false),
            CertFileCache::kFailed);

  EXPECT_THAT(messages(LogMask::error),
              ElementsAre("Can't save certificate: " + quoted("r_at_example.org.crt")));
  EXPECT_THAT(files(), ElementsAre("r_at_example.org.tpk"));
}

TEST_F(RefusingFileSystemUnprivilegedTest, LockedFilesAreNeitherRenamedNorRemoved) {
  test::writeUserPair(userDir_, "a", "a@example.org", kPassword);
  test::writeFile(file("a.tpk"), test::encryptedKeyPem(test::testKey(1), kPassword));
  auto cache = makeCache(true);
  lockDirectory();

  EXPECT_EQ(cache->renameCert("a", "b"), CertFileCache::kFailed);
  EXPECT_EQ(cache->removeCert("a@example.org"), CertFileCache::kFailed);
  EXPECT_EQ(cache->cleanupCsr("a", ""), CertFileCache::kTempKeyNotRemoved);

  EXPECT_THAT(files(), ElementsAre("a.crt", "a.key", "a.tpk"));
  std::vector<std::string> ids;
  cache->listIds(ids);
  EXPECT_THAT(ids, ElementsAre("a@example.org"));
  EXPECT_THAT(
      messages(LogMask::error),
      ElementsAre("An error occurred when renaming " + quoted("a.crt") + " to b.crt: system:13",
                  "Error (system:13) deleting temporary private key file: " + quoted("a.tpk")));
  EXPECT_THAT(messages(LogMask::warning),
              ElementsAre("Error system:13 removing cert (a@example.org) from cert store: " +
                          quoted("a.crt")));
}

TEST_F(RefusingFileSystemUnprivilegedTest, NewKeyFilesAreForTheirOwnerOnly) {
  const mode_t previous = ::umask(022);
  auto cache = makeCache(true);
  std::string csr;
  const int selfSigned = cache->createSelfSignedKeyPair("", "s@example.org", kPassword, 0);
  const int request = cache->createCsr("", "r@example.org", kPassword, 0, csr);
  const int installed =
      request == 0
          ? cache->saveCert(
                "",
                [&csr] {
                  BioPtr bio(BIO_new_mem_buf(csr.data(), static_cast<int>(csr.size())));
                  X509ReqPtr req(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
                  PkeyHandle key(X509_REQ_get_pubkey(req.get()));
                  return userCertPem("r@example.org", key.get());
                }(),
                false)
          : -1;
  ::umask(previous);

  EXPECT_EQ(selfSigned, 0);
  EXPECT_EQ(request, 0);
  EXPECT_EQ(installed, 0);
  EXPECT_EQ(modeOf(file("s_at_example.org.key")), 0600u);
  EXPECT_EQ(modeOf(file("s_at_example.org.crt")), 0644u);
  EXPECT_EQ(modeOf(file("r_at_example.org.key")), 0600u);
}

}  // namespace
}  // namespace tavik
