#include "support/testsupport.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace tavik {
namespace test {

namespace fs = boost::filesystem;

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/tavik-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() {
  // Tests take permissions away; give them back so that everything can go.
  boost::system::error_code error;
  for (fs::recursive_directory_iterator it(path_, error), end; !error && it != end;
       it.increment(error)) {
    if (fs::is_directory(it->symlink_status())) ::chmod(it->path().c_str(), 0700);
  }
  ::chmod(path_.c_str(), 0700);
  fs::remove_all(path_, error);
}

EVP_PKEY* testKey(int which) {
  static std::array<PkeyHandle, 4> keys;
  PkeyHandle& key = keys.at(static_cast<std::size_t>(which));
  if (!key) key = OpenSSLUtil::generateRsaPkey(1024);
  return key.get();
}

namespace {

void addExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  if (extension == nullptr) throw std::runtime_error("extension " + value);
  X509_add_ext(cert, extension, -1);
  X509_EXTENSION_free(extension);
}

}  // namespace

X509Ptr makeCertificate(const CertOptions& options) {
  EVP_PKEY* key = options.key != nullptr ? options.key : testKey(0);
  X509Ptr cert(X509_new());
  X509_set_version(cert.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), options.serial);
  X509_NAME* name = X509_get_subject_name(cert.get());
  if (!options.commonName.empty()) {
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(options.commonName.c_str()),
                               -1, -1, 0);
  }
  if (!options.email.empty()) {
    X509_NAME_add_entry_by_txt(name, "emailAddress", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(options.email.c_str()), -1,
                               -1, 0);
  }
  X509_set_issuer_name(cert.get(),
                       options.issuer != nullptr ? X509_get_subject_name(options.issuer) : name);
  const long day = 24 * 60 * 60;
  if (options.validDays >= 0) {
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -day);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), options.validDays * day);
  } else {
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), (options.validDays - 30) * day);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), options.validDays * day);
  }
  X509_set_pubkey(cert.get(), key);
  X509* issuer = options.issuer != nullptr ? options.issuer : cert.get();
  addExtension(cert.get(), issuer, NID_basic_constraints,
               options.authority ? "critical,CA:TRUE" : "CA:FALSE");
  for (const std::string& email : options.altEmails) {
    addExtension(cert.get(), issuer, NID_subject_alt_name, "email:" + email);
  }
  X509_sign(cert.get(), options.issuerKey != nullptr ? options.issuerKey : key, EVP_sha256());
  return cert;
}

std::string toPem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cert);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

std::string toDer(X509* cert) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(cert, &der);
  std::string bytes(reinterpret_cast<char*>(der), static_cast<std::size_t>(length));
  OPENSSL_free(der);
  return bytes;
}

std::string encryptedKeyPem(EVP_PKEY* key, const std::string& password) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(bio.get(), key, EVP_des_ede3_cbc(), nullptr, 0, nullptr,
                           const_cast<char*>(password.c_str()));
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

void writeFile(const std::string& path, const std::string& contents) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << contents;
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool fileExists(const std::string& path) {
  boost::system::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

void makeDirectories(const std::string& path) { fs::create_directories(path); }

std::vector<std::string> listTree(const std::string& dir) {
  std::vector<std::string> files;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    files.push_back(fs::relative(it->path(), dir).string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string userCertPem(const std::string& email) {
  CertOptions options;
  options.commonName = "User";
  options.email = email;
  return toPem(makeCertificate(options).get());
}

int occurrences(const std::string& text, const std::string& word) {
  int count = 0;
  for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++count;
  return count;
}

void writeUserPair(const std::string& dir, const std::string& baseName, const std::string& email,
                   const std::string& password, EVP_PKEY* key) {
  CertOptions options;
  options.commonName = "User " + email;
  options.email = email;
  options.key = key != nullptr ? key : testKey(0);
  X509Ptr cert = makeCertificate(options);
  makeDirectories(dir);
  writeFile(dir + "/" + baseName + ".crt", toPem(cert.get()));
  writeFile(dir + "/" + baseName + ".key", encryptedKeyPem(options.key, password));
}

int runCommand(const std::string& command, std::string* output) {
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return -1;
  std::string text;
  std::array<char, 4096> buffer{};
  std::size_t got = 0;
  while ((got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
    text.append(buffer.data(), got);
  const int status = ::pclose(pipe);
  if (output != nullptr) *output = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void LogCaptureTest::SetUp() {
  LogFacility::setUp(true);
  LogFacility::setLevels(LogMask::error | LogMask::warning | LogMask::info | LogMask::debug |
                         LogMask::trace);
  LogFacility::setSink([this](const LogRecord& record) { records_.push_back(record); });
}

void LogCaptureTest::TearDown() {
  LogFacility::setSink(nullptr);
  LogFacility::setLevels(LogMask::error | LogMask::warning);
  LogFacility::setUp(true);
}

std::vector<std::string> LogCaptureTest::statements() const {
  std::vector<std::string> lines;
  for (const LogRecord& record : records_) {
    lines.push_back(std::string(LogFacility::levelName(record.level)) + ": " + record.message);
  }
  return lines;
}

std::vector<std::string> LogCaptureTest::messages(LogMask::log_t level) const {
  std::vector<std::string> lines;
  for (const LogRecord& record : records_) {
    if (record.level == level) lines.push_back(record.message);
  }
  return lines;
}

void StoreTest::SetUp() {
  LogCaptureTest::SetUp();
  makeDirectories(userDir_);
  filter_ = boost::make_shared<UserCertificateFilter>();
}

std::unique_ptr<CertFileCache> StoreTest::makeCache(bool withKeys) {
  auto cache = std::make_unique<CertFileCache>(store_, filter_, withKeys);
  clearLog();
  return cache;
}

std::vector<std::string> StoreTest::ids(const CertFileCache& cache) {
  std::vector<std::string> list;
  cache.listIds(list);
  return list;
}

}  // namespace test
}  // namespace tavik
