// Shared helpers of the tests: temporary stores, certificates and keys made at
// run time, files, the openssl command-line tool, and captured log statements.
#ifndef TAVIK_TESTS_SUPPORT_TESTSUPPORT_H_
#define TAVIK_TESTS_SUPPORT_TESTSUPPORT_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>
#include <vector>

#include "base/opensslutil.h"
#include "crypto/certificatefilecache.h"
#include "log/log.h"

namespace tavik {
namespace test {

// A fresh directory that is removed, with everything in it, when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() joined with `relative`.
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

// One of a few RSA 1024 keys made once per process (key generation is slow).
EVP_PKEY* testKey(int which);

struct CertOptions {
  std::string commonName;
  std::string email;                   // subject emailAddress, none when empty
  std::vector<std::string> altEmails;  // rfc822Name subject alternative names
  bool authority = false;              // basicConstraints cA TRUE
  long serial = 2;
  long validDays = 365;           // from now; negative: expired that many days ago
  EVP_PKEY* key = nullptr;        // the subject key; testKey(0) when null
  EVP_PKEY* issuerKey = nullptr;  // self-signed when null
  X509* issuer = nullptr;
};

X509Ptr makeCertificate(const CertOptions& options);
std::string toPem(X509* cert);
std::string toDer(X509* cert);
// The key as PEM, encrypted with Triple-DES under `password`.
std::string encryptedKeyPem(EVP_PKEY* key, const std::string& password);

void writeFile(const std::string& path, const std::string& contents);
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
void makeDirectories(const std::string& path);
// Every file below `dir`, relative to it, sorted.
std::vector<std::string> listTree(const std::string& dir);

// The PEM of a user certificate (CN "User", emailAddress `email`) for testKey(0).
std::string userCertPem(const std::string& email);

// How often `word` occurs in `text`.
int occurrences(const std::string& text, const std::string& word);

// Writes base.crt (PEM) and base.key (encrypted with `password`) in `dir` for a
// user certificate with subject emailAddress `email`.
void writeUserPair(const std::string& dir, const std::string& baseName, const std::string& email,
                   const std::string& password, EVP_PKEY* key = nullptr);

// Runs a shell command; returns its exit status and fills `output` with its
// standard output when given.
int runCommand(const std::string& command, std::string* output = nullptr);

// A fixture that captures every log statement at every level.
class LogCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The captured statements as "level: message", in order.
  std::vector<std::string> statements() const;
  // The captured messages of one level, in order.
  std::vector<std::string> messages(LogMask::log_t level) const;
  void clearLog() { records_.clear(); }

  std::vector<LogRecord> records_;
};

// A LogCaptureTest with a fresh store whose root is the only location, and the
// user filter; the root's cache directory exists.
class StoreTest : public LogCaptureTest {
 protected:
  void SetUp() override;

  // A cache over the store; the log starts empty after its construction.
  std::unique_ptr<CertFileCache> makeCache(bool withKeys);
  static std::vector<std::string> ids(const CertFileCache& cache);

  // A path in the root's cache directory, plain and in the quoted path form.
  std::string file(const std::string& name) const { return userDir_ + "/" + name; }
  std::string quoted(const std::string& name) const { return "\"" + file(name) + "\""; }
  // Everything in the root's cache directory.
  std::vector<std::string> files() const { return listTree(userDir_); }

  TempDir dir_;
  const std::string root_ = dir_ / "root";
  const std::string userDir_ = root_ + "/user";
  CertificateStore store_{root_, {root_}};
  boost::shared_ptr<CertificateFilter> filter_;
};

}  // namespace test
}  // namespace tavik

#endif  // TAVIK_TESTS_SUPPORT_TESTSUPPORT_H_
