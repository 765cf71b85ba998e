// With every log level on, no password and no unencrypted private key reaches
// a log statement, a request's text or any file but the key file it belongs
// in, on the ways that succeed and on those that fail.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <boost/filesystem.hpp>

#include "crypto/certificatefilecache.h"
#include "support/testsupport.h"

namespace tavik {
namespace {

namespace fs = boost::filesystem;

// Distinctive, so that a match cannot be chance; the second one holds a NUL
// and bytes that a careless message might show in another form.
const std::string kPassword = "Pw-7f3a9c-distinctive";
const std::string kOtherPassword = std::string("Nul\0After-5e1d", 14);

class SecretLeakTest : public test::StoreTest {
 protected:
  // Reports what in `text` gives a secret away; "" when nothing.
  static std::string leaks(const std::string& text) {
    std::string found;
    for (const std::string& password : {kPassword, kOtherPassword, std::string("After-5e1d")}) {
      if (text.find(password) != std::string::npos) found += "a password; ";
    }
    std::size_t at = 0;
    while ((at = text.find("PRIVATE KEY-----", at)) != std::string::npos) {
      const std::size_t line = at == 0 ? std::string::npos : text.rfind("-----", at - 1);
      const std::string marker =
          line == std::string::npos ? text.substr(0, at) : text.substr(line, at - line);
      if (marker.find("ENCRYPTED") == std::string::npos) found += "an unencrypted key; ";
      at += 16;
    }
    return found;
  }

  // Runs every operation that handles a password or a key, each way it can go.
  void exerciseEverything() {
    std::string csr;
    auto cache = std::make_unique<CertFileCache>(store_, filter_, true);
    cache->createSelfSignedKeyPair("", "s@example.org", kPassword, 0);
    cache->createSelfSignedKeyPair("", "s@example.org", kPassword, 0);  // 2: exists
    cache->createSelfSignedKeyPair("", "n@example.org", kOtherPassword, 0);
    cache->createSelfSignedKeyPair("", "", kPassword, 0);                                  // 13
    cache->createSelfSignedKeyPair(std::string(300, 'm'), "m@example.org", kPassword, 0);  // 1
    cache->createCsr("", "r@example.org", kPassword, 0, csr);
    requests_.push_back(csr);
    cache->createCsr("", "k@example.org", kPassword, CertFileCache::skipTemporaryKey, csr);
    requests_.push_back(csr);
    cache->createCsr("", "", kPassword, 0, csr);  // the request cannot be built
    cache->writePrivateKey(dir_ / "no/such/dir.key", kPassword, test::testKey(0));
    cache->saveCert("", signedFor(requests_.front(), "r@example.org"), false);
    cache->saveCert("", "not a certificate " + kPassword, false);
    cache->createCsr("", "c@example.org", kPassword, 0, csr);
    cache->cleanupCsr("", "c@example.org");

    // A new cache finds the pairs; every lookup, right and wrong.
    cache = std::make_unique<CertFileCache>(store_, filter_, true);
    std::vector<std::string> ids;
    cache->listIds(ids);
    EXPECT_GE(ids.size(), 3u);
    for (const std::string& id : ids) {
      int errorCode = -1;
      for (const std::string& password : {kPassword, kOtherPassword, std::string("wrong")}) {
        cache->getCertificate(id, password, errorCode, true);
        cache->getCertificate(id, password, errorCode, false);
      }
      cache->getCertificateOnly(id, errorCode, true);
    }
    cache->renameCert("s_at_example.org", "renamed");
    cache->removeCert("r@example.org");
    CertReq request("q@example.org", csr, 1024);
    requests_.push_back(csr);
  }

  // A certificate for the key of a request, as an authority would send it.
  static std::string signedFor(const std::string& requestPem, const std::string& email) {
    BioPtr bio(BIO_new_mem_buf(requestPem.data(), static_cast<int>(requestPem.size())));
    X509ReqPtr request(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
    PkeyHandle key(X509_REQ_get_pubkey(request.get()));
    test::CertOptions options;
    options.email = email;
    options.key = key.get();
    options.issuerKey = test::testKey(3);
    return test::toPem(test::makeCertificate(options).get());
  }

  std::vector<std::string> requests_;
};

TEST_F(SecretLeakTest, NoSecretInLogsRequestsOrStrayFiles) {
  exerciseEverything();

  ASSERT_FALSE(records_.empty());
  for (const LogRecord& record : records_) {
    EXPECT_EQ(leaks(record.message), "") << record.message;
  }
  for (const std::string& csr : requests_) EXPECT_EQ(leaks(csr), "") << csr;

  std::size_t keyFiles = 0;
  for (fs::recursive_directory_iterator it(dir_.path()), end; it != end; ++it) {
    if (!fs::is_regular_file(it->status())) continue;
    const std::string path = it->path().string();
    const std::string contents = test::readFile(path);
    EXPECT_EQ(leaks(contents), "") << path;
    const std::string extension = it->path().extension().string();
    if (contents.find("PRIVATE KEY") != std::string::npos) {
      ++keyFiles;
      EXPECT_TRUE(extension == ".key" || extension == ".tpk") << "a key in " << path;
    }
  }
  // The pairs s (renamed), n and k, and the installed r until its removal.
  EXPECT_EQ(keyFiles, 3u);
}

TEST_F(SecretLeakTest, KeyFilesNeedTheirPassword) {
  exerciseEverything();
  // Each key file decrypts with the password it was written under, and with
  // nothing (the empty password) else.
  for (const std::string& name :
       {std::string("renamed.key"), std::string("k_at_example.org.key")}) {
    const std::string pem = test::readFile(file(name));
    for (const std::string& password : {kPassword, std::string()}) {
      BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
      PkeyHandle key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr,
                                             const_cast<char*>(password.c_str())));
      EXPECT_EQ(static_cast<bool>(key), password == kPassword) << name;
    }
  }
  ERR_clear_error();
}

}  // namespace
}  // namespace tavik
